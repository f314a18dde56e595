#include "convert/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "container/descriptors.h"
#include "convert/errors.h"

namespace kel::convert {

namespace {

Status systemFailure(const std::string& path) {
  return ioFailure("cannot read {}: {}", path, std::system_category().message(errno));
}

}  // namespace

MappedFile::~MappedFile() {
  close();
}

MappedFile::MappedFile(MappedFile&& other) noexcept
    : base(std::exchange(other.base, nullptr)), nBytes(std::exchange(other.nBytes, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    close();
    base = std::exchange(other.base, nullptr);
    nBytes = std::exchange(other.nBytes, 0);
  }
  return *this;
}

Status MappedFile::open(const std::string& path) {
  close();
  // Not blocking: opening a pipe that nobody writes to would wait forever.
  const int fd = aboveStandardStreams(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd < 0) {
    return systemFailure(path);
  }
  Status status = Status::success();
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    status = systemFailure(path);
  } else if (!S_ISREG(info.st_mode)) {
    status = malformed("{} is not a regular file", path);
  } else if (info.st_size <= 0) {
    status = malformed("{} is empty", path);
  } else {
    const auto length = static_cast<size_t>(info.st_size);
    void* mapping = ::mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd, 0);
    if (mapping == MAP_FAILED) {
      status = systemFailure(path);
    } else {
      base = static_cast<const uint8_t*>(mapping);
      nBytes = length;
    }
  }
  ::close(fd);
  return status;
}

void MappedFile::release(const uint8_t* data, uint64_t nBytes) {
  const auto page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto begin = (reinterpret_cast<uintptr_t>(data) + page - 1) / page * page;
  const auto end = (reinterpret_cast<uintptr_t>(data) + nBytes) / page * page;
  // Advice only: where it fails, the pages stay until the system wants them back.
  if (begin < end) {
    ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
  }
}

void MappedFile::close() {
  if (base != nullptr) {
    ::munmap(const_cast<uint8_t*>(base), nBytes);
  }
  base = nullptr;
  nBytes = 0;
}

}  // namespace kel::convert
