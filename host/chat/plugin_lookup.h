// Where the runtime library is looked for.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "container/status.h"

namespace zym {

constexpr const char* kPluginFile = "libruntime-qwen35.so";

// Places to look in, best first, for a program that lies in programFolder: beside it, in the build
// tree, in the library folder of the installation.
std::vector<std::filesystem::path> pluginCandidates(const std::filesystem::path& programFolder);

// The library to load: asked (--plugin) if not empty, else fromEnvironment (ZYM_PLUGIN) if not
// empty, else the first candidate that exists. The message of a failure says what to do.
kel::Status findPlugin(const std::string& asked, const std::string& fromEnvironment,
                       const std::filesystem::path& programFolder, std::filesystem::path& found);

// Folder of the running program.
std::filesystem::path programFolder();

}  // namespace zym
