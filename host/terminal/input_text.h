// Prompts from files and pipes.
#pragma once

#include <string>

#include "container/status.h"

namespace zym {

// The name of standard input in messages.
constexpr const char* kStandardInput = "standard input";

// Why name cannot be read, by errno, and what to do.
kel::Status readFailure(const std::string& name, int error);
// Reads fd to its end. name: for the message of a failure, after which text has what came before
// it.
kel::Status readToEnd(int fd, const std::string& name, std::string& text);

}  // namespace zym
