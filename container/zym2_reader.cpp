#include "container/zym2_reader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "container/descriptors.h"

namespace kel {

using zym2::SectionEntry;
using zym2::SectionType;

namespace {

uint64_t headerCrc(const uint8_t* file, uint32_t sectionCount) {
  uint8_t covered[zym2::kCrcOffset + zym2::kMaxSections * sizeof(SectionEntry)];
  const size_t tableBytes = sectionCount * sizeof(SectionEntry);
  std::memcpy(covered, file, zym2::kCrcOffset);
  std::memcpy(covered + zym2::kCrcOffset, file + zym2::kHeaderBytes, tableBytes);
  return zym2::crc64(covered, zym2::kCrcOffset + tableBytes);
}

// Non-blocking, so that a named pipe is turned down as having no size instead of being waited on.
// A file that another process holds a write lease on refuses that, and only that; it is given up
// within the system's lease-break time.
int openForReading(const char* path) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  return aboveStandardStreams(fd < 0 && errno == EWOULDBLOCK ? ::open(path, O_RDONLY | O_CLOEXEC)
                                                             : fd);
}

}  // namespace

ZYM2Reader::~ZYM2Reader() {
  close();
}

Status ZYM2Reader::open(const char* path) {
  close();
  Status status = mapFile(path);
  if (status.ok()) {
    status = validateHeader();
  }
  if (status.ok()) {
    status = validateSections();
  }
  if (status.ok()) {
    status = parseMeta();
  }
  if (!status.ok()) {
    close();
    return status;
  }
  static_cast<void>(parseQuantInfo());  // copies records of a validated section: always success
  opened = true;
  return Status::success();
}

void ZYM2Reader::close() {
  if (base != nullptr) {
    ::munmap(const_cast<uint8_t*>(base), mappedBytes);
  }
  if (fd >= 0) {
    ::close(fd);
  }
  base = nullptr;
  fd = -1;
  mappedBytes = 0;
  table = nullptr;
  meta.clear();
  quantInfo.clear();
  opened = false;
}

Status ZYM2Reader::mapFile(const char* path) {
  if (path == nullptr) {
    return Status::invalid("ZYM2: null path");
  }
  fd = openForReading(path);
  if (fd < 0) {
    return Status::invalid("ZYM2: cannot open file");
  }
  struct stat info {};
  // Deliberate: an empty file counts as one that cannot be measured, not as too small.
  if (::fstat(fd, &info) != 0 || info.st_size <= 0) {
    return Status::invalid("ZYM2: cannot stat file");
  }

  const auto fileBytes = static_cast<size_t>(info.st_size);
  void* mapping = ::mmap(nullptr, fileBytes, PROT_READ, MAP_PRIVATE, fd, 0);
  if (mapping == MAP_FAILED) {
    return Status::invalid("ZYM2: mmap failed");
  }
  base = static_cast<const uint8_t*>(mapping);
  mappedBytes = fileBytes;
  ::madvise(mapping, fileBytes, MADV_HUGEPAGE);  // a hint: without huge pages all still works
  return Status::success();
}

Status ZYM2Reader::validateHeader() {
  if (mappedBytes < zym2::kHeaderBytes) {
    return Status::invalid("ZYM2: file too small");
  }
  std::memcpy(&headerCopy, base, sizeof(headerCopy));
  if (headerCopy.magic != zym2::kMagic) {
    return Status::invalid("ZYM2: bad magic");
  }
  if (headerCopy.version != zym2::kVersion) {
    return Status::invalid("ZYM2: unsupported version");
  }
  if (headerCopy.endianMarker != zym2::kEndianMarker) {
    return Status::invalid("ZYM2: big-endian files unsupported");
  }
  // Deliberate: size before count. A short file with a wild count then reports truncation, which
  // is what the user can act on.
  const uint64_t tableBytes = sizeof(SectionEntry) * uint64_t{headerCopy.sectionCount};
  if (mappedBytes - zym2::kHeaderBytes < tableBytes) {
    return Status::invalid("ZYM2: truncated section table");
  }
  if (headerCopy.sectionCount > zym2::kMaxSections) {
    return Status::invalid("ZYM2: too many sections");
  }
  if (headerCrc(base, headerCopy.sectionCount) != headerCopy.crc) {
    return Status::invalid("ZYM2: CRC mismatch");
  }
  table = reinterpret_cast<const SectionEntry*>(base + zym2::kHeaderBytes);
  return Status::success();
}

Status ZYM2Reader::validateSections() const {
  for (uint32_t i = 0; i < headerCopy.sectionCount; ++i) {
    const SectionEntry& entry = table[i];
    if (entry.offset % zym2::kAlignment != 0 || entry.offset > mappedBytes ||
        mappedBytes - entry.offset < entry.size) {
      return Status::invalid("ZYM2: bad section bounds");
    }
  }
  const uint64_t nTensors = headerCopy.tensorCount;
  if (section(SectionType::TensorIndex) == nullptr ||
      sectionSize(SectionType::TensorIndex) < nTensors * zym2::kTensorEntryBytes) {
    return Status::invalid("ZYM2: missing tensor index");
  }
  if (section(SectionType::QuantInfo) != nullptr &&
      sectionSize(SectionType::QuantInfo) < nTensors * zym2::kQuantRecordBytes) {
    return Status::invalid("ZYM2: bad quant info");
  }
  if (section(SectionType::WeightData) == nullptr) {
    return Status::invalid("ZYM2: missing weight data");
  }
  return Status::success();
}

const SectionEntry* ZYM2Reader::section(SectionType type) const {
  if (table == nullptr) {
    return nullptr;
  }
  for (uint32_t i = 0; i < headerCopy.sectionCount; ++i) {
    if (table[i].type == static_cast<uint32_t>(type)) {
      return &table[i];
    }
  }
  return nullptr;
}

const uint8_t* ZYM2Reader::sectionData(SectionType type) const {
  const SectionEntry* entry = section(type);
  return entry != nullptr ? base + entry->offset : nullptr;
}

uint64_t ZYM2Reader::sectionSize(SectionType type) const {
  const SectionEntry* entry = section(type);
  return entry != nullptr ? entry->size : 0;
}

bool ZYM2Reader::aligned64() const {
  if (!opened) {
    return false;
  }
  for (uint32_t i = 0; i < headerCopy.sectionCount; ++i) {
    if (table[i].offset % zym2::kAlignment != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace kel
