// The runtime library that somebody wants in place of the program's own engine.
#pragma once

#include <filesystem>
#include <string>

#include "container/status.h"

namespace zym {

// Sets found to asked (--plugin) if that is not empty, else to fromEnvironment (ZYM_PLUGIN); empty
// when both are. The message of a failure says what to do.
kel::Status findPlugin(const std::string& asked, const std::string& fromEnvironment,
                       std::filesystem::path& found);

}  // namespace zym
