#include "container/checksum.h"

#include <xxhash.h>

#include <cinttypes>
#include <cstdio>
#include <new>

namespace kel {

void Checksum::Free::operator()(XXH3_state_s* s) const {
  XXH3_freeState(s);
}

Checksum::Checksum() : state(XXH3_createState()) {
  if (!state) {
    throw std::bad_alloc();
  }
  XXH3_128bits_reset(state.get());
}

void Checksum::update(const void* data, size_t nBytes) {
  XXH3_128bits_update(state.get(), data, nBytes);
}

std::string Checksum::hex() const {
  const XXH128_hash_t sum = XXH3_128bits_digest(state.get());
  char text[33];
  std::snprintf(text, sizeof(text), "%016" PRIx64 "%016" PRIx64, sum.high64, sum.low64);
  return text;
}

}  // namespace kel
