// Descriptors 0 to 2, which a program may be started without (`<&-`, `2>&-`).
#pragma once

#include <string>

namespace zym {

// Fills those that are closed, so that no file the program opens takes their place and receives
// its messages. Reading or writing them still fails (EBADF), as it does on closed ones. First of
// all in the program, before anything is opened.
void reserveStandardStreams();

// Why the results did not all reach standard output; empty when they did. Flushes it.
std::string outputFault();

}  // namespace zym
