#include "convert/free_space.h"

#include <sys/statvfs.h>

#include <filesystem>

#include "convert/errors.h"

namespace kel::convert {

namespace {

std::string megabytes(uint64_t nBytes) {
  return fmt::format("{:.1f} MB", static_cast<double>(nBytes) / 1e6);
}

}  // namespace

Status checkFreeSpace(const std::string& target, uint64_t needed) {
  const std::string folder = std::filesystem::path(target).parent_path().string();
  struct statvfs info {};
  if (::statvfs(folder.empty() ? "." : folder.c_str(), &info) != 0) {
    return Status::success();
  }
  const uint64_t available = uint64_t{info.f_bavail} * info.f_frsize;
  if (available >= needed) {
    return Status::success();
  }
  return ioFailure("not enough space for {}: it needs {}, and {} are free", target,
                   megabytes(needed), megabytes(available));
}

}  // namespace kel::convert
