#include "host/chat/sampling_settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace zym {
namespace {

using kel::Status;

struct RealSetting {
  std::string_view name;
  std::optional<float> Sampling::*member;
  const char* range;
  bool (*allows)(float finite);
  const char* unset;  // what holds without a value
  bool isOfLibraries;
};

constexpr const char* kPenaltyRange = "a number from -2 to 2";

bool isPenalty(float value) {
  return value >= -2 && value <= 2;
}

// "top-k" has the second line of samplingText, what is no real number the last ones.
constexpr std::array kRealSettings = {
    RealSetting{"temperature", &Sampling::temperature, "a number from 0 (greedy)",
                [](float value) { return value >= 0; }, "0 (greedy)", true},
    RealSetting{"top-p", &Sampling::topP, "a number above 0, at most 1",
                [](float value) { return value > 0 && value <= 1; }, "off", true},
    RealSetting{"min-p", &Sampling::minP, "a number from 0 to 1",
                [](float value) { return value >= 0 && value <= 1; }, "off", false},
    RealSetting{"presence-penalty", &Sampling::presencePenalty, kPenaltyRange, isPenalty, "off",
                false},
    RealSetting{"frequency-penalty", &Sampling::frequencyPenalty, kPenaltyRange, isPenalty, "off",
                false},
    RealSetting{"repetition-penalty", &Sampling::repetitionPenalty, "a number above 0",
                [](float value) { return value > 0; }, "off", false},
};

template <typename Number>
bool parseWhole(std::string_view text, Number& value) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

Status outOfRange(std::string_view name, std::string_view value, const char* range) {
  return Status::invalid(std::string(name) + " must be " + range + ", not \"" + std::string(value) +
                         "\"");
}

Status setReal(const RealSetting& setting, std::string_view value, Sampling& sampling) {
  float real = 0;
  if (!parseWhole(value, real) || !std::isfinite(real) || !setting.allows(real)) {
    return outOfRange(setting.name, value, setting.range);
  }
  sampling.*setting.member = real;
  return Status::success();
}

Status setBias(std::string_view name, std::string_view value, Sampling& sampling) {
  const size_t cut = value.find('=');
  const std::string_view number = cut == std::string_view::npos ? "" : value.substr(cut + 1);
  constexpr float kMost = 100;
  int32_t id = 0;
  float bias = 0;
  const bool isBan = number == "-inf";
  const bool isNumber = parseWhole(number, bias) && bias >= -kMost && bias <= kMost;
  if (!parseWhole(value.substr(0, cut), id) || id < 0 || (!isBan && !isNumber)) {
    return outOfRange(
        name, value, "ID=VALUE, a token's id and a number from -100 to 100 or -inf, which bans it");
  }
  sampling.logitBias[id] = isBan ? -std::numeric_limits<float>::infinity() : bias;
  return Status::success();
}

Status setSeed(std::string_view name, std::string_view value, Sampling& sampling) {
  // To a runtime library a seed of 0 means that the generator is left alone, and it reads 32
  // bits.
  uint32_t seed = 0;
  if (value == "random") {
    seed = randomSeed();
  } else if (!parseWhole(value, seed) || seed == 0) {
    return outOfRange(name, value, "a whole number from 1 to 4294967295, or random");
  }
  sampling.seed = seed;
  return Status::success();
}

template <typename Value>
void replace(const std::optional<Value>& newer, std::optional<Value>& value) {
  if (newer) {
    value = newer;
  }
}

template <typename Value>
std::string line(std::string_view name, const std::optional<Value>& value, const char* unset) {
  return fmt::format("{:<18}  {}", name, value ? fmt::format("{}", *value) : unset);
}

}  // namespace

uint32_t randomSeed() {
  std::random_device device;
  return std::uniform_int_distribution<uint32_t>(1)(device);
}

Status setSampling(std::string_view name, std::string_view value, Sampling& sampling) {
  for (const RealSetting& setting : kRealSettings) {
    if (setting.name == name) {
      return setReal(setting, value, sampling);
    }
  }
  if (name == "top-k") {
    int32_t count = 0;
    if (!parseWhole(value, count) || count < 1) {
      return outOfRange(name, value, "a whole number from 1");
    }
    sampling.topK = count;
  } else if (name == "repetition-window") {
    int32_t count = 0;
    if (!parseWhole(value, count) || count < 0) {
      return outOfRange(name, value, "a whole number from 0 (all tokens)");
    }
    sampling.repetitionWindow = count;
  } else if (name == "logit-bias") {
    return setBias(name, value, sampling);
  } else if (name == "seed") {
    return setSeed(name, value, sampling);
  } else {
    return Status::invalid(
        "no setting \"" + std::string(name) +
        "\"; there are temperature, top-k, top-p, min-p, presence-penalty, "
        "frequency-penalty, repetition-penalty, repetition-window, logit-bias and "
        "seed");
  }
  return Status::success();
}

void mergeSampling(const Sampling& newer, Sampling& sampling) {
  for (const RealSetting& setting : kRealSettings) {
    replace(newer.*setting.member, sampling.*setting.member);
  }
  replace(newer.topK, sampling.topK);
  replace(newer.repetitionWindow, sampling.repetitionWindow);
  replace(newer.seed, sampling.seed);
  for (const auto& [id, bias] : newer.logitBias) {
    sampling.logitBias[id] = bias;
  }
}

std::string samplingText(const Sampling& sampling) {
  std::vector<std::string> lines;
  lines.reserve(kRealSettings.size() + 3 + sampling.logitBias.size());
  for (const RealSetting& setting : kRealSettings) {
    lines.push_back(line(setting.name, sampling.*setting.member, setting.unset));
  }
  lines.insert(lines.begin() + 1, line("top-k", sampling.topK, "every token"));
  lines.push_back(line("repetition-window", sampling.repetitionWindow, "all tokens"));
  for (const auto& [id, bias] : sampling.logitBias) {
    lines.push_back(fmt::format("{:<18}  {}={}", "logit-bias", id, bias));
  }
  lines.push_back(line("seed", sampling.seed, "not set"));
  return fmt::format("{}", fmt::join(lines, "\n"));
}

bool topPLeavesOneToken(const Sampling& sampling) {
  const float topP = sampling.topP.value_or(0);
  return sampling.temperature.value_or(0) > 0 && topP > 0 && topP < 1;
}

std::string settingBeyondLibraries(const Sampling& sampling) {
  const auto* found =
      std::find_if(kRealSettings.begin(), kRealSettings.end(), [&](const RealSetting& setting) {
        return !setting.isOfLibraries && (sampling.*setting.member).has_value();
      });
  if (found != kRealSettings.end()) {
    return std::string(found->name);
  }
  if (sampling.repetitionWindow) {
    return "repetition-window";
  }
  return sampling.logitBias.empty() ? "" : "logit-bias";
}

}  // namespace zym
