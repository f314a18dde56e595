// Makes malformed containers out of well-formed ones: an image of a container file whose header,
// section table and sections can be rewritten, and a packer for section contents.
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "container/zym2_format.h"
#include "tests/support/temp_dir.h"

namespace kel::test {

// The checksum bit by bit, from its definition; shares nothing with the code under test.
inline uint64_t bitwiseCrc64(const Bytes& bytes) {
  uint64_t crc = 0;
  for (const uint8_t byte : bytes) {
    for (int bit = 0; bit < 8; ++bit) {
      const bool out = ((crc ^ (uint64_t{byte} >> bit)) & 1) != 0;
      crc = (crc >> 1) ^ (out ? 0x42F0E1EBA9EA3693 : 0);
    }
  }
  return crc;
}

// Little-endian bytes, back to back: Packer().u16(1).text("a").u8(0).bytes.
struct Packer {
  Bytes bytes;

  template <typename T>
  Packer& scalar(T value) {
    uint8_t raw[sizeof(T)];
    std::memcpy(raw, &value, sizeof(T));
    bytes.insert(bytes.end(), raw, raw + sizeof(T));
    return *this;
  }
  Packer& u8(uint8_t value) { return scalar(value); }
  Packer& u16(uint16_t value) { return scalar(value); }
  Packer& u32(uint32_t value) { return scalar(value); }
  Packer& i32(int32_t value) { return scalar(value); }
  Packer& u64(uint64_t value) { return scalar(value); }
  Packer& f32(float value) { return scalar(value); }
  Packer& text(std::string_view value) {
    bytes.insert(bytes.end(), value.begin(), value.end());
    return *this;
  }
  // A length of four bytes, then the characters.
  Packer& string32(std::string_view value) {
    return u32(static_cast<uint32_t>(value.size())).text(value);
  }
};

// Offsets of header fields.
constexpr size_t kMagicAt = 0;
constexpr size_t kVersionAt = 4;
constexpr size_t kEndianAt = 8;
constexpr size_t kSectionCountAt = 12;
constexpr size_t kWordAAt = 16;
constexpr size_t kWordBAt = 24;
constexpr size_t kWordCAt = 32;
constexpr size_t kTensorCountAt = 40;
constexpr size_t kCrcAt = 56;
constexpr size_t kTableAt = 64;
constexpr size_t kTableEntryBytes = 24;

// A section type that no reader knows.
constexpr uint32_t kForeignType = 99;

class ContainerImage {
 public:
  explicit ContainerImage(Bytes content) : bytes(std::move(content)) {}

  Bytes bytes;

  template <typename T>
  ContainerImage& set(size_t at, T value) {
    if (at + sizeof(T) > bytes.size()) {
      throw std::out_of_range("patch past the end");
    }
    std::memcpy(bytes.data() + at, &value, sizeof(T));
    return *this;
  }
  template <typename T>
  T get(size_t at) const {
    T value{};
    if (at + sizeof(T) > bytes.size()) {
      throw std::out_of_range("patch past the end");
    }
    std::memcpy(&value, bytes.data() + at, sizeof(T));
    return value;
  }

  uint32_t sectionCount() const { return get<uint32_t>(kSectionCountAt); }

  // File offset of the table entry of the first section of a type.
  size_t entryAt(zym2::SectionType type) const {
    for (size_t i = 0; i < sectionCount(); ++i) {
      const size_t at = kTableAt + i * kTableEntryBytes;
      if (get<uint32_t>(at) == static_cast<uint32_t>(type)) {
        return at;
      }
    }
    throw std::out_of_range("no such section");
  }
  uint64_t offsetOf(zym2::SectionType type) const { return get<uint64_t>(entryAt(type) + 8); }
  uint64_t sizeOf(zym2::SectionType type) const { return get<uint64_t>(entryAt(type) + 16); }
  ContainerImage& setOffset(zym2::SectionType type, uint64_t offset) {
    return set<uint64_t>(entryAt(type) + 8, offset);
  }
  ContainerImage& setSize(zym2::SectionType type, uint64_t size) {
    return set<uint64_t>(entryAt(type) + 16, size);
  }
  // Takes a section out of sight by giving it a type that no reader knows.
  ContainerImage& hide(zym2::SectionType type) {
    return set<uint32_t>(entryAt(type), kForeignType);
  }

  // Gives a section other contents, which go to the end of the file.
  ContainerImage& replace(zym2::SectionType type, const Bytes& content) {
    bytes.resize((bytes.size() + 63) / 64 * 64);
    setOffset(type, bytes.size());
    setSize(type, content.size());
    bytes.insert(bytes.end(), content.begin(), content.end());
    return *this;
  }

  ContainerImage& fixCrc() {
    const auto start = bytes.begin();
    Bytes covered(start, start + kCrcAt);
    covered.insert(covered.end(), start + kTableAt,
                   start + kTableAt + static_cast<ptrdiff_t>(sectionCount() * kTableEntryBytes));
    return set<uint64_t>(kCrcAt, bitwiseCrc64(covered));
  }
};

}  // namespace kel::test
