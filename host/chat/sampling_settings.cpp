#include "host/chat/sampling_settings.h"

#include <fmt/format.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace zym {
namespace {

using kel::Status;

template <typename Number>
bool parseWhole(std::string_view text, Number& value) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

Status outOfRange(std::string_view name, std::string_view value, const char* range) {
  return Status::invalid(std::string(name) + " must be " + range + ", not \"" + std::string(value) +
                         "\"");
}

}  // namespace

Status setSampling(std::string_view name, std::string_view value, Sampling& sampling) {
  float real = 0;
  if (name == "temperature") {
    if (!parseWhole(value, real) || !std::isfinite(real) || real < 0) {
      return outOfRange(name, value, "a number from 0 (greedy)");
    }
    sampling.temperature = real;
  } else if (name == "top-p") {
    if (!parseWhole(value, real) || !(real > 0 && real <= 1)) {
      return outOfRange(name, value, "a number above 0, at most 1");
    }
    sampling.topP = real;
  } else if (name == "top-k") {
    int32_t count = 0;
    if (!parseWhole(value, count) || count < 1) {
      return outOfRange(name, value, "a whole number from 1");
    }
    sampling.topK = count;
  } else if (name == "seed") {
    // To the runtime a seed of 0 means that the generator is left alone, and it reads 32 bits.
    uint32_t seed = 0;
    if (!parseWhole(value, seed) || seed == 0) {
      return outOfRange(name, value, "a whole number from 1 to 4294967295");
    }
    sampling.seed = seed;
  } else {
    return Status::invalid("no setting \"" + std::string(name) +
                           "\"; there are temperature, top-k, top-p and seed");
  }
  return Status::success();
}

void mergeSampling(const Sampling& newer, Sampling& sampling) {
  if (newer.temperature) {
    sampling.temperature = newer.temperature;
  }
  if (newer.topK) {
    sampling.topK = newer.topK;
  }
  if (newer.topP) {
    sampling.topP = newer.topP;
  }
  if (newer.seed) {
    sampling.seed = newer.seed;
  }
}

std::string samplingText(const Sampling& sampling) {
  const auto valueText = [](const auto& value, const char* otherwise) {
    return value ? fmt::format("{}", *value) : std::string(otherwise);
  };
  return fmt::format("temperature  {}\ntop-k        {}\ntop-p        {}\nseed         {}",
                     valueText(sampling.temperature, "0 (greedy)"),
                     valueText(sampling.topK, "every token"), valueText(sampling.topP, "off"),
                     valueText(sampling.seed, "not set"));
}

bool topPLeavesOneToken(const Sampling& sampling) {
  const float topP = sampling.topP.value_or(0);
  return sampling.temperature.value_or(0) > 0 && topP > 0 && topP < 1;
}

}  // namespace zym
