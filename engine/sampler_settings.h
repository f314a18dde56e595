// How a token is chosen from logits (engine/sampler.h has the order of the steps).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include "container/status.h"
#include "engine/token_mask.h"

namespace engine {

struct SamplerSettings {
  float temperature = 0;  // 0: always the best token, the lowest of equals
  int32_t topK = 0;       // draw among so many best tokens; below 1: among all
  float topP = 1;         // and among the fewest best that have this share of their probability
  float minP = 0;         // and among those with this share of the best one's probability

  // Of tokens that the reply holds already, as in OpenAI's interface.
  float presencePenalty = 0;   // once for each such token, -2 to 2
  float frequencyPenalty = 0;  // for every time that it occurs, -2 to 2

  // Of tokens that prompt and reply hold: "CTRL: A Conditional Transformer Language Model for
  // Controllable Generation" (2019), section 4.1.
  float repetitionPenalty = 1;   // above 0; 1: none
  int32_t repetitionWindow = 0;  // the last so many tokens count; 0: all

  // Added to the logit of an id: -100 to 100, or minus infinity, which bans it.
  std::map<int32_t, float> logitBias = {};
  const TokenMask* mask =
      nullptr;  // the caller's, of the size of the vocabulary; null: all allowed
};

// Refuses what is out of the ranges above; the message names the setting and its range.
kel::Status check(const SamplerSettings& settings, size_t vocabulary);

}  // namespace engine
