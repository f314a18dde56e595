// A model whose sampled reply spells the generator's outputs, so that a test sees which of them a
// call drew and from which seed.
#pragma once

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"

namespace testing_abi {

// Whatever is fed, "a" has the largest logit and "b" the next one, by little.
inline kel::test::ChatModel coinModel() {
  return {.layerKinds = "F", .editTensors = [](std::vector<kel::test::TensorPlan>& plan) {
            kel::test::setEmbeddingRow(plan, "a", {10.0F, 0, 0, 0, 0, 0, 0, 0});
            kel::test::setEmbeddingRow(plan, "b", {9.9F, 0, 0, 0, 0, 0, 0, 0});
          }};
}

// So hot that the two best tokens are as likely as the sides of a coin.
constexpr float kCoinTemperature = 1e6F;
constexpr int32_t kCoinTopK = 2;

// Settings under which a reply of coinModel() is a row of coin flips.
inline ZYMSessionOptions coinSampling(uint64_t seed) {
  return sampling(kCoinTemperature, kCoinTopK, 1.0F, seed);
}

// The next reply of coinModel(): of every two outputs the second one holds the leading bits of the
// number that decides.
inline std::string coinFlips(std::mt19937& generator) {
  std::string text;
  for (size_t i = 0; i < ZYM_MAX_TURN_TOKENS; ++i) {
    generator.discard(1);
    text += generator() <= std::numeric_limits<uint32_t>::max() / 2 ? 'a' : 'b';
  }
  return text;
}

}  // namespace testing_abi
