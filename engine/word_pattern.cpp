#include "engine/word_pattern.h"

#include <utf8proc.h>

#include <array>
#include <cstdint>

#include "engine/utf8_text.h"

namespace engine {
namespace {

// Every character is of one kind.
enum class Kind : uint8_t { Letter, Mark, Number, Space, Break, Other };  // Break: CR or LF

constexpr std::string_view kLongS = "\xC5\xBF";  // U+017F

constexpr Kind kindOfAscii(uint8_t c) {
  if (c == '\n' || c == '\r') {
    return Kind::Break;
  }
  if (c == ' ' || c == '\t' || c == '\v' || c == '\f') {
    return Kind::Space;
  }
  if (c >= '0' && c <= '9') {
    return Kind::Number;
  }
  const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  return isLetter ? Kind::Letter : Kind::Other;
}

constexpr std::array<Kind, 128> kAsciiKinds = [] {
  std::array<Kind, 128> kinds{};
  for (size_t c = 0; c < kinds.size(); ++c) {
    kinds[c] = kindOfAscii(static_cast<uint8_t>(c));
  }
  return kinds;
}();

// Of the white space beyond ASCII all but U+0085 are separators by category, and all separators are
// white space.
Kind kindBeyondAscii(char32_t code) {
  switch (utf8proc_category(static_cast<utf8proc_int32_t>(code))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
      return Kind::Letter;
    case UTF8PROC_CATEGORY_MN:
    case UTF8PROC_CATEGORY_MC:
    case UTF8PROC_CATEGORY_ME:
      return Kind::Mark;
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NL:
    case UTF8PROC_CATEGORY_NO:
      return Kind::Number;
    case UTF8PROC_CATEGORY_ZS:
    case UTF8PROC_CATEGORY_ZL:
    case UTF8PROC_CATEGORY_ZP:
      return Kind::Space;
    default:
      return code == 0x85 ? Kind::Space : Kind::Other;
  }
}

struct Character {
  Kind kind;
  size_t end;
};

Character read(std::string_view text, size_t at) {
  const auto byte = static_cast<uint8_t>(text[at]);
  if (byte < kAsciiKinds.size()) {
    return {kAsciiKinds[byte], at + 1};
  }
  const Utf8Character character = characterAt(text, at);
  return {kindBeyondAscii(character.code), at + character.nBytes};
}

bool isWordKind(Kind kind) {
  return kind == Kind::Letter || kind == Kind::Mark;
}

bool isSpaceKind(Kind kind) {
  return kind == Kind::Space || kind == Kind::Break;
}

template <typename Predicate>
size_t runEnd(std::string_view text, size_t at, Predicate inRun) {
  while (at < text.size()) {
    const Character character = read(text, at);
    if (!inRun(character.kind)) {
      break;
    }
    at = character.end;
  }
  return at;
}

bool startsWord(std::string_view text, size_t at) {
  return at < text.size() && isWordKind(read(text, at).kind);
}

bool startsSigns(std::string_view text, size_t at) {
  return at < text.size() && read(text, at).kind == Kind::Other;
}

// Signs and the line breaks behind them.
size_t signsEnd(std::string_view text, size_t at) {
  at = runEnd(text, at, [](Kind kind) { return kind == Kind::Other; });
  return runEnd(text, at, [](Kind kind) { return kind == Kind::Break; });
}

char lowerAt(std::string_view text, size_t at) {
  const char c = at < text.size() ? text[at] : '\0';
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// End of the contraction whose apostrophe is text[at], or at when there is none.
size_t contractionEnd(std::string_view text, size_t at) {
  const char second = lowerAt(text, at + 2);
  switch (lowerAt(text, at + 1)) {
    case 's':
    case 't':
    case 'm':
    case 'd':
      return at + 2;
    case 'r':
    case 'v':
      return second == 'e' ? at + 3 : at;
    case 'l':
      return second == 'l' ? at + 3 : at;
    default:
      return text.substr(at + 1).starts_with(kLongS) ? at + 1 + kLongS.size() : at;
  }
}

// A run of white space from text[at] on: what is up to its last line break; or else all of it at
// the end of the text, or all but the last character, which belongs to what follows; or that
// character.
size_t spacesEnd(std::string_view text, size_t at) {
  size_t end = at;
  size_t afterBreak = at;
  size_t last = at;
  while (end < text.size()) {
    const Character character = read(text, end);
    if (!isSpaceKind(character.kind)) {
      break;
    }
    last = end;
    end = character.end;
    if (character.kind == Kind::Break) {
      afterBreak = end;
    }
  }
  if (afterBreak != at) {
    return afterBreak;
  }
  return end == text.size() || last == at ? end : last;
}

}  // namespace

// The order of the tests is that of the alternatives, as far as they overlap.
size_t wordEnd(std::string_view text, size_t at) {
  const Character first = read(text, at);
  if (text[at] == '\'') {
    const size_t end = contractionEnd(text, at);
    if (end != at) {
      return end;
    }
  }
  if (isWordKind(first.kind)) {
    return runEnd(text, first.end, isWordKind);
  }
  if (first.kind == Kind::Number) {
    return first.end;
  }
  if (first.kind != Kind::Break && startsWord(text, first.end)) {
    return runEnd(text, first.end, isWordKind);
  }
  if (first.kind == Kind::Other || (text[at] == ' ' && startsSigns(text, first.end))) {
    return signsEnd(text, first.end);
  }
  return spacesEnd(text, at);
}

}  // namespace engine
