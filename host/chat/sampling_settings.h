// Sampling settings as people write them, on the command line and after /set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "container/status.h"
#include "host/chat/backend.h"

namespace zym {

// Stores one setting: "temperature" (0 or more), "top-k" (1 or more), "top-p" (above 0, at most 1),
// "min-p" (0 to 1), "presence-penalty" and "frequency-penalty" (-2 to 2), "repetition-penalty"
// (above 0), "repetition-window" (0 or more), "logit-bias" (ID=VALUE, one more), "seed" (1 to
// 4294967295, or "random", which draws one). The message of a failure names the setting and its
// range.
kel::Status setSampling(std::string_view name, std::string_view value, Sampling& sampling);
// One that the system draws, never 0.
uint32_t randomSeed();
// Replaces those settings of sampling that newer has a value for.
void mergeSampling(const Sampling& newer, Sampling& sampling);
// Every setting with its value, a line each. One without a value is as the model's runtime has it.
std::string samplingText(const Sampling& sampling);
// True when tokens are to be drawn, but top-p leaves only the best one: the runtime compares it
// with a sum in which the best token alone counts 1.
bool topPLeavesOneToken(const Sampling& sampling);
// The name of the first setting with a value that runtime libraries do not have; empty for none.
std::string settingBeyondLibraries(const Sampling& sampling);

}  // namespace zym
