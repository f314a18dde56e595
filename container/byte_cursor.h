// Reads the packed little-endian fields of a section in order, never past its end.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kel {

// A position in a byte range that the caller keeps alive. A read that does not fit returns false
// and leaves the position and the output alone.
class ByteCursor {
 public:
  ByteCursor(const uint8_t* data, uint64_t size) : at(data), left(size) {}

  uint64_t remaining() const { return left; }

  // One scalar in the file's byte order, which is the host's; no alignment is assumed.
  template <typename T>
  bool read(T& out) {
    static_assert(std::is_arithmetic_v<T>);
    const uint8_t* bytes = nullptr;
    if (!take(sizeof(T), bytes)) {
      return false;
    }
    std::memcpy(&out, bytes, sizeof(T));
    return true;
  }

  // A view of the next nBytes bytes, in place.
  bool take(uint64_t nBytes, const uint8_t*& bytes) {
    if (left < nBytes) {
      return false;
    }
    bytes = at;
    at += nBytes;
    left -= nBytes;
    return true;
  }

 private:
  const uint8_t* at;
  uint64_t left;
};

}  // namespace kel
