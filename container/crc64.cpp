#include <array>

#include "container/zym2_format.h"

namespace kel::zym2 {

namespace {

constexpr uint64_t kPolynomial = 0x42F0E1EBA9EA3693;

constexpr std::array<uint64_t, 256> buildTable() {
  std::array<uint64_t, 256> table{};
  for (uint64_t i = 0; i < table.size(); ++i) {
    uint64_t value = i;
    for (int bit = 0; bit < 8; ++bit) {
      const bool carry = (value & 1) != 0;
      value >>= 1;
      if (carry) {
        value ^= kPolynomial;
      }
    }
    table[i] = value;
  }
  return table;
}

constexpr std::array<uint64_t, 256> kTable = buildTable();

}  // namespace

uint64_t crc64(const uint8_t* data, size_t length) {
  uint64_t crc = 0;
  for (size_t i = 0; i < length; ++i) {
    crc = kTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  }
  return crc;
}

}  // namespace kel::zym2
