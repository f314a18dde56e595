// Element types of source files that can be decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "quant/block_sizes.h"

namespace kel::convert {

// In files they are numbered or named otherwise: mapping is always by name.
enum class SourceType : uint8_t {
  F32,
  F16,
  BF16,
  Q4_0,
  Q4_1,
  Q5_0,
  Q5_1,
  Q8_0,
  Q2_K,
  Q3_K,
  Q4_K,
  Q5_K,
  Q6_K,
  IQ4_NL,
  IQ4_XS,
  MXFP4,
};

struct SourceTypeInfo {
  const char* name;
  quant::BlockFormat block;
  // n elements, a multiple of the block's, at any alignment. Any thread.
  void (*decode)(const void* src, float* dst, size_t n);
  // The container's type of the same bytes, where matrix products accept it.
  std::optional<QuantType> kept;
};

const SourceTypeInfo& sourceTypeInfo(SourceType type);

// Why a tensor of any other type is refused, and which types to choose instead; to follow the
// tensor's name. typeName: a name, or the number of a type without one.
std::string cannotDecode(std::string_view typeName);

}  // namespace kel::convert
