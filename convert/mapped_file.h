// A source file, mapped read-only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "container/status.h"

namespace kel::convert {

// Owns the mapping; bytes that it hands out are valid while it lives. The file must not shrink
// meanwhile (the system raises SIGBUS on a page past the end). Const operations from any thread.
class MappedFile {
 public:
  MappedFile() = default;
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  // Regular files of at least one byte only. IoError with the system's reason, InvalidFormat for
  // another kind of file or an empty one.
  Status open(const std::string& path);

  const uint8_t* data() const { return base; }
  uint64_t size() const { return nBytes; }
  std::string_view text() const { return {reinterpret_cast<const char*>(base), nBytes}; }

  // Tells the system that a range inside the mapping has been read for the last time in a while:
  // its pages stop counting as this process's memory. Reading it again still works.
  static void release(const uint8_t* data, uint64_t nBytes);

 private:
  void close();

  const uint8_t* base = nullptr;
  uint64_t nBytes = 0;
};

}  // namespace kel::convert
