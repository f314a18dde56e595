#include "host/chat/text_map.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <vector>

#include "host/terminal/utf8.h"
#include "tokenizer/alphabet.h"

namespace zym {
namespace {

using kel::appendLetter;
using kel::byteOfLetter;

constexpr std::string_view kBreak = "\u200B";
constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
// Runs of white space are merged in stretches of this length; trained vocabularies hold no token
// that is nearly as long.
constexpr size_t kLongestRun = 128;

bool isWhiteSpace(char c) {
  return kWhiteSpace.find(c) != std::string_view::npos;
}
bool isPunctuation(char c) {
  const bool alphanumeric =
      (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  return c >= 0x21 && c <= 0x7E && !alphanumeric;
}

std::string lettersOf(std::string_view bytes) {
  std::string out;
  for (const char byte : bytes) {
    appendLetter(static_cast<uint8_t>(byte), out);
  }
  return out;
}

// True when text is made of letters of white space and ASCII punctuation only.
bool isSpacing(std::string_view text) {
  while (!text.empty()) {
    char32_t code = 0;
    const size_t length = characterAt(text, code);
    const int byte = length == 0 ? -1 : byteOfLetter(code);
    if (byte < 0 ||
        !(isWhiteSpace(static_cast<char>(byte)) || isPunctuation(static_cast<char>(byte)))) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

bool isSpacingMerge(std::string_view rule) {
  const size_t cut = rule.find(' ');
  return cut != std::string_view::npos && isSpacing(rule.substr(0, cut)) &&
         isSpacing(rule.substr(cut + 1));
}

kel::TokenizerData spacingTables(const kel::TokenizerData& tables) {
  kel::TokenizerData spacing;
  std::copy_if(tables.tokens.begin(), tables.tokens.end(), std::back_inserter(spacing.tokens),
               [](const std::string& token) { return isSpacing(token); });
  std::copy_if(tables.merges.begin(), tables.merges.end(), std::back_inserter(spacing.merges),
               [](const std::string& rule) { return isSpacingMerge(rule); });
  return spacing;
}

// The punctuation mark that may form one token with a line feed after it; 0 when there is none.
// Only a single mark can: after two marks, or after a space and a mark, the runtime's splitter cuts
// the text before the line feed.
char joinableMark(std::string_view before) {
  if (before.empty() || !isPunctuation(before.back())) {
    return '\0';
  }
  if (before.size() == 1) {
    return before.back();
  }
  const char previous = before[before.size() - 2];
  return previous == ' ' || isPunctuation(previous) ? '\0' : before.back();
}

}  // namespace

TextMap::TextMap(const kel::TokenizerData& tables)
    : vocabText(vocabTextOf(tables.label)),
      specialTokens(kel::specialTokensOf(tables.tokens, tables.tokenTypes)) {
  finder.build(specialTokens);
  // Without such tokens in the vocabulary the tokenizer stays empty, and covers() is always false.
  if (vocabText == VocabText::Alphabet) {
    (void)spacing.load(spacingTables(tables));
  }
}

kel::Status TextMap::toVocabulary(std::string_view typed, bool keepSpecial,
                                  std::string& out) const {
  out = normalised(typed);
  if (vocabText == VocabText::Alphabet) {
    out = toLetters(out);
  } else if (out.find('\0') != std::string::npos) {
    return kel::Status::invalid("the text holds a NUL byte, which this vocabulary cannot take");
  }
  if (!keepSpecial) {
    out = withBrokenSpecials(out);
  }
  return kel::Status::success();
}

std::string TextMap::toLetters(std::string_view text) const {
  std::string out;
  out.reserve(text.size() * 2);
  size_t at = 0;
  while (at < text.size()) {
    if (!isWhiteSpace(text[at])) {
      appendLetter(static_cast<uint8_t>(text[at++]), out);
      continue;
    }
    const size_t end = std::min(text.find_first_not_of(kWhiteSpace, at), text.size());
    appendWhiteSpace(text.substr(at, end - at), end == text.size(),
                     joinableMark(text.substr(0, at)), out);
    at = end;
  }
  return out;
}

// In training, a run up to its last line feed was one word, a final space belonged to the word
// behind it, and what lay between was another word.
void TextMap::appendWhiteSpace(std::string_view run, bool endsText, char joinable,
                               std::string& out) const {
  const size_t lastFeed = run.find_last_of("\r\n");
  const size_t cut = lastFeed == std::string_view::npos ? 0 : lastFeed + 1;
  const std::string_view lines = run.substr(0, cut);
  std::string_view blanks = run.substr(cut);
  const bool joins = lines.find_first_not_of("\r\n") == std::string_view::npos;
  appendCovered(lines, joins ? joinable : '\0', out);
  if (blanks == " ") {
    out += ' ';
    return;
  }
  const bool opensWord = !endsText && !blanks.empty() && blanks.back() == ' ';
  if (opensWord) {
    blanks.remove_suffix(1);
  }
  appendCovered(blanks, '\0', out);
  if (opensWord) {
    out += ' ';
  }
}

// Writes run as letters as far as the vocabulary has tokens for them. A lone line feed has only the
// real one, so a line feed that no longer token takes in stays real; so does everything after a
// stretch that merging would lose.
void TextMap::appendCovered(std::string_view run, char joinable, std::string& out) const {
  std::string mark(joinable == '\0' ? 0 : 1, joinable);
  while (!run.empty()) {
    size_t length = std::min(run.size(), kLongestRun);
    while (length > 0 && !covers(mark + lettersOf(run.substr(0, length)))) {
      --length;
    }
    if (length > 0) {
      out += lettersOf(run.substr(0, length));
    } else if (run.front() == '\n') {
      out += '\n';
      length = 1;
    } else {
      appendLetter(static_cast<uint8_t>(run.front()), out);
      length = 1;
    }
    run.remove_prefix(length);
    mark.clear();
  }
}

// True when merging turns the letters into tokens without losing one.
bool TextMap::covers(std::string_view letters) const {
  std::vector<int32_t> ids;
  if (!spacing.tokenizeBpe(letters, ids).ok()) {
    return false;
  }
  size_t covered = 0;
  for (const int32_t id : ids) {
    std::string token;
    if (spacing.tokenToString(id, token).ok()) {
      covered += token.size();
    }
  }
  return covered == letters.size();
}

std::string TextMap::withBrokenSpecials(std::string_view text) const {
  std::string out;
  out.reserve(text.size());
  size_t at = 0;
  // Only the first character of a match is passed: another token may begin inside it.
  while (at < text.size()) {
    const auto match = finder.find(specialTokens, text, at);
    char32_t code = 0;
    const size_t first = std::max<size_t>(1, characterAt(text.substr(match.begin), code));
    out += text.substr(at, match.begin + first - at);
    if (match.size > first) {
      out += kBreak;
    }
    at = match.begin + first;
  }
  return out;
}

std::string PieceDecoder::feed(std::string_view piece) {
  std::string bytes;
  kel::appendTokenBytes(vocabText, piece, bytes);
  return stream.feed(bytes);
}

}  // namespace zym
