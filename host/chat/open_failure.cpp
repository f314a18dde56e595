#include "host/chat/open_failure.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

#include "container/zym2_format.h"

namespace zym {
namespace {

using kel::zym2::Header;
using kel::zym2::SectionEntry;

constexpr const char* kConvert = "`zym convert` makes a container";
constexpr const char* kAnew = "copy the file again, or convert it anew";
constexpr const char* kUnpack = "unpack it first";

// The beginning of a file, and its size.
struct Beginning {
  uint64_t fileBytes = 0;
  std::string bytes;
  int reason = 0;      // errno where the file cannot be opened or read
  bool maps = true;    // false where memory is what a mapping lacks
  bool isFile = true;  // a regular one
};

class Descriptor {
 public:
  explicit Descriptor(int opened) : fd(opened) {}
  ~Descriptor() {
    if (fd >= 0) {
      ::close(fd);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd; }

 private:
  int fd;
};

bool canBeMapped(int fd, size_t nBytes) {
  void* mapping = ::mmap(nullptr, nBytes, PROT_READ, MAP_PRIVATE, fd, 0);
  if (mapping == MAP_FAILED) {
    return errno != ENOMEM;
  }
  ::munmap(mapping, nBytes);
  return true;
}

Beginning lookAt(const std::string& path) {
  Beginning beginning;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat info {};
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0) {
    beginning.reason = errno;
    return beginning;
  }
  beginning.isFile = S_ISREG(info.st_mode);
  if (!beginning.isFile || info.st_size <= 0) {
    return beginning;
  }
  beginning.fileBytes = static_cast<uint64_t>(info.st_size);
  beginning.bytes.resize(std::min<uint64_t>(beginning.fileBytes, 1024));
  const ssize_t got = ::pread(file.get(), beginning.bytes.data(), beginning.bytes.size(), 0);
  beginning.reason = got < 0 ? errno : 0;
  beginning.bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
  beginning.maps = canBeMapped(file.get(), beginning.fileBytes);
  return beginning;
}

struct Kind {
  size_t offset;
  std::string_view bytes;
  const char* what;
  const char* advice;
};

// What people have by the name of a model.
constexpr std::array<Kind, 13> kKinds = {{
    {0, "GGUF", "is a GGUF file", kConvert},
    {0, "\x1f\x8b", "is packed by gzip", kUnpack},
    {0,
     "\xFD"
     "7zXZ",
     "is packed by xz", kUnpack},
    {0, "\x28\xB5\x2F\xFD", "is packed by zstd", kUnpack},
    {0, "BZh", "is packed by bzip2", kUnpack},
    {0, "PK\x03\x04", "is a ZIP archive, or a checkpoint of pickled weights",
     "`zym convert` takes GGUF files and folders of safetensors"},
    {0,
     "7z\xBC\xAF"
     "\x27\x1C",
     "is a 7z archive", kUnpack},
    {257, "ustar", "is a tar archive", kUnpack},
    {0, "version https://git-lfs", "is a pointer to a file that Git LFS has not fetched",
     "fetch it with `git lfs pull`"},
    {0, "<!DOCTYPE", "is a web page", "the download went wrong; download the file itself"},
    {0, "<!doctype", "is a web page", "the download went wrong; download the file itself"},
    {0, "<html", "is a web page", "the download went wrong; download the file itself"},
    {0,
     "\x7F"
     "ELF",
     "is a program or a library", "give a .zym container"},
}};

const Kind* kindOf(std::string_view bytes) {
  const auto* found = std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind& kind) {
    return bytes.size() >= kind.offset && bytes.substr(kind.offset).starts_with(kind.bytes);
  });
  return found == kKinds.end() ? nullptr : found;
}

// The length of a JSON object in eight bytes, then the object.
bool isSafetensors(const Beginning& file) {
  uint64_t length = 0;
  if (file.bytes.size() < sizeof(length) + 1) {
    return false;
  }
  std::memcpy(&length, file.bytes.data(), sizeof(length));
  return length <= file.fileBytes - sizeof(length) && file.bytes[sizeof(length)] == '{';
}

