#include "tokenizer/word_splitter.h"

#include <array>
#include <cstddef>
#include <cstdint>

#include "tokenizer/utf8.h"

namespace kel {
namespace {

constexpr char kApostrophe = '\'';
constexpr std::string_view kTypographicApostrophe = "\xE2\x80\x99";  // U+2019

constexpr std::array<std::string_view, 7> kContractionSuffixes = {"s", "t",  "re", "ve",
                                                                  "m", "ll", "d"};

bool isLetter(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x80 || (byte | 0x20U) - 'a' < 26U;
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

bool isNewline(char c) {
  return c == '\n' || c == '\r';
}

bool isWhitespace(char c) {
  constexpr uint64_t kWhitespaceBytes =
      1ULL << '\t' | 1ULL << '\n' | 1ULL << '\v' | 1ULL << '\f' | 1ULL << '\r' | 1ULL << ' ';
  const auto byte = static_cast<unsigned char>(c);
  return byte < 64 && (kWhitespaceBytes >> byte & 1U) != 0;
}

bool isOther(char c) {
  return !isLetter(c) && !isDigit(c) && !isWhitespace(c);
}

template <typename Predicate>
size_t runEnd(std::string_view text, size_t at, Predicate inRun) {
  while (at < text.size() && inRun(text[at])) {
    ++at;
  }
  return at;
}

// Steps by whole characters, so that a word never ends inside one. A lead byte with fewer
// continuation bytes than it announces takes whatever follows, spaces included.
size_t letterRunEnd(std::string_view text, size_t at) {
  while (at < text.size() && isLetter(text[at])) {
    at = characterEnd(text, at);
  }
  return at;
}

size_t punctuationEnd(std::string_view text, size_t at) {
  return runEnd(text, runEnd(text, at, isOther), isNewline);
}

size_t digitGroupEnd(std::string_view text, size_t at) {
  constexpr size_t kMaxGroup = 3;
  return at + runEnd(text.substr(at, kMaxGroup), 0, isDigit);
}

// suffix is in lower case; only ASCII letters fold.
bool startsWithFolded(std::string_view text, std::string_view suffix) {
  if (text.size() < suffix.size()) {
    return false;
  }
  for (size_t i = 0; i < suffix.size(); ++i) {
    const char c = text[i];
    const char folded = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    if (folded != suffix[i]) {
      return false;
    }
  }
  return true;
}

// End of the contraction that starts at at, or at when there is none.
size_t contractionEnd(std::string_view text, size_t at) {
  const std::string_view rest = text.substr(at);
  size_t apostropheBytes = 0;
  if (rest.front() == kApostrophe) {
    apostropheBytes = 1;
  } else if (rest.starts_with(kTypographicApostrophe)) {
    apostropheBytes = kTypographicApostrophe.size();
  } else {
    return at;
  }
  for (const std::string_view suffix : kContractionSuffixes) {
    if (startsWithFolded(rest.substr(apostropheBytes), suffix)) {
      return at + apostropheBytes + suffix.size();
    }
  }
  return at;
}

// A space that does not prefix a letter run.
size_t spaceWordEnd(std::string_view text, size_t at) {
  const bool prefixesPunctuation = at + 1 < text.size() && isOther(text[at + 1]);
  return prefixesPunctuation ? punctuationEnd(text, at + 1) : runEnd(text, at, isWhitespace);
}

// The order of the tests is the order of precedence.
size_t wordEnd(std::string_view text, size_t at) {
  const size_t contraction = contractionEnd(text, at);
  if (contraction != at) {
    return contraction;
  }
  const char c = text[at];
  if (isNewline(c)) {
    return runEnd(text, at, isWhitespace);
  }
  if (isLetter(c)) {
    return letterRunEnd(text, at);
  }
  if (isDigit(c)) {
    return digitGroupEnd(text, at);
  }
  if (at + 1 < text.size() && isLetter(text[at + 1])) {
    return letterRunEnd(text, at + 1);
  }
  if (c == ' ') {
    return spaceWordEnd(text, at);
  }
  if (isOther(c)) {
    return punctuationEnd(text, at);
  }
  return runEnd(text, at, isWhitespace);
}

}  // namespace

std::vector<std::string_view> splitWords(std::string_view text) {
  std::vector<std::string_view> words;
  for (size_t at = 0; at < text.size();) {
    const size_t end = wordEnd(text, at);
    words.push_back(text.substr(at, end - at));
    at = end;
  }
  return words;
}

}  // namespace kel
