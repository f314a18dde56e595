// The sampling settings that the family's makers recommend.
#pragma once

#include "container/zym2_reader.h"
#include "engine/sampler_settings.h"

namespace engine {

enum class SamplingMode {
  Thinking,        // the reply begins with thoughts
  PreciseCoding,   // the same, for code that has to be right to the letter
  WithoutThinking  // the reply is the answer alone
};

// For every model of the family.
SamplerSettings recommendedSampling(SamplingMode mode);

// For the model in file: what its metadata recommend (general.sampling.*, docs/container.md) comes
// first, whatever the mode. Values that check() would refuse are passed over.
SamplerSettings recommendedSampling(SamplingMode mode, const kel::ZYM2Reader& file);

}  // namespace engine
