// Slots whose work is not built yet. They answer "failed" so that a host which calls one gets a
// status, never a null pointer.
#include "plugin/operations.h"

namespace plugin {

uint32_t qwen35Create(const char*, const char*, ZYMRuntimeHandle** outHandle, char*, size_t) {
  if (outHandle == nullptr) return ZYM_STATUS_INVALID_ARGUMENT;
  *outHandle = nullptr;
  return ZYM_STATUS_FAILED;
}

void qwen35Destroy(ZYMRuntimeHandle*) {}

uint32_t qwen35Generate(ZYMRuntimeHandle*, const char*, char*, size_t) {
  return ZYM_STATUS_FAILED;
}

uint32_t qwen35V2GenerateEx(ZYMRuntimeHandle*, const char*, const ZYMSessionOptions*, char*,
                            size_t) {
  return ZYM_STATUS_FAILED;
}

uint32_t qwen35V2Bench(ZYMRuntimeHandle*, const ZYMBenchParams*, ZYMBenchResult*) {
  return ZYM_STATUS_FAILED;
}

uint32_t qwen35V2Configure(ZYMRuntimeHandle*, const ZYMSessionOptions*) {
  return ZYM_STATUS_FAILED;
}

uint32_t qwen35V2ChatTurn(ZYMRuntimeHandle*, const char*, char*, size_t) {
  return ZYM_STATUS_FAILED;
}

uint32_t qwen35V2Reset(ZYMRuntimeHandle*) {
  return ZYM_STATUS_FAILED;
}

uint32_t qwen35V2Stats(ZYMRuntimeHandle*, ZYMRuntimeStats*) {
  return ZYM_STATUS_FAILED;
}

uint32_t qwen35V2ChatTurnStream(ZYMRuntimeHandle*, const char*, ZYMStreamCallback, void*,
                                volatile int*) {
  return ZYM_STATUS_FAILED;
}

}  // namespace plugin
