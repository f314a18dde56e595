#include "host/terminal/utf8.h"

#include <utf8proc.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>

namespace zym {
namespace {

const utf8proc_uint8_t* bytes(std::string_view text) {
  return reinterpret_cast<const utf8proc_uint8_t*>(text.data());
}

// Bytes of the character that this lead byte begins; 0 unless it begins one of two bytes or more.
size_t announcedLength(uint8_t lead) {
  if (lead >= 0xC2 && lead <= 0xDF) {
    return 2;
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    return 4;
  }
  return 0;
}

}  // namespace

size_t characterAt(std::string_view text, char32_t& code) {
  if (text.empty()) {
    return 0;
  }
  utf8proc_int32_t value = -1;
  const auto length =
      utf8proc_iterate(bytes(text), static_cast<utf8proc_ssize_t>(text.size()), &value);
  if (length <= 0 || value < 0) {
    return 0;
  }
  code = static_cast<char32_t>(value);
  return static_cast<size_t>(length);
}

std::string utf8Of(char32_t code) {
  std::array<utf8proc_uint8_t, 4> encoded{};
  const auto length = utf8proc_encode_char(static_cast<utf8proc_int32_t>(code), encoded.data());
  return {reinterpret_cast<const char*>(encoded.data()), static_cast<size_t>(length)};
}

std::u32string toCodes(std::string_view text) {
  std::u32string codes;
  while (!text.empty()) {
    char32_t code = 0;
    const size_t length = characterAt(text, code);
    codes += length == 0 ? U'\uFFFD' : code;
    text.remove_prefix(std::max<size_t>(1, length));
  }
  return codes;
}

std::string fromCodes(std::u32string_view codes) {
  std::string text;
  for (const char32_t code : codes) {
    text += utf8Of(code);
  }
  return text;
}

size_t columnsOf(char32_t code) {
  const auto value = static_cast<utf8proc_int32_t>(code);
  // Characters that are younger than the library's tables are drawn all the same.
  if (utf8proc_category(value) == UTF8PROC_CATEGORY_CN) {
    return code >= 0x1F000 && code < 0x1FB00 ? 2 : 1;
  }
  return static_cast<size_t>(utf8proc_charwidth(value));
}

size_t incompleteTail(std::string_view text) {
  for (size_t back = 1; back <= std::min<size_t>(3, text.size()); ++back) {
    const auto byte = static_cast<uint8_t>(text[text.size() - back]);
    if ((byte & 0xC0) == 0x80) {
      continue;
    }
    return announcedLength(byte) > back ? back : 0;
  }
  return 0;
}

std::string replaceInvalid(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    char32_t code = 0;
    const size_t length = characterAt(text, code);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(std::max<size_t>(1, length));
  }
  return out;
}

std::string normalised(std::string_view text) {
  utf8proc_uint8_t* mapped = nullptr;
  const auto length =
      utf8proc_map(bytes(text), static_cast<utf8proc_ssize_t>(text.size()), &mapped,
                   static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
  if (length < 0) {
    return std::string(text);
  }
  std::string out(reinterpret_cast<const char*>(mapped), static_cast<size_t>(length));
  std::free(mapped);
  return out;
}

std::string withoutControls(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    char32_t code = 0;
    const size_t length = std::max<size_t>(1, characterAt(text, code));
    const bool control = code < 0x20 || (code >= 0x7F && code < 0xA0);
    if (!control || code == '\n' || code == '\t') {
      out += text.substr(0, length);
    }
    text.remove_prefix(length);
  }
  return out;
}

}  // namespace zym
