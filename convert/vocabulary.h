// A byte-level vocabulary as source files have it, and the container's tables made from it.
//
// Byte-level vocabularies write every byte as a letter of a fixed alphabet (tokenizer/alphabet.h).
// Special tokens are plain text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "container/tokenizer_data.h"

namespace kel::convert {

// How the container stores the tokens. The tokenizer's label records it, since a host must write
// its text likewise.
enum class VocabularyForm : uint8_t {
  // The alphabet stays; only the token of the line feed becomes a real line feed, which the runtime
  // looks up as it is. A host maps the bytes of its text to letters and those of pieces back.
  Alphabet,
  // Bytes, with U+0120 for the space alone. Text needs no mapping but that; characters that have no
  // token of their own are lost.
  Raw,
};

// The label of each form, the whole of it.
constexpr std::string_view kAlphabetLabel = "alphabet";
constexpr std::string_view kRawLabel = "raw";

// Token types, in source files and in the container. Of these the unknown and control tokens are
// special there (isSpecialTokenType).
constexpr int32_t kNormalToken = 1;
constexpr int32_t kUnknownToken = 2;
constexpr int32_t kControlToken = 3;
constexpr int32_t kUserDefinedToken = 4;
constexpr int32_t kUnusedToken = 5;

struct Vocabulary {
  std::vector<std::string> tokens;
  std::vector<int32_t> types;       // one per token
  std::vector<std::string> merges;  // "left right", best first
  int32_t bosId = -1;
  bool addBos = false;
  int32_t eosId = -1;
  bool chat = false;  // the source carries a chat template
};

// Tables for a model of vocabRows embedding rows. Fewer tokens are filled up with unused ones; more
// are refused, as is a vocabulary that is not byte-level: merge rules outside the alphabet, another
// mark for a space, or none. The first merge rule of out holds the letter of the space, by which
// the runtime tells the kind of vocabulary: where the source's does not, a rule is put in front
// that no pair of texts can meet. Of a chat model the end token is "<|im_end|>" where the
// vocabulary has it. The beginning token stays out unless the source asks for it.
Status buildTokenizer(Vocabulary vocabulary, uint64_t vocabRows, VocabularyForm form,
                      TokenizerData& out);

// Alphabet text as bytes, but U+0120 (the space) as it is. Characters outside the alphabet stay.
std::string rawText(std::string_view letters);

}  // namespace kel::convert
