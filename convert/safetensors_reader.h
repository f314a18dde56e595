// Structure of a safetensors file: the tensor list, every offset and size checked before use.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/status.h"

namespace kel::convert {

struct SafetensorsEntry {
  std::string name;
  std::string dtype;            // as stored: "BF16", "F32", ...
  std::vector<uint64_t> shape;  // outermost first
  const uint8_t* data = nullptr;
  uint64_t nBytes = 0;
};

// Fills entries with views into the fileBytes bytes at file, in file order. what: names the file in
// messages. InvalidFormat on failure, with entries partly filled.
//
// The header is at most 100 MB of JSON; ranges must not overlap, leave no gap, and end with the
// file; the size of each must be that of its shape and element type.
Status parseSafetensors(const uint8_t* file, uint64_t fileBytes, const std::string& what,
                        std::vector<SafetensorsEntry>& entries);

}  // namespace kel::convert
