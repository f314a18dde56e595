#include "container/output_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>

#include "container/descriptors.h"

namespace kel {

namespace {

constexpr size_t kBufferBytes = size_t{1} << 20;
constexpr int kMaxNameAttempts = 1000;
constexpr std::string_view kTemporaryPrefix = ".zym2-";
constexpr std::string_view kTemporarySuffix = ".tmp";

// Repeats a system call that a signal interrupted.
template <typename Call>
auto retry(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) {
    result = call();
  }
  return result;
}

// Free of the target's name, which may leave no room for a suffix.
std::string temporaryName(int attempt) {
  std::string name(kTemporaryPrefix);
  name += std::to_string(::getpid()) + "-" + std::to_string(attempt);
  return name.append(kTemporarySuffix);
}

// The number of the process that gave the name; 0 when it is no such name.
pid_t processOf(std::string_view name) {
  if (!name.starts_with(kTemporaryPrefix) || !name.ends_with(kTemporarySuffix)) {
    return 0;
  }
  name.remove_prefix(kTemporaryPrefix.size());
  name.remove_suffix(kTemporarySuffix.size());
  const char* end = name.data() + name.size();
  pid_t process = 0;
  int attempt = 0;
  const auto first = std::from_chars(name.data(), end, process);
  if (first.ec != std::errc() || process <= 0 || first.ptr == end || *first.ptr != '-') {
    return 0;
  }
  const auto second = std::from_chars(first.ptr + 1, end, attempt);
  return second.ec == std::errc() && second.ptr == end ? process : 0;
}

bool isRunning(pid_t process) {
  return ::kill(process, 0) == 0 || errno != ESRCH;
}

// Whether nobody holds the lock under which the file grew. Processes of other containers, and of
// other machines, show by that alone.
bool isUnlocked(int folder, const char* name) {
  const int fd =
      aboveStandardStreams(::openat(folder, name, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  const bool unlocked = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0;
  if (fd >= 0) {
    ::close(fd);
  }
  return unlocked;
}

// What processes left that were killed while their file had a name.
void removeAbandonedFiles(int folder) {
  // A description of its own: the place in the folder that is read is part of it.
  const int copy = aboveStandardStreams(::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  DIR* entries = copy < 0 ? nullptr : ::fdopendir(copy);
  if (entries == nullptr) {
    if (copy >= 0) {
      ::close(copy);
    }
    return;
  }
  while (const dirent* entry = ::readdir(entries)) {
    const pid_t process = processOf(entry->d_name);
    if (process > 0 && !isRunning(process) && isUnlocked(folder, entry->d_name)) {
      ::unlinkat(folder, entry->d_name, 0);
    }
  }
  ::closedir(entries);
}

// Locks a new file for as long as it is open. False when another process took it for one that was
// left behind; where files cannot be locked at all nothing is ever removed.
bool lockGrowing(int fd) {
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    return errno != EWOULDBLOCK;
  }
  struct stat info {};
  return ::fstat(fd, &info) != 0 || info.st_nlink > 0;
}

int openNameless(int folder) {
  return aboveStandardStreams(
      retry([&] { return ::openat(folder, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666); }));
}

// Names a file that has no name.
int linkFile(int file, int folder, const std::string& name) {
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  return ::linkat(AT_FDCWD, path.c_str(), folder, name.c_str(), AT_SYMLINK_FOLLOW);
}

}  // namespace

OutputFile::~OutputFile() {
  discard();
}

Status OutputFile::create(const std::string& path, ExistingFile existing, GrowingFile growing) {
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
  temporary.clear();
  removeAbandonedFiles(folderFd);
  buffer.reserve(kBufferBytes);
  if (growing == GrowingFile::HasNoName && createNameless()) {
    return Status::success();
  }
  return createTemporary();
}

bool OutputFile::createNameless() {
  // A first one shows whether it could be named in the end: a sandbox may forbid that, and /proc be
  // missing. It cannot be the same file, which is named only once.
  const int probe = openNameless(folderFd);
  const std::optional<std::string> name = probe < 0 ? std::nullopt : linkToFreeName(probe);
  if (probe >= 0) {
    ::close(probe);
  }
  if (!name) {
    return false;
  }
  ::unlinkat(folderFd, name->c_str(), 0);
  fd = openNameless(folderFd);
  return fd >= 0;
}

Status OutputFile::createTemporary() {
  for (int attempt = 0; attempt < kMaxNameAttempts && fd < 0; ++attempt) {
    temporary = temporaryName(attempt);
    fd = aboveStandardStreams(retry([&] {
      return ::openat(folderFd, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    }));
    if (fd < 0 && errno != EEXIST) {
      break;
    }
    if (fd >= 0 && !lockGrowing(fd)) {
      ::close(fd);
      fd = -1;
      errno = EEXIST;
    }
  }
  return fd < 0 ? ioError("cannot create a temporary file for") : Status::success();
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
  if (!nameFile()) {
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

bool OutputFile::nameFile() {
  if (!temporary.empty()) {
    return renameTemporary() == 0;
  }
  if (linkFile(fd, folderFd, fileName) == 0) {
    return true;
  }
  // A link never replaces; a rename does, of a file that has a name.
  if (errno != EEXIST || whenExisting == ExistingFile::IsKept) {
    return false;
  }
  const std::optional<std::string> name = linkToFreeName(fd);
  if (!name) {
    return false;
  }
  temporary = *name;
  return renameTemporary() == 0;
}

std::optional<std::string> OutputFile::linkToFreeName(int file) const {
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    std::string name = temporaryName(attempt);
    if (linkFile(file, folderFd, name) == 0) {
      return name;
    }
    if (errno != EEXIST) {
      break;
    }
  }
  return std::nullopt;
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
