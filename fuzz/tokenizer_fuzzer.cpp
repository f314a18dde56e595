// Any vocabulary, any text: loading, encoding and decoding stay within bounds, and merging gives
// what the plain rescan gives.
//
// Input: lines up to the first empty one are the vocabulary ("m" rule, "s" special token, "u" sets
// unkId to 0, anything else a token), what follows is the text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tests/tokenizer/reference_bpe.h"
#include "tokenizer/tokenizer.h"

namespace {

constexpr size_t kMaxReferenceBytes = 200;  // the rescan is quadratic

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

// Takes the vocabulary's lines off the front of input.
kel::TokenizerData takeVocabulary(std::string_view& input) {
  kel::TokenizerData data;
  while (!input.empty()) {
    const size_t end = std::min(input.find('\n'), input.size());
    const std::string_view line = input.substr(0, end);
    input.remove_prefix(std::min(end + 1, input.size()));
    if (line.empty()) {
      break;
    }
    const std::string rest(line.substr(1));
    if (line.front() == 'm') {
      data.merges.push_back(rest);
    } else if (line.front() == 'u') {
      data.unkId = 0;
    } else {
      data.tokens.push_back(rest);
      data.tokenTypes.push_back(line.front() == 's' ? 3 : 1);
    }
  }
  return data;
}

void checkMerging(const kel::Tokenizer& tokenizer, std::string_view piece) {
  std::vector<int32_t> expected;
  const auto ranks = kel::testing::referenceRanks(tokenizer.merges);
  for (const std::string& symbol : kel::testing::referenceMerge(piece, ranks)) {
    const int32_t id = tokenizer.tokenToId(symbol);
    if (id >= 0 || tokenizer.unkId >= 0) {
      expected.push_back(id >= 0 ? id : tokenizer.unkId);
    }
  }
  std::vector<int32_t> ids;
  require(tokenizer.tokenizeBpe(piece, ids).ok());
  require(ids == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  kel::TokenizerData tables = takeVocabulary(input);
  const bool hasTokens = !tables.tokens.empty();
  kel::Tokenizer tokenizer;
  require(tokenizer.load(std::move(tables)).ok() == hasTokens);

  std::vector<int32_t> ids;
  require(tokenizer.encode(input, ids, true).ok() == hasTokens);
  std::string text;
  require(tokenizer.decode(ids, text).ok() == hasTokens);
  if (hasTokens) {
    checkMerging(tokenizer, input.substr(0, kMaxReferenceBytes));
  }
  return 0;
}
