// Reads the file that QWEN35_HID_DUMP names.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/file_contents.h"

namespace kel::test {

struct DumpRecord {
  uint32_t pos;
  std::string name;
  std::vector<float> values;
};

inline std::vector<DumpRecord> readHiddenDump(const std::string& path) {
  const std::string bytes = contentsOf(path);
  size_t at = 0;
  const auto take = [&](void* out, size_t n) {
    if (bytes.size() - at < n) {
      throw std::runtime_error("dump ends inside a record");
    }
    std::memcpy(out, bytes.data() + at, n);
    at += n;
  };
  std::vector<DumpRecord> records;
  while (at < bytes.size()) {
    DumpRecord record;
    uint32_t nameLength = 0;
    uint64_t count = 0;
    take(&record.pos, 4);
    take(&nameLength, 4);
    record.name.resize(nameLength);
    take(record.name.data(), nameLength);
    take(&count, 8);
    record.values.resize(count);
    take(record.values.data(), 4 * count);
    records.push_back(std::move(record));
  }
  return records;
}

}  // namespace kel::test
