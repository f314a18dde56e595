// A lock between processes that no death can leave behind: the system drops it with the process.
#pragma once

#include <string>

namespace zym {

// Held from a successful take() until release() or destruction. It stands on a file, which is made
// for it and removed with it; the file of a holder that was killed locks nobody out. Several locks
// of one process exclude each other too.
class FileLock {
 public:
  enum class Taking { Taken, Busy, Failed };

  FileLock() = default;
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // One attempt, without waiting. reason: of Failed, in the system's words.
  Taking take(const std::string& path, std::string& reason);
  void release();

 private:
  std::string name;
  int fd = -1;
};

}  // namespace zym
