// A model whose sampled reply spells the generator's outputs, so that a test sees which of them a
// call drew and from which seed.
#pragma once

#include <algorithm>
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
  return {.favourite = "a",
          .layerKinds = "F",
          .editTensors = [](std::vector<kel::test::TensorPlan>& plan) {
            kel::test::TensorPlan& rows = planned(plan, "token_embd.weight");
            const auto row = [&rows](const char* token) {
              const auto rowBytes = static_cast<std::ptrdiff_t>(rows.dims[0] * sizeof(float));
              return rows.data.begin() + kel::test::chatId(token) * rowBytes;
            };
            std::copy_n(row("a"), rows.dims[0] * sizeof(float), row("b"));
            const std::vector<uint8_t> first = kel::test::floatBytes({9.9F});
            std::copy(first.begin(), first.end(), row("b"));
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
