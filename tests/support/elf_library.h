// The dynamic section and symbols of a shared library, from its ELF file.
#pragma once

#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "tests/support/file_contents.h"

namespace kel::test {

inline std::vector<char> readLibrary(const std::string& path) {
  return contentsOf<std::vector<char>>(path);
}

template <typename Record>
Record recordAt(const std::vector<char>& image, size_t offset) {
  Record record{};
  if (offset + sizeof(Record) > image.size()) {
    ADD_FAILURE() << "record at " << offset << " lies outside the library file";
    return record;
  }
  std::memcpy(&record, image.data() + offset, sizeof(Record));
  return record;
}

inline std::vector<Elf64_Shdr> sectionHeaders(const std::vector<char>& image) {
  const auto header = recordAt<Elf64_Ehdr>(image, 0);
  std::vector<Elf64_Shdr> sections;
  for (size_t i = 0; i < header.e_shnum; ++i) {
    sections.push_back(recordAt<Elf64_Shdr>(image, header.e_shoff + i * header.e_shentsize));
  }
  return sections;
}

enum class Symbols { Exported, Imported };

// Names without the absolute ones, which stand for versions.
inline std::set<std::string> dynamicSymbols(const std::vector<char>& image, Symbols kind) {
  const std::vector<Elf64_Shdr> sections = sectionHeaders(image);
  std::set<std::string> names;
  for (const Elf64_Shdr& section : sections) {
    if (section.sh_type != SHT_DYNSYM) {
      continue;
    }
    const Elf64_Shdr& strings = sections.at(section.sh_link);
    for (size_t at = 0; at < section.sh_size; at += sizeof(Elf64_Sym)) {
      const auto symbol = recordAt<Elf64_Sym>(image, section.sh_offset + at);
      const bool imported = symbol.st_shndx == SHN_UNDEF;
      if (imported != (kind == Symbols::Imported) || symbol.st_name == 0 ||
          symbol.st_shndx == SHN_ABS) {
        continue;
      }
      names.insert(image.data() + strings.sh_offset + symbol.st_name);
    }
  }
  return names;
}

// Texts of the dynamic section: DT_NEEDED the libraries that it loads, DT_SONAME its own name.
inline std::set<std::string> dynamicTexts(const std::vector<char>& image, Elf64_Sxword tag) {
  const std::vector<Elf64_Shdr> sections = sectionHeaders(image);
  std::set<std::string> texts;
  for (const Elf64_Shdr& section : sections) {
    if (section.sh_type != SHT_DYNAMIC) {
      continue;
    }
    const Elf64_Shdr& strings = sections.at(section.sh_link);
    for (size_t at = 0; at < section.sh_size; at += sizeof(Elf64_Dyn)) {
      const auto entry = recordAt<Elf64_Dyn>(image, section.sh_offset + at);
      if (entry.d_tag == tag) {
        texts.insert(image.data() + strings.sh_offset + entry.d_un.d_val);
      }
    }
  }
  return texts;
}

}  // namespace kel::test
