// A file that appears under its name complete or not at all: the bytes go to a temporary file in
// the target's folder, which commit() syncs and renames over the target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "container/status.h"

namespace kel {

// What becomes of a target that exists when the new file is complete. One that is kept makes
// commit() fail; where the file system cannot do that in one step (EINVAL), it is replaced.
enum class ExistingFile { IsReplaced, IsKept };

// Appends through a fixed buffer; memory does not grow with the file. After a failure only
// discard() is of use. Status codes: IoError with the system's reason and the path, or
// InvalidFormat where the path itself cannot be a target. One thread at a time.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates the temporary file. The target, where it exists, must be a regular file: renaming over
  // a device would remove it. A symbolic link is replaced, not written through.
  Status create(const std::string& path, ExistingFile existing = ExistingFile::IsReplaced);
  bool isOpen() const { return fd >= 0; }

  Status append(const void* data, size_t nBytes);
  // Appends zero bytes up to the next multiple of alignment, at most 64.
  Status alignTo(size_t alignment);
  // Bytes appended so far.
  uint64_t size() const { return appended; }
  // Writes over bytes that were appended before.
  Status overwrite(uint64_t offset, const void* data, size_t nBytes);

  // Flushes, syncs, renames to the target and syncs the folder. The mode is that of any new
  // file: 0666 less the umask. Should the folder alone fail to sync, the target is already the new
  // file, complete, but may not outlast a power failure.
  Status commit();
  // Removes the temporary file. Safe at any time.
  void discard();

 private:
  Status flush();
  Status writeOut(const uint8_t* data, size_t nBytes);
  Status createTemporary();
  Status ioError(const char* action) const;  // with the reason that errno holds
  void release();

  int renameTemporary() const;  // as ::rename

  ExistingFile whenExisting = ExistingFile::IsReplaced;
  std::string target;     // as given, for messages
  std::string fileName;   // its last component
  std::string temporary;  // likewise, in the same folder
  int folderFd = -1;
  int fd = -1;
  uint64_t appended = 0;
  std::vector<uint8_t> buffer;
};

}  // namespace kel
