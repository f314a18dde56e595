#include "engine/text_encoder.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

#include "engine/utf8_text.h"
#include "engine/word_pattern.h"
#include "tokenizer/alphabet.h"
#include "tokenizer/bpe_merger.h"
#include "tokenizer/vocab_text.h"
#include "tokenizer/whitespace.h"

namespace engine {
namespace {

using kel::Status;
using kel::StringIndex;

constexpr const char* kFormKey = "tokenizer.normalizer";

void appendLetters(std::string_view bytes, std::string& out) {
  for (const char byte : bytes) {
    kel::appendLetter(static_cast<uint8_t>(byte), out);
  }
}

std::string lettersOf(std::string_view bytes) {
  std::string letters;
  appendLetters(bytes, letters);
  return letters;
}

// A raw text in letters. Its mark of a space is the letter already, and between the sides of a rule
// stands a real space.
std::string restoredLetters(std::string_view raw) {
  std::string letters;
  letters.reserve(raw.size());
  for (size_t at = 0; at < raw.size();) {
    if (raw[at] == ' ') {
      letters += ' ';
      ++at;
    } else if (raw.substr(at).starts_with(kel::kByteLevelSpace)) {
      letters += kel::kByteLevelSpace;
      at += kel::kByteLevelSpace.size();
    } else {
      kel::appendLetter(static_cast<uint8_t>(raw[at]), letters);
      ++at;
    }
  }
  return letters;
}

std::vector<std::string> restoredLetters(const std::vector<std::string>& raw) {
  std::vector<std::string> letters;
  letters.reserve(raw.size());
  for (const std::string& text : raw) {
    letters.push_back(restoredLetters(text));
  }
  return letters;
}

// Where in the ids a word of the same text has been encoded before. Words of real texts repeat, and
// looking one up is much cheaper than merging it. A word takes the place of any other with the same
// hash, so that texts made to collide lose the gain and no more.
class SeenWords {
 public:
  struct Entry {
    std::string_view word;
    size_t firstId = 0;
    size_t nIds = 0;
  };

  static constexpr size_t kLongest = 24;  // bytes; longer words hardly repeat

  // For the words of a text of that size.
  explicit SeenWords(size_t textBytes)
      : entries(std::bit_ceil(std::clamp<size_t>(textBytes / kBytesAnEntry, 1, kMostEntries))) {}

  // The entry of word, which may hold another one.
  Entry& entryOf(std::string_view word) { return entries[hashOf(word) & (entries.size() - 1)]; }

 private:
  static constexpr size_t kBytesAnEntry = 8;
  static constexpr size_t kMostEntries = 8192;

  static size_t hashOf(std::string_view word) {
    constexpr uint64_t kFactor = 0x9E3779B97F4A7C15U;
    uint64_t hash = word.size();
    for (; !word.empty(); word.remove_prefix(std::min(word.size(), sizeof(uint64_t)))) {
      uint64_t part = 0;
      std::memcpy(&part, word.data(), std::min(word.size(), sizeof(part)));
      hash = (hash ^ part) * kFactor;
      hash ^= hash >> 32U;
    }
    return static_cast<size_t>(hash);
  }

  std::vector<Entry> entries;
};

}  // namespace

Status readTextForm(const kel::ZYM2Reader& reader, TextForm& out) {
  std::string normalizer = "nfc";
  reader.getMetaStr(kFormKey, normalizer);
  if (normalizer == "nfc" || normalizer.empty()) {
    out = normalizer.empty() ? TextForm::AsItIs : TextForm::Composed;
    return Status::success();
  }
  return {kel::StatusCode::Unsupported, std::string(kFormKey) + " is \"" + normalizer +
                                            "\"; text is brought to \"nfc\", or left as it is"};
}

// A raw vocabulary in the letters that it was made from.
struct TextEncoder::Letters {
  explicit Letters(const kel::Tokenizer& raw)
      : tokens(restoredLetters(raw.tokens)), merges(restoredLetters(raw.merges)) {
    tokenIndex.build(tokens);
    mergeRanks.build(merges);
  }

  std::vector<std::string> tokens;
  std::vector<std::string> merges;
  StringIndex tokenIndex;
  StringIndex mergeRanks;
};

// Encodes words one after the other; scratch of one call.
class TextEncoder::Words {
 public:
  explicit Words(const TextEncoder& textEncoder)
      : encoder(textEncoder), merger(*textEncoder.mergeRanks) {}

  void append(std::string_view word, std::vector<int32_t>& ids) {
    letters.clear();
    appendLetters(word, letters);
    const std::vector<size_t>& starts = merger.merge(letters);
    for (size_t i = 0; i + 1 < starts.size(); ++i) {
      appendSymbol(std::string_view(letters).substr(starts[i], starts[i + 1] - starts[i]), ids);
    }
  }

