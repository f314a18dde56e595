// Completion of command lines for interactive shells. Each script completes commands, options, the
// words that an option takes, and, where a model is asked for, folders and files of the kinds that
// hold one.
#pragma once

#include <string>

#include "host/cli/command_line.h"

namespace zym {

std::string bashCompletion(const CommandLine& program);
// To be found as the file _zym in $fpath; may be sourced as well.
std::string zshCompletion(const CommandLine& program);
std::string fishCompletion(const CommandLine& program);

}  // namespace zym
