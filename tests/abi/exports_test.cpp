// Reads the plugin's dynamic symbol table from the ELF file: what a host can resolve is exactly the
// four entry points, and what the plugin resolves holds no inexact function of single precision.
#include <elf.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "tests/support/instrumented.h"

namespace {

std::vector<char> readLibrary() {
  std::ifstream file(ZYM_PLUGIN_PATH, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
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

std::vector<Elf64_Shdr> sectionHeaders(const std::vector<char>& image) {
  const auto header = recordAt<Elf64_Ehdr>(image, 0);
  std::vector<Elf64_Shdr> sections;
  for (size_t i = 0; i < header.e_shnum; ++i) {
    sections.push_back(recordAt<Elf64_Shdr>(image, header.e_shoff + i * header.e_shentsize));
  }
  return sections;
}

enum class Symbols { Exported, Imported };

std::set<std::string> dynamicSymbols(const std::vector<char>& image, Symbols kind) {
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
      if (imported != (kind == Symbols::Imported) || symbol.st_name == 0) {
        continue;
      }
      names.insert(image.data() + strings.sh_offset + symbol.st_name);
    }
  }
  return names;
}

std::set<std::string> neededLibraries(const std::vector<char>& image) {
  const std::vector<Elf64_Shdr> sections = sectionHeaders(image);
  std::set<std::string> names;
  for (const Elf64_Shdr& section : sections) {
    if (section.sh_type != SHT_DYNAMIC) {
      continue;
    }
    const Elf64_Shdr& strings = sections.at(section.sh_link);
    for (size_t at = 0; at < section.sh_size; at += sizeof(Elf64_Dyn)) {
      const auto entry = recordAt<Elf64_Dyn>(image, section.sh_offset + at);
      if (entry.d_tag != DT_NEEDED) {
        continue;
      }
      names.insert(image.data() + strings.sh_offset + entry.d_un.d_val);
    }
  }
  return names;
}

TEST(Exports, AreExactlyTheFourEntryPoints) {
  const std::set<std::string> expected = {"zym_plugin_init", "zym_plugin_runtimes",
                                          "zym_plugin_runtimes_v2", "zym_plugin_runtimes_v2s"};
  EXPECT_EQ(expected, dynamicSymbols(readLibrary(), Symbols::Exported));
}

// In single precision a difference in the last bit of such a function is one in a result.
TEST(Dependencies, HaveNoInexactFunctionsOfSinglePrecision) {
  if (kel::test::kInstrumented) {
    GTEST_SKIP() << "an instrumented build brings the functions of its own runtime";
  }
  const std::set<std::string> imported = dynamicSymbols(readLibrary(), Symbols::Imported);
  EXPECT_TRUE(imported.contains("exp")) << "the sampler's, in double precision";
  for (const char* name : {"exp", "exp2", "exp10", "expm1", "log", "log2", "log10", "log1p", "pow",
                           "sin", "cos", "sincos", "tan", "sinh", "cosh", "tanh", "cbrt", "erf"}) {
    EXPECT_FALSE(imported.contains(std::string(name) + "f")) << name;
  }
}

TEST(Dependencies, AreTheLanguageRuntimesAlone) {
  if (kel::test::kInstrumented) {
    GTEST_SKIP() << "an instrumented build needs its own runtime";
  }
  const std::set<std::string> allowed = {"libstdc++.so.6",
                                         "libm.so.6",
                                         "libgomp.so.1",
                                         "libgcc_s.so.1",
                                         "libc.so.6",
                                         "libomp.so.5",
                                         "libpthread.so.0",
                                         "ld-linux-x86-64.so.2",
                                         "ld-linux-aarch64.so.1"};
  for (const std::string& library : neededLibraries(readLibrary())) {
    EXPECT_TRUE(allowed.contains(library)) << library;
  }
}

}  // namespace
