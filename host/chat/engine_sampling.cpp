#include "host/chat/engine_sampling.h"

namespace zym {
namespace {

template <typename Value>
std::optional<Value> unless(Value withoutEffect, Value value) {
  return value == withoutEffect ? std::nullopt : std::optional<Value>(value);
}

}  // namespace

engine::SamplerSettings settingsInForce(const Sampling& asked,
                                        const engine::SamplerSettings& recommended) {
  engine::SamplerSettings settings;
  if (asked.temperature != 0.0F) {
    settings = recommended;
  }
  settings.temperature = asked.temperature.value_or(settings.temperature);
  settings.topK = asked.topK.value_or(settings.topK);
  settings.topP = asked.topP.value_or(settings.topP);
  settings.minP = asked.minP.value_or(settings.minP);
  settings.presencePenalty = asked.presencePenalty.value_or(settings.presencePenalty);
  settings.frequencyPenalty = asked.frequencyPenalty.value_or(settings.frequencyPenalty);
  settings.repetitionPenalty = asked.repetitionPenalty.value_or(settings.repetitionPenalty);
  settings.repetitionWindow = asked.repetitionWindow.value_or(settings.repetitionWindow);
  settings.logitBias = asked.logitBias;
  return settings;
}

Sampling shownSampling(const engine::SamplerSettings& settings) {
  const engine::SamplerSettings none;
  Sampling shown;
  shown.temperature = unless(none.temperature, settings.temperature);
  shown.topK = settings.topK < 1 ? std::nullopt : std::optional(settings.topK);
  shown.topP = unless(none.topP, settings.topP);
  shown.minP = unless(none.minP, settings.minP);
  shown.presencePenalty = unless(none.presencePenalty, settings.presencePenalty);
  shown.frequencyPenalty = unless(none.frequencyPenalty, settings.frequencyPenalty);
  shown.repetitionPenalty = unless(none.repetitionPenalty, settings.repetitionPenalty);
  shown.repetitionWindow = unless(none.repetitionWindow, settings.repetitionWindow);
  shown.logitBias = settings.logitBias;
  return shown;
}

}  // namespace zym
