#include "host/inspect/checksums.h"

#include <algorithm>

#include "container/checksum.h"

namespace zym {
namespace {

constexpr uint64_t kStretch = uint64_t{8} << 20;

}  // namespace

std::string checksumText(const uint8_t* data, uint64_t nBytes,
                         const std::function<bool(uint64_t)>& onBytes) {
  kel::Checksum sum;
  for (uint64_t at = 0; at < nBytes; at += kStretch) {
    const uint64_t length = std::min(kStretch, nBytes - at);
    sum.update(data + at, length);
    if (onBytes && !onBytes(length)) {
      break;
    }
  }
  return sum.hex();
}

}  // namespace zym
