// Whole files, read in large pieces: taken character by character, a model's file takes seconds in
// builds that inline nothing.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <ios>
#include <string>

namespace kel::test {

// All bytes of a file in a string or in a vector of bytes; none where it cannot be read.
template <typename Container = std::string>
Container contentsOf(const std::filesystem::path& path) {
  constexpr size_t kPiece = size_t{1} << 16;
  std::ifstream file(path, std::ios::binary);
  Container contents;
  size_t end = 0;
  while (file) {
    contents.resize(end + kPiece);
    file.read(reinterpret_cast<char*>(&contents[end]), kPiece);
    end += static_cast<size_t>(file.gcount());
  }
  contents.resize(end);
  return contents;
}

}  // namespace kel::test
