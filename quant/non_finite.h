// Finds values that are not finite in rows as they are stored, without decoding them: the bit
// patterns of plain values and of the scales and minimums of blocks tell.
#pragma once

#include <cstdint>
#include <optional>

#include "quant/quant_type.h"

namespace kel::quant {

// Index of the first of n stored values that is infinite or NaN; none when all are finite. In block
// formats a scale that is not finite leaves no value of its block finite: the index is that of the
// block's first one. data: quantizedBytes(type, n) bytes of any alignment. IQ4_XS, which is never
// decoded, and values that are no type answer none. Any thread; no allocation.
std::optional<uint64_t> firstNonFinite(QuantType type, const uint8_t* data, uint64_t n);

}  // namespace kel::quant