 private:
  // A symbol that is no token of plain text is spelt by its bytes: the line feed, whose token is
  // stored as a real one, and what the raw form cannot tell from something else.
  void appendSymbol(std::string_view symbol, std::vector<int32_t>& ids) const {
    const int32_t id = encoder.plainId(*encoder.tokenIndex, symbol);
    if (id >= 0) {
      ids.push_back(id);
      return;
    }
    for (size_t at = 0; at < symbol.size();) {
      const kel::Letter letter = kel::letterAt(symbol, at);
      encoder.appendOrUnknown(encoder.byteIds[static_cast<uint8_t>(letter.byte)], ids);
      at += letter.nBytes;
    }
  }

  const TextEncoder& encoder;
  kel::BpeMerger merger;
  std::string letters;
};

TextEncoder::TextEncoder(const kel::Tokenizer& textTokenizer, TextForm textForm)
    : tokenizer(textTokenizer),
      form(textForm),
      tokenIndex(&textTokenizer.tokenIndex),
      mergeRanks(&textTokenizer.mergeRanks) {
  specials.build(tokenizer.specialTokens);
  if (!tokenizer.byteLevel) {
    return;
  }
  if (kel::vocabTextOf(tokenizer.label) == kel::VocabText::Raw) {
    restored = std::make_unique<const Letters>(tokenizer);
    tokenIndex = &restored->tokenIndex;
    mergeRanks = &restored->mergeRanks;
  }
  for (size_t byte = 0; byte < byteIds.size(); ++byte) {
    const std::string text(1, static_cast<char>(byte));
    const int32_t id = plainId(*tokenIndex, lettersOf(text));
    byteIds[byte] = id >= 0 ? id : plainId(tokenizer.tokenIndex, text);
  }
}

TextEncoder::~TextEncoder() = default;

void TextEncoder::encode(std::string_view text, std::vector<int32_t>& ids) const {
  Words words(*this);
  encodePlain(text, words, ids);
}

void TextEncoder::encodeWithSpecials(std::string_view text, std::vector<int32_t>& ids) const {
  Words words(*this);
  for (size_t at = 0; at < text.size();) {
    const auto match = specials.find(tokenizer.specialTokens, text, at);
    encodePlain(text.substr(at, match.begin - at), words, ids);
    if (match.size > 0) {
      ids.push_back(match.id);
    }
    at = match.begin + match.size;
  }
}

// The id of a token that text can be merged to, or a negative one. Merge rules could lead to the
// letters of a special token; only the token's own mark may become its id.
int32_t TextEncoder::plainId(const StringIndex& index, std::string_view token) const {
  const int32_t id = index.find(token);
  const auto at = static_cast<size_t>(id);
  const bool isSpecial = id >= 0 && at < tokenizer.tokenTypes.size() &&
                         kel::isSpecialTokenType(tokenizer.tokenTypes[at]);
  return isSpecial ? StringIndex::kAbsent : id;
}

void TextEncoder::encodePlain(std::string_view text, Words& words,
                              std::vector<int32_t>& ids) const {
  std::string changed;
  if (!isValid(text)) {
    appendValid(text, changed);
    text = changed;
  }
  std::string composedText;
  if (form == TextForm::Composed && !isBelowMarks(text)) {
    composedText = composed(text);
    text = composedText;
  }
  if (!tokenizer.byteLevel) {
    encodeOtherFamily(text, ids);
    return;
  }

  SeenWords seen(text.size());
  for (size_t at = 0; at < text.size();) {
    const size_t end = wordEnd(text, at);
    const std::string_view word = text.substr(at, end - at);
    at = end;
    if (word.size() > SeenWords::kLongest) {
      words.append(word, ids);
      continue;
    }
    SeenWords::Entry& entry = seen.entryOf(word);
    const size_t firstId = ids.size();
    if (entry.word == word) {
      for (size_t i = 0; i < entry.nIds; ++i) {
        ids.push_back(ids[entry.firstId + i]);
      }
      continue;
    }
    words.append(word, ids);
    entry = {word, firstId, ids.size() - firstId};
  }
}

// Line by line, as the container format's rules have it.
void TextEncoder::encodeOtherFamily(std::string_view text, std::vector<int32_t>& ids) const {
  std::string escaped;
  kel::appendEscaped(text, kel::kEscapedSpace, escaped);
  const std::string_view rest = escaped;
  kel::BpeMerger merger(*mergeRanks);
  for (size_t at = 0; at < rest.size();) {
    const size_t lineFeed = std::min(rest.find('\n', at), rest.size());
    const std::string_view piece = rest.substr(at, std::max<size_t>(1, lineFeed - at));
    const std::vector<size_t>& starts = merger.merge(piece);
    for (size_t i = 0; i + 1 < starts.size(); ++i) {
      appendOrUnknown(plainId(*tokenIndex, piece.substr(starts[i], starts[i + 1] - starts[i])),
                      ids);
    }
    at += piece.size();
  }
}

void TextEncoder::appendOrUnknown(int32_t id, std::vector<int32_t>& ids) const {
  if (id >= 0 || tokenizer.unkId >= 0) {
    ids.push_back(id >= 0 ? id : tokenizer.unkId);
  }
}

}  // namespace engine
