// What the operations share at the border to the host.
#pragma once

#include <cstddef>
#include <cstdint>

#include "session/session.h"
#include "zym/plugin.h"

namespace plugin {

// A handle is a session under an opaque name.
inline session::Qwen35Session* sessionOf(ZYMRuntimeHandle* handle) {
  return reinterpret_cast<session::Qwen35Session*>(handle);
}

inline bool isLoaded(ZYMRuntimeHandle* handle) {
  return handle != nullptr && sessionOf(handle)->loaded;
}

inline bool isUsable(const char* out, size_t outCap) {
  return out != nullptr && outCap > 0;
}

// Runs an operation; whatever is thrown inside (a failed allocation) becomes status 1, for a host
// cannot unwind through us.
template <typename Operation>
uint32_t guarded(Operation&& operation) noexcept {
  try {
    return operation();
  } catch (...) {
    return ZYM_STATUS_FAILED;
  }
}

// Stores the options that ask to be applied: temperature from 0, top-k and top-p above 0 (NaN asks
// for nothing), a seed other than 0.
void applyOptions(session::Qwen35Session& session, const ZYMSessionOptions& options);

}  // namespace plugin
