// Any bytes as a safetensors file: what is accepted covers the buffer once, from end to end.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "convert/safetensors_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<kel::convert::SafetensorsEntry> entries;
  if (!parseSafetensors(data, size, "input", entries).ok() || entries.empty()) {
    return 0;
  }
  const uint8_t* at = entries.front().data;
  for (const kel::convert::SafetensorsEntry& entry : entries) {
    if (entry.data != at) {
      std::abort();
    }
    at += entry.nBytes;
  }
  if (at != data + size) {
    std::abort();
  }
  return 0;
}
