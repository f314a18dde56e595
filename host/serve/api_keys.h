// The keys that callers of a server show.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "container/status.h"

namespace zym {

class ApiKeys {
 public:
  ApiKeys() = default;
  explicit ApiKeys(std::vector<std::string> all) : keys(std::move(all)) {}

  // One key a line; blanks around it, empty lines and lines that begin with '#' do not count. Fails
  // where the file cannot be read or has no key: a server that was told of keys and has none would
  // be open to everybody, or closed to all.
  static kel::Status read(const std::string& path, ApiKeys& keys);

  bool empty() const { return keys.empty(); }
  // Takes as long for a key that is wrong in its first byte as for one that is wrong in its last,
  // and looks at all keys either way.
  bool contain(std::string_view key) const;

 private:
  std::vector<std::string> keys;
};

}  // namespace zym
