#include "engine/sampler_settings.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <string>

namespace engine {

namespace {

using kel::Status;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kLargestPenalty = 2;
constexpr float kLargestBias = 100;

// As short as tells it from its neighbours.
std::string numberText(float value) {
  char text[32];
  const auto result = std::to_chars(text, text + sizeof(text), value);
  return {text, result.ptr};
}

Status mustBe(const std::string& name, const char* range, const std::string& value) {
  return Status::invalid("sampler: " + name + " must be " + range + ", not " + value);
}

// Every comparison is false for a NaN.
bool isWithin(float value, float lowest, float highest) {
  return value >= lowest && value <= highest;
}

Status checkPenalties(const SamplerSettings& settings) {
  constexpr const char* kRange = "a number from -2 to 2";
  if (!isWithin(settings.presencePenalty, -kLargestPenalty, kLargestPenalty)) {
    return mustBe("presence penalty", kRange, numberText(settings.presencePenalty));
  }
  if (!isWithin(settings.frequencyPenalty, -kLargestPenalty, kLargestPenalty)) {
    return mustBe("frequency penalty", kRange, numberText(settings.frequencyPenalty));
  }
  if (!(settings.repetitionPenalty > 0 && settings.repetitionPenalty < kInfinity)) {
    return mustBe("repetition penalty", "a number above 0", numberText(settings.repetitionPenalty));
  }
  if (settings.repetitionWindow < 0) {
    return mustBe("repetition window", "a whole number from 0",
                  std::to_string(settings.repetitionWindow));
  }
  return Status::success();
}

Status checkBiases(const std::map<int32_t, float>& biases, size_t vocabulary) {
  for (const auto& [id, bias] : biases) {
    if (id < 0 || static_cast<size_t>(id) >= vocabulary) {
      return Status::invalid("sampler: logit bias for token " + std::to_string(id) +
                             ", but the ids go from 0 to " +
                             std::to_string(static_cast<int64_t>(vocabulary) - 1));
    }
    if (bias != -kInfinity && !isWithin(bias, -kLargestBias, kLargestBias)) {
      return mustBe("logit bias of token " + std::to_string(id),
                    "a number from -100 to 100 or minus infinity", numberText(bias));
    }
  }
  return Status::success();
}

}  // namespace

Status check(const SamplerSettings& settings, size_t vocabulary) {
  if (!(settings.temperature >= 0 && settings.temperature < kInfinity)) {
    return mustBe("temperature", "a number from 0", numberText(settings.temperature));
  }
  if (!(settings.topP > 0 && settings.topP <= 1)) {
    return mustBe("top-p", "a number above 0, at most 1", numberText(settings.topP));
  }
  if (!isWithin(settings.minP, 0, 1)) {
    return mustBe("min-p", "a number from 0 to 1", numberText(settings.minP));
  }
  Status status = checkPenalties(settings);
  if (status.ok()) {
    status = checkBiases(settings.logitBias, vocabulary);
  }
  if (status.ok() && settings.mask != nullptr && settings.mask->size() != vocabulary) {
    return Status::invalid("sampler: the token mask is for " +
                           std::to_string(settings.mask->size()) + " tokens, the vocabulary has " +
                           std::to_string(vocabulary));
  }
  return status;
}

}  // namespace engine
