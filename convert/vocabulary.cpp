#include "convert/vocabulary.h"

#include <algorithm>
#include <utility>

#include "convert/errors.h"
#include "tokenizer/alphabet.h"

namespace kel::convert {

namespace {

constexpr std::string_view kSpaceLetter = "\xC4\xA0";     // U+0120
constexpr std::string_view kLineFeedLetter = "\xC4\x8A";  // U+010A
constexpr std::string_view kOtherSpaceMark = "\xE2\x96\x81";
constexpr std::string_view kTurnEnd = "<|im_end|>";
constexpr uint64_t kMaxRows = uint64_t{1} << 22;

// A token that is matched whole, or never, and so is no alphabet text.
bool isLiteral(int32_t type) {
  return isSpecialTokenType(type) || type == kUnusedToken;
}

// Written as plain tokens, marks such as "<think>" would be cut into pieces of text.
int32_t storedType(int32_t type) {
  return type == kUserDefinedToken ? kControlToken : type;
}

void padTokens(Vocabulary& vocabulary, uint64_t rows) {
  while (vocabulary.tokens.size() < rows) {
    vocabulary.tokens.push_back(fmt::format("[PAD{}]", vocabulary.tokens.size()));
    vocabulary.types.push_back(kUnusedToken);
  }
}

int32_t endToken(const Vocabulary& vocabulary) {
  if (!vocabulary.chat) {
    return vocabulary.eosId;
  }
  for (size_t id = 0; id < vocabulary.tokens.size(); ++id) {
    if (vocabulary.types[id] == kControlToken && vocabulary.tokens[id] == kTurnEnd) {
      return static_cast<int32_t>(id);
    }
  }
  return vocabulary.eosId;
}

bool holds(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool isAlphabetRule(std::string_view rule) {
  for (size_t at = 0; at < rule.size();) {
    const Letter letter = letterAt(rule, at);
    if (letter.byte < 0 && rule[at] != ' ') {  // between its sides
      return false;
    }
    at += letter.nBytes;
  }
  return true;
}

// Which mark a vocabulary has for a space shows in all of it, not in any one place.
Status checkByteLevel(const Vocabulary& vocabulary) {
  for (const std::string& rule : vocabulary.merges) {
    if (!isAlphabetRule(rule)) {
      return unsupported(
          "tokenizer: the merge rule \"{}\" holds characters outside the byte alphabet; the "
          "runtime needs a byte-level vocabulary",
          printable(rule));
    }
  }
  bool hasSpace = false;
  for (size_t id = 0; id < vocabulary.tokens.size(); ++id) {
    const std::string& token = vocabulary.tokens[id];
    if (isLiteral(vocabulary.types[id])) {
      continue;
    }
    if (holds(token, kOtherSpaceMark)) {
      return unsupported(
          "tokenizer: the token \"{}\" marks a space with \"{}\"; the runtime needs a byte-level "
          "vocabulary, where \"{}\" does",
          printable(token), kOtherSpaceMark, kSpaceLetter);
    }
    hasSpace = hasSpace || token == kSpaceLetter;
  }
  return hasSpace
             ? Status::success()
             : unsupported("tokenizer: no token is \"{}\", the space of a byte-level vocabulary",
                           kSpaceLetter);
}

// The runtime tells by the first rule alone which mark the vocabulary has for a space. A rule whose
// right side is empty says so and rules no pair; it moves all ranks alike.
void markSpace(std::vector<std::string>& merges) {
  if (merges.empty() || !holds(merges.front(), kSpaceLetter)) {
    merges.insert(merges.begin(), std::string(kSpaceLetter) + " ");
  }
}

Status checkIds(const Vocabulary& vocabulary) {
  const auto count = static_cast<int64_t>(vocabulary.tokens.size());
  for (const auto& [name, id] :
       {std::pair{"end", vocabulary.eosId}, std::pair{"beginning", vocabulary.bosId}}) {
    if (id >= count) {
      return malformed("tokenizer: the {} token is {}, but there are {} tokens", name, id, count);
    }
  }
  return Status::success();
}

void storeAlphabet(Vocabulary& vocabulary) {
  const auto lineFeed =
      std::find(vocabulary.tokens.begin(), vocabulary.tokens.end(), kLineFeedLetter);
  if (lineFeed != vocabulary.tokens.end()) {
    lineFeed->assign(1, '\n');
  }
}

void storeRaw(Vocabulary& vocabulary) {
  for (size_t id = 0; id < vocabulary.tokens.size(); ++id) {
    if (!isLiteral(vocabulary.types[id])) {
      vocabulary.tokens[id] = rawText(vocabulary.tokens[id]);
    }
  }
  // A rule's two sides hold no plain space before or after: the space stays a letter.
  for (std::string& rule : vocabulary.merges) {
    rule = rawText(rule);
  }
}

}  // namespace

std::string rawText(std::string_view letters) {
  std::string raw;
  raw.reserve(letters.size());
  for (size_t at = 0; at < letters.size();) {
    const Letter letter = letterAt(letters, at);
    const std::string_view character = letters.substr(at, letter.nBytes);
    if (letter.byte < 0 || character == kSpaceLetter) {
      raw += letters[at];
      ++at;
      continue;
    }
    raw += static_cast<char>(letter.byte);
    at += letter.nBytes;
  }
  return raw;
}

Status buildTokenizer(Vocabulary vocabulary, uint64_t vocabRows, VocabularyForm form,
                      TokenizerData& out) {
  if (vocabulary.tokens.size() > vocabRows) {
    return unsupported("tokenizer: {} tokens, but token_embd.weight has {} rows",
                       vocabulary.tokens.size(), vocabRows);
  }
  if (vocabRows > kMaxRows) {
    return unsupported("token_embd.weight has {} rows; the importer takes at most {}", vocabRows,
                       kMaxRows);
  }
  Status status = checkByteLevel(vocabulary);
  if (status.ok()) {
    status = checkIds(vocabulary);
  }
  if (!status.ok()) {
    return status;
  }
  markSpace(vocabulary.merges);
  padTokens(vocabulary, vocabRows);
  for (int32_t& type : vocabulary.types) {
    type = storedType(type);
  }

  out = {};
  out.bosId = vocabulary.addBos ? vocabulary.bosId : -1;
  out.eosId = endToken(vocabulary);
  if (form == VocabularyForm::Alphabet) {
    storeAlphabet(vocabulary);
    out.label = kAlphabetLabel;
  } else {
    storeRaw(vocabulary);
    out.label = kRawLabel;
  }
  out.tokens = std::move(vocabulary.tokens);
  out.tokenTypes = std::move(vocabulary.types);
  out.merges = std::move(vocabulary.merges);
  return Status::success();
}

}  // namespace kel::convert
