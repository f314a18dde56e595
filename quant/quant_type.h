// Element types of tensors: their numbers in the container and their printable names.
#pragma once

#include <cstdint>

namespace kel {

// The value is stored in files; the numbering never changes. Block layouts: quant/blocks.h.
enum class QuantType : uint8_t {
  F32 = 0,     // IEEE 754 binary32
  F16 = 1,     // IEEE 754 binary16
  BF16 = 2,    // upper half of a binary32
  Q4_0 = 3,    // 32 elements in 18 bytes
  Q8_0 = 4,    // 32 elements in 34 bytes
  Q4_K = 5,    // 256 elements in 144 bytes
  Q5_K = 6,    // 256 elements in 176 bytes
  Q6_K = 7,    // 256 elements in 210 bytes
  IQ4_XS = 8,  // 256 elements in 136 bytes; sized, never decoded
};

// The name above as a static string, "?" for any other value. Any thread.
const char* quantTypeName(QuantType type);

}  // namespace kel
