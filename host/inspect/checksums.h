// The checksums that a container stores of its sections (container/checksum.h), made anew from the
// sections of a file.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace zym {

// onBytes is told of every stretch of bytes that has been read; may be null. False from it ends the
// reading, and the text is of no use.
std::string checksumText(const uint8_t* data, uint64_t nBytes,
                         const std::function<bool(uint64_t)>& onBytes);

}  // namespace zym
