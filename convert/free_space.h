// Room for a file that is about to be written.
#pragma once

#include <cstdint>
#include <string>

#include "container/status.h"

namespace kel::convert {

// IoError, with both sizes, when the file system of the target's folder has fewer than needed bytes
// left for this user. A folder that cannot be asked passes: creating the file will tell why.
Status checkFreeSpace(const std::string& target, uint64_t needed);

}  // namespace kel::convert
