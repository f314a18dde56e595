#include "host/chat/plugin_lookup.h"

#include <system_error>

namespace zym {

kel::Status findPlugin(const std::string& asked, const std::string& fromEnvironment,
                       std::filesystem::path& found) {
  const std::string& named = asked.empty() ? fromEnvironment : asked;
  if (named.empty()) {
    found.clear();
    return kel::Status::success();
  }
  std::error_code error;
  if (!std::filesystem::exists(named, error)) {
    const char* source = asked.empty() ? "ZYM_PLUGIN" : "--plugin";
    return kel::Status::invalid(named + ": no such runtime library; correct " + source);
  }
  // dlopen searches the system's library folders for a name without a slash.
  found = std::filesystem::absolute(named, error);
  return kel::Status::success();
}

}  // namespace zym
