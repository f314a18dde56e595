// The ZYM2 container: fixed numbers and records of the file format, and its checksum.
// Offsets and rules by the byte: docs/container.md. Reader: zym2_reader.h. Writer: zym2_writer.h.
// The three change together.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kel::zym2 {

// Fields are copied between file and memory as they are.
static_assert(std::endian::native == std::endian::little, "the container is little-endian");

constexpr uint32_t kMagic = 0x324D595A;  // "ZYM2"
constexpr uint32_t kVersion = 2;
constexpr uint32_t kEndianMarker = 0x01020304;
constexpr size_t kHeaderBytes = 64;
constexpr size_t kCrcOffset = 56;  // the checksum covers the header up to here, then the table
constexpr uint32_t kMaxSections = 16;
constexpr size_t kAlignment = 64;  // of section offsets
constexpr size_t kTensorEntryBytes = 128;
constexpr size_t kTensorNameBytes = 64;
constexpr size_t kQuantRecordBytes = 32;
constexpr uint32_t kMaxRank = 4;
constexpr uint32_t kTokenizerMagic = 0x5A4E4B54;    // "TKNZ"
constexpr uint32_t kMaxTokenizerCount = 0x4000000;  // entries of one tokenizer list

enum class SectionType : uint32_t {
  Meta = 1,
  Tokenizer = 2,
  Text = 3,
  TensorIndex = 4,
  WeightData = 5,
  QuantInfo = 6,
};

// Value types of the metadata section; one byte on disk.
enum class MetaType : uint8_t { U32 = 0, I32 = 1, F32 = 2, U64 = 3, Str = 4, U32Array = 5 };

// The fixed header, byte for byte at file offset 0.
struct Header {
  uint32_t magic;
  uint32_t version;
  uint32_t endianMarker;
  uint32_t sectionCount;
  uint32_t wordA;  // words A, B and C are free for writers; the loader keeps copies
  uint32_t reserved0;
  uint64_t wordB;
  uint64_t wordC;
  uint32_t tensorCount;
  uint8_t reserved1[12];
  uint64_t crc;
};
static_assert(sizeof(Header) == kHeaderBytes);

// One entry of the section table that follows the header.
struct SectionEntry {
  uint32_t type;  // a SectionType; other values are allowed and ignored
  uint32_t reserved;
  uint64_t offset;  // absolute, multiple of 64
  uint64_t size;    // bytes
};
static_assert(sizeof(SectionEntry) == 24);

// One entry of the tensor index; entries are sorted by name.
struct TensorEntry {
  char name[kTensorNameBytes];  // zero-padded; a 64-byte name has no terminator
  uint16_t nameLength;          // values above 64 count as 64
  uint16_t type;                // a kel::QuantType
  uint16_t rank;                // 0 to 4
  uint16_t reserved0;
  uint64_t dims[kMaxRank];  // dims[0] innermost, unused ones 0
  uint64_t offset;          // from the start of the WeightData section
  uint64_t byteSize;
  uint64_t reserved1;

  // As long as nameLength says, zero bytes included. Valid as long as the entry.
  std::string_view nameText() const {
    return {name, nameLength < kTensorNameBytes ? nameLength : kTensorNameBytes};
  }
};
static_assert(sizeof(TensorEntry) == kTensorEntryBytes);

// One record of the quant info section; record i belongs to index entry i.
struct QuantRecord {
  uint16_t type;  // not used
  uint16_t word0;
  uint32_t words[4];  // words 1 to 4; carried, not interpreted
  uint8_t reserved[12];
};
static_assert(sizeof(QuantRecord) == kQuantRecordBytes);

// Checksum of header and section table: 256-entry table, least significant bit first, start 0, no
// final inversion. The table is built from 0x42F0E1EBA9EA3693 shifted right, a mix that no standard
// CRC-64 uses; files in use carry this checksum, so it stays. Any thread.
uint64_t crc64(const uint8_t* data, size_t length);

}  // namespace kel::zym2
