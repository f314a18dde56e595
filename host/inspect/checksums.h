// The checksums that a container stores of its sections (container/checksum.h), made anew from the
// sections of a file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zym {

// onBytes is told of every stretch of bytes that has been read; may be null.
std::string checksumText(const uint8_t* data, uint64_t nBytes,
                         const std::function<void(uint64_t)>& onBytes);

}  // namespace zym
