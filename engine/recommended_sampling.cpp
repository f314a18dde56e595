#include "engine/recommended_sampling.h"

#include <cmath>
#include <string>

namespace engine {

namespace {

// Metadata hold all settings as floats; numbers below 1 mean every token there, too.
void setTopK(SamplerSettings& settings, float value) {
  constexpr float kMostTokens = 0x1p20F;
  if (value == std::floor(value) && std::abs(value) <= kMostTokens) {
    settings.topK = value < 1 ? 0 : static_cast<int32_t>(value);
  }
}

struct Key {
  const char* name;
  void (*set)(SamplerSettings& settings, float value);
};

constexpr Key kKeys[] = {
    {"temp", [](SamplerSettings& settings, float value) { settings.temperature = value; }},
    {"top_k", setTopK},
    {"top_p", [](SamplerSettings& settings, float value) { settings.topP = value; }},
    {"min_p", [](SamplerSettings& settings, float value) { settings.minP = value; }},
    {"penalty_present",
     [](SamplerSettings& settings, float value) { settings.presencePenalty = value; }},
    {"penalty_repeat",
     [](SamplerSettings& settings, float value) { settings.repetitionPenalty = value; }},
};

}  // namespace

SamplerSettings recommendedSampling(SamplingMode mode) {
  switch (mode) {
    case SamplingMode::PreciseCoding:
      return {.temperature = 0.6F, .topK = 20, .topP = 0.95F};
    case SamplingMode::WithoutThinking:
      return {.temperature = 0.7F, .topK = 20, .topP = 0.8F, .presencePenalty = 1.5F};
    case SamplingMode::Thinking:
      break;
  }
  return {.temperature = 1, .topK = 20, .topP = 0.95F, .presencePenalty = 1.5F};
}

SamplerSettings recommendedSampling(SamplingMode mode, const kel::ZYM2Reader& file) {
  SamplerSettings settings = recommendedSampling(mode);
  for (const Key& key : kKeys) {
    float value = 0;
    if (!file.getMetaF32((std::string("general.sampling.") + key.name).c_str(), value)) {
      continue;
    }
    SamplerSettings changed = settings;
    key.set(changed, value);
    constexpr size_t kNoVocabulary = 0;  // only biases and masks are held against it
    if (check(changed, kNoVocabulary).ok()) {
      settings = changed;
    }
  }
  return settings;
}

}  // namespace engine
