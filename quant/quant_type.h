// Element types of tensors: their numbers in the container and their printable names.
#pragma once

#include <cstdint>

namespace kel {

// The value is stored in files; the numbering never changes. Block lengths and
// bytes: quant/block_sizes.h.
enum class QuantType : uint8_t {
  F32 = 0,   // IEEE 754 binary32
  F16 = 1,   // IEEE 754 binary16
  BF16 = 2,  // upper half of a binary32
  Q4_0 = 3,
  Q8_0 = 4,
  Q4_K = 5,
  Q5_K = 6,
  Q6_K = 7,
  IQ4_XS = 8,  // sized, never decoded
};

// Whether matrix products read rows of the type, so that a model's matrices may have it.
constexpr bool hasMatmul(QuantType type) {
  return type == QuantType::F32 || type == QuantType::BF16 || type == QuantType::Q8_0 ||
         type == QuantType::Q4_K || type == QuantType::Q5_K;
}

// The name above as a static string, "?" for any other value. Any thread.
const char* quantTypeName(QuantType type);

}  // namespace kel
