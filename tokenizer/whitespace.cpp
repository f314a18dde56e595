#include "tokenizer/whitespace.h"

#include <cstddef>
#include <utility>

namespace kel {
namespace {

void appendReplaced(std::string_view text, std::string_view from, std::string_view to,
                    std::string& out) {
  size_t at = 0;
  for (;;) {
    const size_t found = text.find(from, at);
    if (found == std::string_view::npos) {
      break;
    }
    out.append(text, at, found - at).append(to);
    at = found + from.size();
  }
  out.append(text, at);
}

}  // namespace

void appendEscaped(std::string_view text, std::string_view marker, std::string& out) {
  appendReplaced(text, " ", marker, out);
}

void appendUnescaped(std::string_view text, std::string& out) {
  appendReplaced(text, kEscapedSpace, " ", out);
}

void escapeWhitespace(std::string& s) {
  std::string escaped;
  escaped.reserve(s.size());
  appendEscaped(s, kEscapedSpace, escaped);
  s = std::move(escaped);
}

void unescapeWhitespace(std::string& s) {
  std::string plain;
  plain.reserve(s.size());
  appendUnescaped(s, plain);
  s = std::move(plain);
}

}  // namespace kel
