#include "convert/source_type.h"

#include <fmt/core.h>

#include <cstring>
#include <iterator>

#include "convert/block_decoders.h"
#include "quant/bfloat16.h"
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
    {"F32", quant::blockFormat(QuantType::F32), decodeF32, QuantType::F32},
    {"F16", quant::blockFormat(QuantType::F16), decodeHalves<quant::f16ToF32>, {}},
    {"BF16", quant::blockFormat(QuantType::BF16), decodeHalves<quant::bf16ToF32>, QuantType::BF16},
    {"Q4_0", {quant::kBlockLen, 18}, decodeQ40, {}},
    {"Q4_1", {quant::kBlockLen, 20}, decodeQ41, {}},
    {"Q5_0", {quant::kBlockLen, 22}, decodeQ50, {}},
    {"Q5_1", {quant::kBlockLen, 24}, decodeQ51, {}},
    {"Q8_0", quant::blockFormat(QuantType::Q8_0), quant::dequantQ80, QuantType::Q8_0},
    {"Q2_K", {quant::kSuperBlockLen, 84}, decodeQ2K, {}},
    {"Q3_K", {quant::kSuperBlockLen, 110}, decodeQ3K, {}},
    {"Q4_K", quant::blockFormat(QuantType::Q4_K), quant::dequantQ4K, QuantType::Q4_K},
    {"Q5_K", quant::blockFormat(QuantType::Q5_K), quant::dequantQ5K, QuantType::Q5_K},
    {"Q6_K", quant::blockFormat(QuantType::Q6_K), quant::dequantQ6K, {}},
    {"IQ4_NL", {quant::kBlockLen, 18}, decodeIQ4NL, {}},
    {"IQ4_XS", quant::blockFormat(QuantType::IQ4_XS), decodeIQ4XS, {}},
    {"MXFP4", {quant::kBlockLen, 17}, decodeMXFP4, {}},
};
static_assert(std::size(kTypes) == static_cast<size_t>(SourceType::MXFP4) + 1);

// What types are that cannot be decoded, by what their names begin with.
struct Kind {
  std::string_view prefix;
  std::string_view what;
};

constexpr Kind kOtherKinds[] = {
    {"IQ1", "under 2 bits, from a table of codes"},
    {"IQ2", "2 bits, from a table of codes"},
    {"IQ3", "3 bits, from a table of codes"},
    {"TQ", "ternary numbers"},
    {"NVFP4", "4-bit floats with 8-bit scales"},
    {"Q8_", "meant for intermediate results"},
    {"I", "whole numbers"},
    {"F64", "64-bit floats"},
};

std::string_view kindOf(std::string_view typeName) {
  for (const Kind& kind : kOtherKinds) {
    if (typeName.starts_with(kind.prefix)) {
      return kind.what;
    }
  }
  return "unknown";
}

}  // namespace

std::string cannotDecode(std::string_view typeName) {
  return fmt::format(
      "has the element type {} ({}), which cannot be decoded; choose a file in F32, F16, BF16, "
      "Q4_0 to Q8_0, Q2_K to Q6_K, IQ4_NL, IQ4_XS or MXFP4",
      typeName, kindOf(typeName));
}

const SourceTypeInfo& sourceTypeInfo(SourceType type) {
  return kTypes[static_cast<size_t>(type)];
}

}  // namespace kel::convert
