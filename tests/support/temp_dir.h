// Files for a test: a folder of its own under the system's temporary folder, and whole-file access.
#pragma once

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/file_contents.h"

namespace kel::test {

using Bytes = std::vector<uint8_t>;

// Created empty, removed with its contents when the object goes.
class TempDir {
 public:
  TempDir() {
    std::string name = (std::filesystem::temp_directory_path() / "zym-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed");
    }
    folder = name;
  }
  ~TempDir() {
    std::error_code ignored;  // a folder left behind fails no test
    std::filesystem::remove_all(folder, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return folder; }
  std::string file(const std::string& name) const { return (folder / name).string(); }

 private:
  std::filesystem::path folder;
};

inline Bytes readFile(const std::string& path) {
  if (!std::filesystem::is_regular_file(path)) {
    throw std::runtime_error("cannot read " + path);
  }
  return contentsOf<Bytes>(path);
}

inline void writeFile(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out.flush()) {
    throw std::runtime_error("cannot write " + path);
  }
}

}  // namespace kel::test
