// Writes a model whose vocabulary can spell a conversation with reasoning and calls of tools.
// Nothing is learned in it: it shows what holds replies to their form.
#include <cstdio>

#include "tests/support/alphabet_vocabulary.h"
#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: write_tools_model FILE\n", stderr);
    return 2;
  }
  constexpr uint64_t kVocab = 110;
  kel::test::RandomModelSpec spec = {.vocab = kVocab,
                                     .shape = kel::test::oddShape(),
                                     .statesShape = true,
                                     .tokenizer = kel::test::alphabetVocabulary(kVocab)};
  spec.shape.contextLength = 8192;
  const kel::Status status = kel::test::writeRandomModel(argv[1], spec);
  if (!status.ok()) {
    std::fprintf(stderr, "write_tools_model: %s\n", status.message.c_str());
    return 1;
  }
  return 0;
}
