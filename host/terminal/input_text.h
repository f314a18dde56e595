// What the program reads besides models: prompts in files and from pipes.
#pragma once

#include <string>

#include "container/status.h"

namespace zym {

// Stands for standard input in messages.
constexpr const char* kStandardInput = "standard input";

// Why name cannot be read, by errno, and what to do.
kel::Status readFailure(const std::string& name, int error);
// Everything that fd still holds. name: for the message of a failure; text then has what came
// before.
kel::Status readToEnd(int fd, const std::string& name, std::string& text);

}  // namespace zym
