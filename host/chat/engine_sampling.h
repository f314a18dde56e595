// Sampling settings as people give them, and as the engine has them.
#pragma once

#include "engine/sampler_settings.h"
#include "host/chat/backend.h"

namespace zym {

// What holds where a person asked for some settings: the others are those that are recommended. At
// temperature 0 they have no effect instead, so that it alone asks for the best token always.
engine::SamplerSettings settingsInForce(const Sampling& asked,
                                        const engine::SamplerSettings& recommended);

// The same for people. Settings without effect have no value, nor has the seed.
Sampling shownSampling(const engine::SamplerSettings& settings);

}  // namespace zym
