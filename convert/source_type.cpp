#include "convert/source_type.h"

#include <cstring>
#include <iterator>

#include "convert/bfloat16.h"
#include "convert/block_decoders.h"
#include "quant/blocks.h"

namespace kel::convert {

namespace {

void decodeF32(const void* src, float* dst, size_t n) {
  std::memcpy(dst, src, n * sizeof(float));
}

template <float (*widen)(uint16_t)>
void decodeHalves(const void* src, float* dst, size_t n) {
  const auto* at = static_cast<const uint8_t*>(src);
  for (size_t i = 0; i < n; ++i) {
    uint16_t half = 0;
    std::memcpy(&half, at + 2 * i, sizeof(half));
    dst[i] = widen(half);
  }
}

constexpr SourceTypeInfo kTypes[] = {
    {"F32", 1, 4, decodeF32, QuantType::F32},
    {"F16", 1, 2, decodeHalves<quant::f16ToF32>, {}},
    {"BF16", 1, 2, decodeHalves<bfloat16ToFloat>, QuantType::BF16},
    {"Q4_0", 32, 18, decodeQ40, {}},
    {"Q4_1", 32, 20, decodeQ41, {}},
    {"Q5_0", 32, 22, decodeQ50, {}},
    {"Q5_1", 32, 24, decodeQ51, {}},
    {"Q8_0", 32, 34, quant::dequantQ80, QuantType::Q8_0},
    {"Q2_K", 256, 84, decodeQ2K, {}},
    {"Q3_K", 256, 110, decodeQ3K, {}},
    {"Q4_K", 256, 144, quant::dequantQ4K, QuantType::Q4_K},
    {"Q5_K", 256, 176, quant::dequantQ5K, QuantType::Q5_K},
    {"Q6_K", 256, 210, quant::dequantQ6K, {}},
    {"IQ4_NL", 32, 18, decodeIQ4NL, {}},
    {"IQ4_XS", 256, 136, decodeIQ4XS, {}},
};
static_assert(std::size(kTypes) == static_cast<size_t>(SourceType::IQ4_XS) + 1);

}  // namespace

const SourceTypeInfo& sourceTypeInfo(SourceType type) {
  return kTypes[static_cast<size_t>(type)];
}

}  // namespace kel::convert
