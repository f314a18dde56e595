// The instruction sets that kernels are written for, by name, and the one that this process
// computes with. Apart from the kernels, for programs that only tell which ones are in use.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qwen35 {

// Those that this build has kernels for and this machine can run: "scalar" first, the preferred one
// last. Any thread.
std::vector<std::string_view> supportedInstructionSets();

struct InstructionSetChoice {
  std::string_view name;
  std::string fault;  // a line that says why it is not the wanted one; else empty
};

// The wanted one of the supported ones; the last of these where it is not among them, or where
// nullptr or "" is wanted.
InstructionSetChoice chooseInstructionSet(std::span<const std::string_view> supported,
                                          const char* wanted);

// The choice for this process. The environment variable ZYM_CPU names the wanted one; it is read
// once, on first use. Any thread. The fault is for the caller to tell: kernels() does (dispatch.h).
const InstructionSetChoice& instructionSet();

}  // namespace qwen35
