// The backend that drives the runtime library through dlopen and include/zym/plugin.h alone.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "container/status.h"
#include "host/chat/backend.h"

namespace zym {

// Loads the library and opens the model; raw: special tokens in texts take effect. The message of a
// failure names the file at fault and says what to do. The library stays loaded until the program
// ends.
kel::Status openPluginBackend(const std::filesystem::path& library, const std::string& modelPath,
                              bool raw, std::unique_ptr<Backend>& backend);

}  // namespace zym
