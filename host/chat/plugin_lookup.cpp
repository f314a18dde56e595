#include "host/chat/plugin_lookup.h"

#include <system_error>

namespace zym {

namespace fs = std::filesystem;

std::vector<fs::path> pluginCandidates(const fs::path& programFolder) {
  return {
      programFolder / kPluginFile,
      programFolder / ".." / "plugin" / kPluginFile,
      (programFolder / ZYM_LIBDIR_FROM_BINDIR / kPluginFile),
  };
}

kel::Status findPlugin(const std::string& asked, const std::string& fromEnvironment,
                       const fs::path& programFolder, fs::path& found) {
  std::error_code error;
  const std::string& named = asked.empty() ? fromEnvironment : asked;
  if (!named.empty()) {
    if (!fs::exists(named, error)) {
      const char* source = asked.empty() ? "ZYM_PLUGIN" : "--plugin";
      return kel::Status::invalid(named + ": no such runtime library; correct " + source);
    }
    // dlopen searches the system's library folders for a name without a slash.
    found = fs::absolute(named, error);
    return kel::Status::success();
  }
  std::string places;
  for (const fs::path& candidate : pluginCandidates(programFolder)) {
    if (fs::exists(candidate, error)) {
      found = candidate.lexically_normal();
      return kel::Status::success();
    }
    places += (places.empty() ? "" : ", ") + candidate.lexically_normal().parent_path().string();
  }
  return kel::Status::invalid(std::string(kPluginFile) + " is in none of " + places +
                              "; name it with --plugin or ZYM_PLUGIN");
}

fs::path programFolder() {
  std::error_code error;
  return fs::read_symlink("/proc/self/exe", error).parent_path();
}

}  // namespace zym
