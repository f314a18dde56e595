#include "container/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "container/descriptors.h"

namespace kel {

namespace {

constexpr size_t kBufferBytes = size_t{1} << 20;
constexpr int kMaxNameAttempts = 1000;

// Repeats a system call that a signal interrupted.
template <typename Call>
auto retry(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) {
    result = call();
  }
  return result;
}

}  // namespace

OutputFile::~OutputFile() {
  discard();
}

Status OutputFile::create(const std::string& path, ExistingFile existing) {
  discard();
  target = path;
  whenExisting = existing;
  const size_t slash = path.rfind('/');
  fileName = slash == std::string::npos ? path : path.substr(slash + 1);
  if (fileName.empty() || path.find('\0') != std::string::npos) {
    return Status::invalid("ZYM2Writer: not a file name: " + path);
  }
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
    return Status::invalid("ZYM2Writer: not a regular file: " + path);
  }
  // The folder is held open, so that a change of working directory does not separate the
  // temporary file from its target.
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  folderFd = aboveStandardStreams(
      retry([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
  if (folderFd < 0) {
    return ioError("cannot open the folder of");
  }
  return createTemporary();
}

Status OutputFile::createTemporary() {
  // Free of the target's name, which may leave no room for a suffix. Names of a process that died
  // with the same id are stepped over.
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    temporary = ".zym2-" + std::to_string(::getpid()) + "-" + std::to_string(attempt) + ".tmp";
    fd = aboveStandardStreams(retry([&] {
      return ::openat(folderFd, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    }));
    if (fd >= 0 || errno != EEXIST) {
      break;
    }
  }
  if (fd < 0) {
    return ioError("cannot create a temporary file for");
  }
  buffer.reserve(kBufferBytes);
  return Status::success();
}

Status OutputFile::append(const void* data, size_t nBytes) {
  if (nBytes == 0) {
    return Status::success();
  }
  appended += nBytes;
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (nBytes > kBufferBytes - buffer.size()) {
    Status status = flush();
    if (!status.ok()) {
      return status;
    }
    if (nBytes >= kBufferBytes) {
      return writeOut(bytes, nBytes);
    }
  }
  buffer.insert(buffer.end(), bytes, bytes + nBytes);
  return Status::success();
}

Status OutputFile::alignTo(size_t alignment) {
  constexpr uint8_t kZeros[64] = {};
  const size_t past = appended % alignment;
  return past == 0 ? Status::success() : append(kZeros, alignment - past);
}

Status OutputFile::overwrite(uint64_t offset, const void* data, size_t nBytes) {
  Status status = flush();
  if (!status.ok()) {
    return status;
  }
  const auto* bytes = static_cast<const uint8_t*>(data);
  while (nBytes > 0) {
    const ssize_t written =
        retry([&] { return ::pwrite(fd, bytes, nBytes, static_cast<off_t>(offset)); });
    if (written <= 0) {
      return ioError("cannot write");
    }
    bytes += written;
    offset += static_cast<uint64_t>(written);
    nBytes -= static_cast<size_t>(written);
  }
  return Status::success();
}

Status OutputFile::flush() {
  Status status = writeOut(buffer.data(), buffer.size());
  buffer.clear();
  return status;
}

Status OutputFile::writeOut(const uint8_t* data, size_t nBytes) {
  while (nBytes > 0) {
    const ssize_t written = retry([&] { return ::write(fd, data, nBytes); });
    if (written <= 0) {
      return ioError("cannot write");
    }
    data += written;
    nBytes -= static_cast<size_t>(written);
  }
  return Status::success();
}

Status OutputFile::commit() {
  Status status = flush();
  if (!status.ok()) {
    return status;
  }
  if (retry([&] { return ::fsync(fd); }) != 0) {
    return ioError("cannot sync");
  }
  if (renameTemporary() != 0) {
    return ioError("cannot rename to");
  }
  temporary.clear();
  // Some file systems cannot sync a folder and say so with EINVAL; the rename stands all the same.
  if (retry([&] { return ::fsync(folderFd); }) != 0 && errno != EINVAL) {
    return ioError("cannot sync the folder of");
  }
  release();
  return Status::success();
}

int OutputFile::renameTemporary() const {
  const char* from = temporary.c_str();
  const char* to = fileName.c_str();
  if (whenExisting == ExistingFile::IsKept) {
    const int renamed = ::renameat2(folderFd, from, folderFd, to, RENAME_NOREPLACE);
    if (renamed == 0 || errno != EINVAL) {
      return renamed;
    }
  }
  return ::renameat(folderFd, from, folderFd, to);
}

void OutputFile::discard() {
  if (fd >= 0 && !temporary.empty()) {
    ::unlinkat(folderFd, temporary.c_str(), 0);
  }
  release();
}

void OutputFile::release() {
  if (fd >= 0) {
    ::close(fd);  // after fsync nothing is left that closing could fail to write
  }
  if (folderFd >= 0) {
    ::close(folderFd);
  }
  fd = -1;
  folderFd = -1;
  appended = 0;
  buffer = {};
}

Status OutputFile::ioError(const char* action) const {
  const std::string reason = std::system_category().message(errno);
  return Status::ioError(std::string("ZYM2Writer: ") + action + " " + target + ": " + reason);
}

}  // namespace kel
