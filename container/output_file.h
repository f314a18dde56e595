// A file that appears under its name complete or not at all: the bytes go to a file without a name
// in the target's folder, which commit() syncs and names. However the process ends before, nothing
// is left.
//
// Where the file system has no files without a name, the bytes go to a hidden temporary file,
// locked while it grows. One that a killed process left behind is removed by the next create() in
// the folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "container/status.h"

namespace kel {

// What becomes of a target that exists when the new file is complete. One that is kept makes
// commit() fail; where the file system cannot do that in one step (EINVAL), it is replaced.
enum class ExistingFile { IsReplaced, IsKept };

// Where the bytes go until commit().
enum class GrowingFile {
  HasNoName,  // where the file system and the system can do that; as below where not
  HasAName,
};

// Appends through a fixed buffer; memory does not grow with the file. After a failure only
// discard() is of use. Status codes: IoError with the system's reason and the path, or
// InvalidFormat where the path itself cannot be a target. One thread at a time.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Creates the file that grows. The target, where it exists, must be a regular file: renaming over
  // a device would remove it. A symbolic link is replaced, not written through.
  Status create(const std::string& path, ExistingFile existing = ExistingFile::IsReplaced,
                GrowingFile growing = GrowingFile::HasNoName);
  bool isOpen() const { return fd >= 0; }

  Status append(const void* data, size_t nBytes);
  // Appends zero bytes up to the next multiple of alignment, at most 64.
  Status alignTo(size_t alignment);
  // Bytes appended so far.
  uint64_t size() const { return appended; }
  // Writes over bytes that were appended before.
  Status overwrite(uint64_t offset, const void* data, size_t nBytes);

  // Flushes, syncs, gives the file its name and syncs the folder. The mode is that of any new
  // file: 0666 less the umask. Should the folder alone fail to sync, the target is already the new
  // file, complete, but may not outlast a power failure.
  Status commit();
  // Drops the file. Safe at any time.
  void discard();

 private:
  Status flush();
  Status writeOut(const uint8_t* data, size_t nBytes);
  bool createNameless();
  Status createTemporary();
  Status ioError(const char* action) const;  // with the reason that errno holds
  void release();

  bool nameFile();  // false with errno
  // Gives a file without one a temporary name; none with errno.
  std::optional<std::string> linkToFreeName(int file) const;
  int renameTemporary() const;  // as ::rename

  ExistingFile whenExisting = ExistingFile::IsReplaced;
  std::string target;     // as given, for messages
  std::string fileName;   // its last component
  std::string temporary;  // likewise, in the same folder; empty while the file has no name
  int folderFd = -1;
  int fd = -1;
  uint64_t appended = 0;
  std::vector<uint8_t> buffer;
};

}  // namespace kel
