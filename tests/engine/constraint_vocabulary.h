// Vocabularies for constraints: every byte, texts that JSON and calls are often written with, and
// the tokens that frame.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "convert/vocabulary.h"
#include "engine/chat_format.h"
#include "engine/text_encoder.h"
#include "engine/vocabulary_trie.h"
#include "tokenizer/alphabet.h"
#include "tokenizer/tokenizer.h"

namespace engine::testing_support {

struct VocabularySpec {
  bool highBytes = true;                  // bytes from 0x80 on are tokens
  bool callMarks = true;                  // the marks of calls are tokens
  bool plainMarks = false;                // no token is typed as special
  std::vector<std::string> without = {};  // tokens that are left out
};

// Movable into place only: the encoder reads the tokenizer.
struct ConstraintVocabulary {
  explicit ConstraintVocabulary(const VocabularySpec& spec = {}) {
    kel::convert::Vocabulary source;
    const auto add = [&](std::string_view bytes) {
      std::string letters;
      for (const char byte : bytes) {
        kel::appendLetter(static_cast<uint8_t>(byte), letters);
      }
      if (std::find(spec.without.begin(), spec.without.end(), bytes) != spec.without.end()) {
        letters.append("?").append(letters);
      }
      source.tokens.push_back(letters);
      return letters;
    };
    for (int byte = 0; byte < 256; ++byte) {
      const bool isKept = byte < 0x80 || spec.highBytes;
      add(isKept ? std::string(1, static_cast<char>(byte)) : "~~" + std::to_string(byte));
    }
    // Each of two texts before it.
    const std::vector<std::pair<std::string, std::string>> merges = {
        {"{", "\""},      {"\"", ":"},      {"\"", ","},          {"\",", "\""},
        {"\":", "\""},    {"\":", " "},     {" ", "\""},          {"\"", "}"},
        {"}", "}"},       {"]", "}"},       {"[", "]"},           {"{", "}"},
        {"[", "{"},       {"}", ","},       {"\n", " "},          {"\n ", " "},
        {" ", " "},       {"  ", "  "},     {"\n", "}"},          {"a", "b"},
        {"ab", "c"},      {"n", "a"},       {"na", "m"},          {"nam", "e"},
        {"t", "r"},       {"tr", "u"},      {"tru", "e"},         {"n", "u"},
        {"nu", "l"},      {"nul", "l"},     {"1", "2"},           {"12", "3"},
        {"0", "."},       {"\\", "u"},      {"\\", "n"},          {"\\", "\""},
        {"\xC3", "\xA9"}, {"\xE6", "\xBC"}, {"\xE6\xBC", "\xA2"}, {"<", "/"},
        {"</", "p"},      {">", "\n"},      {"<", "t"},           {"_", "c"},
        {"=", "f"},       {"\"\"", "x"},    {"\"", "\""},         {", ", "\""},
        {",", " "},       {"b", "\""},      {"b\"", ","},         {"x", "\":"},
        {"p", "a"},       {"\n", "<"},      {"\"", "\xE6\xBC"}};
    for (const auto& [left, right] : merges) {
      add(left + right);
      std::string rule;
      for (const char byte : left) {
        kel::appendLetter(static_cast<uint8_t>(byte), rule);
      }
      rule += ' ';
      for (const char byte : right) {
        kel::appendLetter(static_cast<uint8_t>(byte), rule);
      }
      source.merges.push_back(rule);
    }
    source.types.assign(source.tokens.size(), kel::convert::kNormalToken);
    const auto addSpecial = [&](std::string_view token) {
      source.tokens.emplace_back(token);
      source.types.push_back(spec.plainMarks ? kel::convert::kNormalToken
                                             : kel::convert::kControlToken);
    };
    for (const std::string_view token : {kTextEnd, kTurnBegin, kTurnEnd, kThinkBegin, kThinkEnd}) {
      addSpecial(token);
    }
    if (spec.callMarks) {
      addSpecial(kCallBegin);
      addSpecial(kCallEnd);
    }
    kel::TokenizerData tables;
    kel::Status status = kel::convert::buildTokenizer(
        source, source.tokens.size(), kel::convert::VocabularyForm::Alphabet, tables);
    if (status.ok()) {
      status = tokenizer.load(std::move(tables));
    }
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
    encoder = std::make_unique<const TextEncoder>(tokenizer, TextForm::Composed);
    trie = std::make_shared<const VocabularyTrie>(tokenizer, tokenizer.tokens.size());
  }

  int32_t id(std::string_view special) const { return tokenizer.tokenToId(special); }

  kel::Tokenizer tokenizer;
  std::unique_ptr<const TextEncoder> encoder;
  std::shared_ptr<const VocabularyTrie> trie;
};

}  // namespace engine::testing_support
