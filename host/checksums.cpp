#include "host/checksums.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <memory>
#include <new>

namespace zym {
namespace {

constexpr uint64_t kStretch = uint64_t{8} << 20;

struct FreeState {
  void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};

}  // namespace

std::string checksumText(const uint8_t* data, uint64_t nBytes,
                         const std::function<void(uint64_t)>& onBytes) {
  const std::unique_ptr<XXH3_state_t, FreeState> state(XXH3_createState());
  if (!state) throw std::bad_alloc();
  XXH3_128bits_reset(state.get());
  for (uint64_t at = 0; at < nBytes; at += kStretch) {
    const uint64_t length = std::min(kStretch, nBytes - at);
    XXH3_128bits_update(state.get(), data + at, length);
    if (onBytes) onBytes(length);
  }
  const XXH128_hash_t sum = XXH3_128bits_digest(state.get());
  return fmt::format("{:016x}{:016x}", sum.high64, sum.low64);
}

}  // namespace zym
