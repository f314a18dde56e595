// Writes a synthetic model to measure with `zym bench`: random blocks, a random vocabulary.
//
//   synthetic_model PATH [TYPE [hidden feed-forward vocabulary]]
//
// TYPE: q4_k (default), q5_k, q8_0, bf16 or f32, of every matrix. The default shape is that of the
// model with four billion parameters: 2560 9216 248320. The weights carry no meaning: speed does
// not depend on their values.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "tests/support/random_model.h"
#include "tests/support/synthetic_vocabulary.h"

namespace {

using kel::QuantType;

uint64_t argument(int argc, char** argv, int index, uint64_t otherwise) {
  return argc > index ? std::strtoull(argv[index], nullptr, 10) : otherwise;
}

}  // namespace

int main(int argc, char** argv) {
  const std::map<std::string, QuantType> types = {{"q4_k", QuantType::Q4_K},
                                                  {"q5_k", QuantType::Q5_K},
                                                  {"q8_0", QuantType::Q8_0},
                                                  {"bf16", QuantType::BF16},
                                                  {"f32", QuantType::F32}};
  const std::string type = argc > 2 ? argv[2] : "q4_k";
  if (argc < 2 || !types.contains(type)) {
    std::fputs("usage: synthetic_model PATH [q4_k|q5_k|q8_0|bf16|f32 [hidden ffn vocabulary]]\n",
               stderr);
    return 2;
  }
  kel::test::RandomModelSpec spec{.hidden = argument(argc, argv, 3, 2560),
                                  .ffn = argument(argc, argv, 4, 9216),
                                  .vocab = argument(argc, argv, 5, 248320),
                                  .types = {types.at(type)}};
  spec.tokenizer = kel::test::syntheticVocabulary(spec.vocab);
  if (const kel::Status status = writeRandomModel(argv[1], spec); !status.ok()) {
    std::fprintf(stderr, "%s\n", status.message.c_str());
    return 1;
  }
  return 0;
}
