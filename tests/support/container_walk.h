// For tests that open damaged containers: a file without a disk, and a walk over everything that
// an open loader answers.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include "container/zym_loader.h"
#include "tests/support/temp_dir.h"

namespace kel::test {

// A file in memory, rewritten by every write.
class MemoryFile {
 public:
  MemoryFile() : fd(::memfd_create("container", MFD_CLOEXEC)) {}
  ~MemoryFile() { ::close(fd); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  void write(const Bytes& bytes) const {
    const auto size = static_cast<off_t>(bytes.size());
    if (::ftruncate(fd, size) != 0 || ::pwrite(fd, bytes.data(), bytes.size(), 0) != size) {
      throw std::runtime_error("cannot write to memory");
    }
  }
  // Opens as any file does, while the object lives.
  std::string path() const { return "/proc/self/fd/" + std::to_string(fd); }

 private:
  int fd;
};

// Asks an open loader everything. Tensor bytes are left alone: views carry addresses as stored.
// Returns a tally of what was found, so that no lookup can be optimised away.
inline size_t walk(const ZYMLoader& loader) {
  size_t seen = loader.text.size() + loader.tokenizer.tokens.size();
  ZYM2Reader::MetaEntryView entry;
  for (size_t i = 0; loader.reader.metaAt(i, entry); ++i) {
    std::string str;
    uint32_t u32 = 0;
    const uint32_t* data = nullptr;
    size_t count = 0;
    if (loader.reader.getMetaStr(entry.key.c_str(), str)) {
      seen += str.size();
    }
    if (loader.reader.getMetaU32(entry.key.c_str(), u32)) {
      seen += u32 & 1;
    }
    if (!loader.reader.getMetaU32Array(entry.key.c_str(), data, count)) {
      continue;
    }
    for (size_t element = 0; element < count; ++element) {
      seen += data[element] & 1;
    }
  }
  for (size_t i = 0; i <= loader.tensorCount; ++i) {
    seen += loader.reader.tensorView(i).rank;
  }
  for (const TensorView& record : loader.tensors) {
    seen += loader.findTensor(record.name) != nullptr ? 1 : 0;
    seen += loader.reader.findTensor(record.name.c_str()) != nullptr ? 1 : 0;
    seen += loader.reader.tensorView(record.name.c_str()).rank;
  }
  for (const char* name : {"a", "b", "c", "", "zz"}) {
    seen += loader.findTensor(name) != nullptr ? 1 : 0;
    seen += loader.reader.tensorView(name).rank;
  }
  return seen;
}

}  // namespace kel::test
