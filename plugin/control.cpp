#include "plugin/boundary.h"
#include "plugin/operations.h"

namespace plugin {

using session::Qwen35Session;

void applyOptions(Qwen35Session& session, const ZYMSessionOptions& options) {
  if (options.temperature >= 0) {
    session.temperature = options.temperature;
  }
  if (options.topK > 0) {
    session.topK = options.topK;
  }
  if (options.topP > 0) {
    session.topP = options.topP;
  }
  if (options.seed != 0) {
    session.rng.seed(static_cast<uint32_t>(options.seed));
  }
}

uint32_t qwen35V2Configure(ZYMRuntimeHandle* handle, const ZYMSessionOptions* options) {
  if (handle == nullptr || options == nullptr || options->structSize < ZYM_SESSION_OPTIONS_SIZE) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  applyOptions(*sessionOf(handle), *options);
  return ZYM_STATUS_OK;
}

uint32_t qwen35V2Reset(ZYMRuntimeHandle* handle) {
  if (handle == nullptr) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  return guarded([handle]() -> uint32_t {
    sessionOf(handle)->endChat();
    sessionOf(handle)->lastDecodeMs = 0;
    return ZYM_STATUS_OK;
  });
}

uint32_t qwen35V2Stats(ZYMRuntimeHandle* handle, ZYMRuntimeStats* out) {
  if (handle == nullptr || out == nullptr) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  const Qwen35Session& session = *sessionOf(handle);
  out->structSize = sizeof(ZYMRuntimeStats);
  out->contextTokens = session.position;
  out->decodeMsTotal = session.decodeMsTotal;
  out->lastDecodeMs = session.lastDecodeMs;
  return ZYM_STATUS_OK;
}

}  // namespace plugin
