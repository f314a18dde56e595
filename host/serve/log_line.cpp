#include "host/serve/log_line.h"

#include <utf8proc.h>

#include <algorithm>
#include <cstddef>

namespace zym {
namespace {

// C0 and C1, which terminals obey alike.
bool isControl(utf8proc_int32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0);
}

// What has the characters behind it drawn before it, or the like: Bidi_Control of Unicode.
bool isDirection(utf8proc_int32_t code) {
  return code == 0x061C || code == 0x200E || code == 0x200F || (code >= 0x202A && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

bool isLineEnd(utf8proc_int32_t code) {
  return code == 0x2028 || code == 0x2029;
}

}  // namespace

std::string onOneLine(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    utf8proc_int32_t code = -1;
    const utf8proc_ssize_t length =
        utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                         static_cast<utf8proc_ssize_t>(text.size()), &code);
    const size_t taken = static_cast<size_t>(std::max<utf8proc_ssize_t>(1, length));
    if (length <= 0 || isControl(code) || isDirection(code) || isLineEnd(code)) {
      out += '?';
    } else {
      out += text.substr(0, taken);
    }
    text.remove_prefix(taken);
  }
  return out;
}

}  // namespace zym
