// Names of hosts, headers and choices, which mean the same in any case.
#pragma once

#include <string>
#include <string_view>

namespace zym {

// Of ASCII letters; other bytes stay.
inline std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return lower;
}

}  // namespace zym
