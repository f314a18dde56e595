#include <memory>

#include "plugin/boundary.h"
#include "plugin/operations.h"

namespace plugin {

using session::Qwen35Session;

uint32_t qwen35Create(const char* modelPath, const char*, ZYMRuntimeHandle** outHandle, char* err,
                      size_t errCap) {
  if (outHandle == nullptr) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  *outHandle = nullptr;
  return guarded([&]() -> uint32_t {
    auto opened = std::make_unique<Qwen35Session>();
    opened->modelPath = modelPath == nullptr ? "" : modelPath;
    if (!openSession(opened.get(), modelPath, err, errCap)) {
      return ZYM_STATUS_FAILED;
    }
    *outHandle = reinterpret_cast<ZYMRuntimeHandle*>(opened.release());
    return ZYM_STATUS_OK;
  });
}

void qwen35Destroy(ZYMRuntimeHandle* handle) {
  delete sessionOf(handle);
}

}  // namespace plugin
