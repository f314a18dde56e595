// What a check of a container finds.
#pragma once

#include <string>

namespace zym {

struct Fault {
  std::string where;  // a tensor, a section, or "file"
  std::string what;
};

}  // namespace zym
