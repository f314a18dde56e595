#include <string>
#include <string_view>

#include "container/zym_loader.h"
#include "plugin/operations.h"
#include "session/architecture.h"

namespace plugin {

namespace {

constexpr uint32_t kMatchScore = 92;

// The matched architecture name (a static string), or null when the file is not ours.
const char* matchArchitecture(const char* path) {
  kel::ZYMLoader loader;
  if (!loader.open(path).ok()) {
    return nullptr;
  }
  std::string architecture;
  loader.reader.getMetaStr(session::kArchitectureKey, architecture);
  if (architecture == session::kArchQwen35) {
    return session::kArchQwen35;
  }
  // Deliberate: the probe recognises the family. What of it can run is decided by create, which
  // refuses this one with a message that a person can act on.
  if (architecture == session::kArchQwen35Moe) {
    return session::kArchQwen35Moe;
  }
  return nullptr;
}

}  // namespace

uint32_t qwen35Probe(const char* path, ZYMRuntimeProbe* out) {
  if (out != nullptr) {
    *out = {.score = 0, .architecture = "", .device = "cpu", .detail = ""};
  }
  // The suffix decides before any file access, so that probing a folder of unrelated files is free.
  if (path == nullptr || !std::string_view(path).ends_with(".zym")) {
    return ZYM_STATUS_OK;
  }

  const char* architecture = nullptr;
  try {
    architecture = matchArchitecture(path);
  } catch (...) {
    // Out of memory while reading: as little ours as an unreadable file.
  }
  if (architecture != nullptr && out != nullptr) {
    *out = {.score = kMatchScore,
            .architecture = architecture,
            .device = "cpu",
            .detail = "qwen35 hybrid (GDN+attn) architecture metadata"};
  }
  return ZYM_STATUS_OK;
}

}  // namespace plugin
