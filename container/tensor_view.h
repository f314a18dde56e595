// One tensor of an open model file, as the loader hands it to the compute code.
#pragma once

#include <cstdint>
#include <string>

#include "quant/quant_type.h"

namespace kel {

// A matrix of dims[0] columns (one row, innermost, contiguous) and dims[1] * ... * dims[rank - 1]
// rows. Nothing here is checked against the file: data may be any address that the stored offset
// implies, so a user of the bytes checks bounds first (see ZYM2Reader::sectionData / sectionSize).
// data points into the file mapping and is valid while the loader that made the view is open.
struct TensorView {
  const void* data = nullptr;
  uint64_t byteSize = 0;            // as stored, not derived from type and shape
  QuantType type = QuantType::F32;  // stored types above 8 appear as 8
  uint64_t dims[4] = {0, 0, 0, 0};  // dims[0] innermost, unused ones 0
  uint16_t rank = 0;                // dimensions in use, 0 to 4
  struct {
    uint16_t type = 0;  // the clamped type again
    uint16_t word0 = 0;
    uint32_t word1 = 0;
  } quant;                             // carried from the quant info record, not interpreted
  uint32_t quantWords[3] = {0, 0, 0};  // words 2 to 4, likewise
  std::string name;                    // at most 64 bytes
};

}  // namespace kel
