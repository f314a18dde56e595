// Text that a command is given in a file or through a pipe.
#pragma once

#include <string>

#include "container/status.h"

namespace zym {

// Both drop the line feed that ends the text: it ends a line of the file, not what is meant.
// Failures name the file and the reason.
kel::Status readTextFile(const std::string& path, std::string& text);
kel::Status readStandardInput(std::string& text);

}  // namespace zym
