// Fields that requests may have though nothing comes of them: they name, label or place a request
// for services that bill, store or watch. Every other field that an interface does not know is
// refused by its name. docs/serving-api.md lists the same.
#pragma once

#include <array>
#include <string_view>

namespace zym {

constexpr std::array<std::string_view, 7> kHarmlessInChat = {
    "user",         "metadata",  "safety_identifier", "prompt_cache_key", "prompt_cache_retention",
    "service_tier", "prediction"};

constexpr std::array<std::string_view, 1> kHarmlessInCompletions = {"user"};

constexpr std::array<std::string_view, 6> kHarmlessInResponses = {
    "user",         "safety_identifier", "prompt_cache_key", "prompt_cache_retention",
    "service_tier", "client_metadata"};

constexpr std::array<std::string_view, 4> kHarmlessInMessages = {"metadata", "service_tier",
                                                                 "cache_control", "inference_geo"};

}  // namespace zym
