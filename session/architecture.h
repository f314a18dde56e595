// Architecture names as they stand in a model's "general.architecture".
#pragma once

namespace session {

constexpr const char* kArchitectureKey = "general.architecture";
constexpr const char kArchQwen35[] = "qwen35";
constexpr const char kArchQwen35Moe[] = "qwen35moe";

}  // namespace session
