// Writes a synthetic model to measure with `zym bench`: random blocks, a random vocabulary.
//
//   synthetic_model PATH [TYPE [hidden feed-forward vocabulary]]
//   synthetic_model PATH [TYPE] --size SIZE
//
// TYPE: q4_k (default), q5_k, q8_0, bf16 or f32, of every matrix. SIZE: 0.8b, 2b, 4b, 9b or 27b, of
// the family, which the metadata then state. Without it they state nothing and the shape is that of
// the 4B, by default with its sizes: 2560 9216 248320. The weights carry no meaning: speed does not
// depend on their values. Takes the memory of the vocabulary and little more.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"
#include "tests/support/synthetic_vocabulary.h"

namespace {

using kel::QuantType;
using kel::test::familyShape;

constexpr uint64_t kDistinctBytes = 1 << 20;  // of a matrix; the file holds every row all the same
constexpr uint64_t kVocab = 248320;
constexpr int kControlToken = 3;

struct FullSize {
  kel::ModelShape shape;
  uint64_t hidden;
  uint64_t feedForward;
};

const std::map<std::string, FullSize> kSizes = {
    {"0.8b", {familyShape(24, 8, 2, 16, false), 1024, 3584}},
    {"2b", {familyShape(24, 8, 2, 16, false), 2048, 6144}},
    {"4b", {familyShape(32, 16, 4, 32, false), 2560, 9216}},
    {"9b", {familyShape(32, 16, 4, 32, true), 4096, 12288}},
    {"27b", {familyShape(64, 24, 4, 48, true), 5120, 17408}},
};

const std::map<std::string, QuantType> kTypes = {{"q4_k", QuantType::Q4_K},
                                                 {"q5_k", QuantType::Q5_K},
                                                 {"q8_0", QuantType::Q8_0},
                                                 {"bf16", QuantType::BF16},
                                                 {"f32", QuantType::F32}};

struct Arguments {
  std::vector<std::string> words;  // path, type, numbers
  std::string size;
};

bool read(int argc, char** argv, Arguments& out) {
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]) != "--size") {
      out.words.emplace_back(argv[i]);
    } else if (++i < argc && kSizes.contains(argv[i])) {
      out.size = argv[i];
    } else {
      return false;
    }
  }
  const size_t most = out.size.empty() ? 5 : 2;
  return !out.words.empty() && out.words.size() <= most &&
         (out.words.size() < 2 || kTypes.contains(out.words[1]));
}

uint64_t number(const Arguments& arguments, size_t index, uint64_t otherwise) {
  return arguments.words.size() > index ? std::strtoull(arguments.words[index].c_str(), nullptr, 10)
                                        : otherwise;
}

// With the marks of a conversation, which `zym serve` and `zym chat` need.
kel::TokenizerData talkingVocabulary(uint64_t size) {
  const std::string marks[] = {"<|im_start|>", "<|im_end|>"};
  kel::TokenizerData tables =
      kel::test::syntheticVocabulary(std::max<uint64_t>(size, std::size(marks)) - std::size(marks));
  for (const std::string& mark : marks) {
    tables.tokens.push_back(mark);
    tables.tokenTypes.push_back(kControlToken);
  }
  return tables;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  if (!read(argc, argv, arguments)) {
    std::fputs(
        "usage: synthetic_model PATH [q4_k|q5_k|q8_0|bf16|f32 [hidden ffn vocabulary]]\n"
        "       synthetic_model PATH [q4_k|q5_k|q8_0|bf16|f32] --size 0.8b|2b|4b|9b|27b\n",
        stderr);
    return 2;
  }
  const std::string type = arguments.words.size() > 1 ? arguments.words[1] : "q4_k";
  kel::test::RandomModelSpec spec{.hidden = number(arguments, 2, 2560),
                                  .ffn = number(arguments, 3, 9216),
                                  .vocab = number(arguments, 4, kVocab),
                                  .types = {kTypes.at(type)},
                                  .distinctBytes = kDistinctBytes};
  if (!arguments.size.empty()) {
    const FullSize& size = kSizes.at(arguments.size);
    spec.hidden = size.hidden;
    spec.ffn = size.feedForward;
    spec.shape = size.shape;
    spec.statesShape = true;
  }
  spec.tokenizer = talkingVocabulary(spec.vocab);
  const kel::Status status = writeRandomModel(arguments.words[0], spec);
  if (!status.ok()) {
    std::fprintf(stderr, "%s\n", status.message.c_str());
    return 1;
  }
  return 0;
}
