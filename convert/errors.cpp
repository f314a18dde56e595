#include "convert/errors.h"

namespace kel::convert {

std::string printable(std::string_view text) {
  constexpr size_t kLongest = 100;
  std::string shown(text.substr(0, kLongest));
  for (char& c : shown) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) c = '?';
  }
  if (text.size() > kLongest) shown += "...";
  return shown;
}

}  // namespace kel::convert
