// The zym program: its command line, and what carries it out.
#pragma once

namespace zym {

// Parses the command line and carries it out; returns the exit status. Once per process.
int runProgram(int argc, const char* const* argv);

}  // namespace zym