OpenFailure explainOther(const Beginning& file) {
  if (const Kind* kind = kindOf(file.bytes)) {
    return {std::string(kind->what) + ", not a container", kind->advice};
  }
  if (isSafetensors(file)) {
    return {"is a safetensors file, not a container",
            "`zym convert` makes one of the folder that it lies in"};
  }
  if (file.bytes.starts_with('{')) {
    return {"is a JSON file, not a container", "`zym convert` makes one of the folder it lies in"};
  }
  return {"is no container", "give a .zym file, which `zym convert` makes"};
}

OpenFailure cutShort(const Beginning& file, uint64_t needed) {
  return {fmt::format("is cut short: it has {} of {} bytes", file.fileBytes, needed), kAnew};
}

// Where the last section of a sound table ends; 0 when no file can be that long.
uint64_t endOfSections(const Beginning& file, uint32_t sectionCount) {
  uint64_t end = 0;
  for (uint32_t i = 0; i < sectionCount; ++i) {
    SectionEntry entry{};
    std::memcpy(&entry, file.bytes.data() + sizeof(Header) + i * sizeof(entry), sizeof(entry));
    if (entry.offset > UINT64_MAX - entry.size) {
      return 0;
    }
    end = std::max(end, entry.offset + entry.size);
  }
  return end;
}

bool isSoundHead(const Beginning& file, const Header& header) {
  const size_t tableBytes = header.sectionCount * sizeof(SectionEntry);
  const auto* bytes = reinterpret_cast<const uint8_t*>(file.bytes.data());
  std::vector<uint8_t> covered(bytes, bytes + kel::zym2::kCrcOffset);
  covered.insert(covered.end(), bytes + sizeof(Header), bytes + sizeof(Header) + tableBytes);
  return kel::zym2::crc64(covered.data(), covered.size()) == header.crc;
}

OpenFailure explainContainer(const Beginning& file) {
  if (file.bytes.size() < sizeof(Header)) {
    return cutShort(file, sizeof(Header));
  }
  Header header{};
  std::memcpy(&header, file.bytes.data(), sizeof(header));
  if (header.version != kel::zym2::kVersion) {
    return {fmt::format("is a container of version {}; version {} is what can be read",
                        header.version, kel::zym2::kVersion),
            "convert the model anew"};
  }
  if (header.sectionCount > kel::zym2::kMaxSections) {
    return {"has a damaged header", kAnew};
  }
  const uint64_t head = sizeof(Header) + header.sectionCount * sizeof(SectionEntry);
  if (file.bytes.size() < head) {
    return cutShort(file, head);
  }
  if (!isSoundHead(file, header)) {
    return {"has a damaged header", kAnew};
  }
  const uint64_t end = endOfSections(file, header.sectionCount);
  if (end > file.fileBytes) {
    return cutShort(file, end);
  }
  return {"is a container that cannot be used", kAnew};
}

OpenFailure explain(const Beginning& file) {
  if (file.reason != 0) {
    return {std::string("cannot be read: ") + std::strerror(file.reason), "check the path", false};
  }
  if (!file.isFile) {
    return {"is no regular file", "give a .zym container"};
  }
  if (file.fileBytes == 0) {
    return {"is empty", kAnew};
  }
  if (!file.maps) {
    return {fmt::format("not enough memory to map its {} bytes", file.fileBytes),
            "raise the limit of the address space (ulimit -v)", false};
  }
  return file.bytes.starts_with("ZYM2") ? explainContainer(file) : explainOther(file);
}

}  // namespace

OpenFailure explainOpenFailure(const std::string& path, const kel::Status& status) {
  OpenFailure failure = explain(lookAt(path));
  failure.what += " (" + status.message + ")";
  return failure;
}

kel::Status openFailure(const std::string& path, const kel::Status& status) {
  const OpenFailure failure = explainOpenFailure(path, status);
  return kel::Status::invalid(path + ": " + failure.what + "; " + failure.advice);
}

}  // namespace zym
