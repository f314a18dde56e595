#include "convert/errors.h"

#include <algorithm>

namespace kel::convert {

std::string printable(std::string_view text) {
  constexpr size_t kLongest = 100;
  size_t length = std::min(text.size(), kLongest);
  // Not within a character of several bytes.
  while (length > 0 && length < text.size() && (text[length] & 0xC0) == 0x80) {
    --length;
  }
  std::string shown(text.substr(0, length));
  for (char& c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      c = '?';
    }
  }
  if (length < text.size()) {
    shown += "...";
  }
  return shown;
}

}  // namespace kel::convert
