// Any text as a tokenizer.json, and the container's tables made from it in both forms.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "convert/tokenizer_json.h"
#include "convert/vocabulary.h"

namespace {

using kel::convert::Vocabulary;
using kel::convert::VocabularyForm;

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Vocabulary vocabulary;
  std::string normalizer;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!parseTokenizerJson(text, vocabulary, normalizer).ok()) {
    return 0;
  }
  require(vocabulary.tokens.size() == vocabulary.types.size());
  const size_t rows = vocabulary.tokens.size() + 2;
  for (const VocabularyForm form : {VocabularyForm::Alphabet, VocabularyForm::Raw}) {
    kel::TokenizerData tables;
    if (!buildTokenizer(vocabulary, rows, form, tables).ok()) {
      continue;
    }
    require(tables.tokens.size() == rows && tables.tokenTypes.size() == rows);
    require(tables.merges.size() == vocabulary.merges.size());
  }
  return 0;
}
