// Opens one ZYM2 container: maps it read-only, checks header, section table and checksum, parses
// the metadata, and answers lookups. Tensor data is used where it lies in the mapping.
//
// One thread opens and closes; while a reader is open, its const operations may run on any number
// of threads. Every pointer it hands out is valid until close, the next open, or destruction. The
// file must not shrink while it is mapped (the system raises SIGBUS on a page past the end).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "container/status.h"
#include "container/tokenizer_data.h"
#include "container/zym2_format.h"

namespace kel {

class ZYM2Reader {
 public:
  // Copy of one metadata entry; only the field that matches the type is filled.
  struct MetaEntryView {
    std::string key;
    zym2::MetaType type = zym2::MetaType::U32;
    uint32_t u32 = 0;
    int32_t i32 = 0;
    float f32 = 0;
    uint64_t u64 = 0;
    std::string str;
    std::vector<uint32_t> array;
  };

  // One tensor as stored; all zero when there is no such tensor or its rank is above 4.
  struct TensorEntryView {
    const uint8_t* data = nullptr;  // not checked against the weight section
    uint64_t byteSize = 0;
    uint16_t type = 0;  // as stored, not clamped
    uint16_t rank = 0;
    uint64_t dims[zym2::kMaxRank] = {0, 0, 0, 0};
    uint64_t quantInfo = 0;  // first 8 bytes of the quant info record
  };

  ZYM2Reader() = default;
  ~ZYM2Reader();
  ZYM2Reader(const ZYM2Reader&) = delete;
  ZYM2Reader& operator=(const ZYM2Reader&) = delete;

  // Closes what is open, then opens and validates the file. A failure leaves the reader closed.
  Status open(const char* path);
  // Safe to call any number of times.
  void close();
  bool isOpen() const { return opened; }

  const zym2::Header& header() const { return headerCopy; }
  uint64_t fileSize() const { return mappedBytes; }

  // First entry of the type in table order; null when absent or closed.
  const zym2::SectionEntry* section(zym2::SectionType type) const;
  // All entries in table order, header().sectionCount of them; null when closed.
  const zym2::SectionEntry* sectionTable() const { return table; }
  const uint8_t* sectionData(zym2::SectionType type) const;  // null when absent
  uint64_t sectionSize(zym2::SectionType type) const;        // 0 when absent
  // True when open and every section offset is a multiple of 64.
  bool aligned64() const;

  // Metadata by key and exact type: the first such entry in file order. False, with the output
  // untouched, when there is none. No conversion between types.
  bool getMetaU32(const char* key, uint32_t& out) const;
  bool getMetaI32(const char* key, int32_t& out) const;
  bool getMetaF32(const char* key, float& out) const;
  bool getMetaU64(const char* key, uint64_t& out) const;
  bool getMetaStr(const char* key, std::string& out) const;
  bool getMetaU32Array(const char* key, const uint32_t*& data, size_t& count) const;
  // Entry by position in file order; false, with out untouched, past the end.
  bool metaAt(size_t index, MetaEntryView& out) const;

  // The index entry (128 bytes) of the first tensor whose name equals the first 64 bytes of name;
  // null when there is none, name is null, or the reader is closed. Binary search.
  const uint8_t* findTensor(const char* name) const;
  // The index entry at a position, in the mapping; null when the reader is closed or index is past
  // the end. Nothing of it is checked or clamped.
  const zym2::TensorEntry* tensorEntry(size_t index) const;
  // The same two lookups as views.
  TensorEntryView tensorView(size_t index) const;
  TensorEntryView tensorView(const char* name) const;

  // Records copied from the quant info section, at least one per tensor or none at all.
  const std::vector<zym2::QuantRecord>& quantRecords() const { return quantInfo; }

  // Parses the tokenizer section. False when it is absent or malformed; out, which is to be
  // discarded, then holds what was read before the fault, a list in progress in its new length.
  bool readTokenizer(TokenizerData& out) const;

 private:
  Status mapFile(const char* path);
  Status validateHeader();
  Status validateSections() const;
  Status parseMeta();
  Status parseQuantInfo();
  const MetaEntryView* findMeta(const char* key, zym2::MetaType type) const;

  zym2::Header headerCopy{};
  const zym2::SectionEntry* table = nullptr;
  const uint8_t* base = nullptr;
  uint64_t mappedBytes = 0;
  int32_t fd = -1;
  std::vector<MetaEntryView> meta;  // in file order
  std::vector<zym2::QuantRecord> quantInfo;
  bool opened = false;
};

}  // namespace kel
