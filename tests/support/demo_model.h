// The demonstration checkpoint of models/demo as a container, converted by a few lines that share
// nothing with the importer, and the replies that it is known to give.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "quant/quant_type.h"

namespace kel::test {

struct DemoTurn {
  std::string user;
  std::string reply;  // plain spaces
};

struct DemoLogits {
  std::vector<int> promptIds;
  std::string matrices;                         // "bf16" or "q8_0"
  std::vector<std::pair<int, double>> largest;  // id and logit
};

struct DemoExpectations {
  std::vector<std::vector<DemoTurn>> chats;
  std::vector<DemoLogits> logits;
};

// Reads models/demo/expected.json.
DemoExpectations demoExpectations();

// Writes the checkpoint with matrices of the type: BF16 or Q8_0. Throws std::runtime_error when a
// file cannot be read or written.
void writeDemoModel(const std::string& path, kel::QuantType matrices);

// A reply of the model with the vocabulary's space marker (U+0120) turned into spaces.
std::string plainSpaces(const std::string& text);

}  // namespace kel::test
