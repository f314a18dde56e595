#include "host/inspect/damage_check.h"

#include <fmt/core.h>

#include <algorithm>
#include <optional>

#include "container/checksum.h"
#include "host/inspect/checksums.h"
#include "host/inspect/container_report.h"

namespace zym {
namespace {

using kel::zym2::MetaType;
using kel::zym2::SectionEntry;
using kel::zym2::SectionType;
using MetaEntry = kel::ZYM2Reader::MetaEntryView;

constexpr const char* kDamaged = "differs from its checksum: the file is damaged";

std::string sectionText(SectionType section) {
  return std::string("section ") + sectionName(static_cast<uint32_t>(section));
}

// Where the file lies in memory; the table stands behind the header.
const uint8_t* fileStart(const kel::ZYM2Reader& reader) {
  return reinterpret_cast<const uint8_t*>(reader.sectionTable()) - kel::zym2::kHeaderBytes;
}

std::vector<SectionEntry> sectionsByOffset(const kel::ZYM2Reader& reader) {
  const SectionEntry* table = reader.sectionTable();
  std::vector<SectionEntry> sections(table, table + reader.header().sectionCount);
  std::sort(sections.begin(), sections.end(),
            [](const SectionEntry& a, const SectionEntry& b) { return a.offset < b.offset; });
  return sections;
}

void checkZeros(const uint8_t* file, uint64_t begin, uint64_t end, std::vector<Fault>& faults) {
  const uint8_t* found =
      std::find_if(file + begin, file + end, [](uint8_t byte) { return byte != 0; });
  if (found != file + end) {
    faults.push_back({"file", fmt::format("byte {}, outside of all sections, is not zero: the file "
                                          "is damaged",
                                          found - file)});
  }
}

// Bytes of the metadata section that its entries take.
uint64_t metaBytes(const kel::ZYM2Reader& reader) {
  constexpr uint64_t kWord = sizeof(uint32_t);
  uint64_t nBytes = kWord;
  MetaEntry entry;
  for (size_t i = 0; reader.metaAt(i, entry); ++i) {
    nBytes += sizeof(uint16_t) + entry.key.size() + 1;
    switch (entry.type) {
      case MetaType::U32:
      case MetaType::I32:
      case MetaType::F32:
        nBytes += kWord;
        break;
      case MetaType::U64:
        nBytes += sizeof(uint64_t);
        break;
      case MetaType::Str:
        nBytes += kWord + entry.str.size();
        break;
      case MetaType::U32Array:
        nBytes += kWord + entry.array.size() * kWord;
        break;
    }
  }
  return nBytes;
}

// A checksum that the file stores, with the bytes it is of.
struct StoredChecksum {
  SectionType section;
  const uint8_t* data;
  uint64_t nBytes;
  std::string text;
};

std::vector<StoredChecksum> storedChecksums(const kel::ZYM2Reader& reader) {
  std::vector<StoredChecksum> stored;
  for (const kel::SectionChecksum& checksum : kel::kSectionChecksums) {
    std::string text;
    if (reader.getMetaStr(checksum.key, text)) {
      stored.push_back({checksum.section, reader.sectionData(checksum.section),
                        reader.sectionSize(checksum.section), text});
    }
  }
  std::string text;
  const uint64_t metaSize = reader.sectionSize(SectionType::Meta);
  if (reader.getMetaStr(kel::kMetadataChecksumKey, text) && metaSize >= kel::kChecksumDigits) {
    stored.push_back({SectionType::Meta, reader.sectionData(SectionType::Meta),
                      metaSize - kel::kChecksumDigits, text});
  }
  return stored;
}

std::optional<MetaEntry> lastEntry(const kel::ZYM2Reader& reader) {
  std::optional<MetaEntry> last;
  MetaEntry entry;
  for (size_t i = 0; reader.metaAt(i, entry); ++i) {
    last = entry;
  }
  return last;
}

bool hasChecksums(const kel::ZYM2Reader& reader) {
  MetaEntry entry;
  for (size_t i = 0; reader.metaAt(i, entry); ++i) {
    if (entry.key.starts_with(kel::kChecksumKeyPrefix)) {
      return true;
    }
  }
  return false;
}

// Where sections have checksums, the last entry is one: the metadata's own or, in older files, that
// of another section. Another key there has been damaged.
bool endsWithChecksum(const kel::ZYM2Reader& reader) {
  const std::optional<MetaEntry> last = lastEntry(reader);
  if (!last || last->type != MetaType::Str) {
    return false;
  }
  return last->key == kel::kMetadataChecksumKey ||
         std::any_of(
             kel::kSectionChecksums.begin(), kel::kSectionChecksums.end(),
             [&](const kel::SectionChecksum& checksum) { return last->key == checksum.key; });
}

}  // namespace

void checkUnusedBytes(const kel::ZYM2Reader& reader, std::vector<Fault>& faults) {
  const uint8_t* file = fileStart(reader);
  uint64_t end = kel::zym2::kHeaderBytes + reader.header().sectionCount * sizeof(SectionEntry);
  for (const SectionEntry& section : sectionsByOffset(reader)) {
    if (section.offset > end) {
      checkZeros(file, end, section.offset, faults);
    }
    end = std::max(end, section.offset + section.size);
  }
  if (end < reader.fileSize()) {
    faults.push_back({"file", fmt::format("has {} bytes behind its last section, which ends at {}",
                                          reader.fileSize() - end, end)});
  }
  const uint64_t used = metaBytes(reader);
  const uint64_t metaSize = reader.sectionSize(SectionType::Meta);
  if (used < metaSize) {
    faults.push_back(
        {sectionText(SectionType::Meta),
         fmt::format("has {} bytes behind its last entry: the file is damaged", metaSize - used)});
  }
}

uint64_t bytesUnderChecksums(const kel::ZYM2Reader& reader) {
  uint64_t nBytes = 0;
  for (const StoredChecksum& checksum : storedChecksums(reader)) {
    nBytes += checksum.nBytes;
  }
  return nBytes;
}

void checkChecksums(const kel::ZYM2Reader& reader, Reading& reading, std::vector<Fault>& faults) {
  if (hasChecksums(reader) && !endsWithChecksum(reader)) {
    faults.push_back(
        {sectionText(SectionType::Meta), "does not end with its checksum: the file is damaged"});
  }
  for (const StoredChecksum& checksum : storedChecksums(reader)) {
    const std::string text = checksumText(checksum.data, checksum.nBytes,
                                          [&](uint64_t nBytes) { return reading.advance(nBytes); });
    if (reading.isEnded()) {
      return;
    }
    if (text != checksum.text) {
      faults.push_back({sectionText(checksum.section), kDamaged});
    }
  }
}

std::vector<std::string> sectionsWithoutChecksum(const kel::ZYM2Reader& reader) {
  const std::vector<StoredChecksum> stored = storedChecksums(reader);
  std::vector<std::string> names;
  for (uint32_t i = 0; i < reader.header().sectionCount; ++i) {
    const SectionEntry& entry = reader.sectionTable()[i];
    const auto type = static_cast<SectionType>(entry.type);
    // Of two sections of one type the first has the checksum.
    const bool isCovered =
        reader.section(type) == &entry &&
        std::any_of(stored.begin(), stored.end(),
                    [&](const StoredChecksum& checksum) { return checksum.section == type; });
    if (entry.size > 0 && !isCovered) {
      names.emplace_back(sectionName(entry.type));
    }
  }
  return names;
}

}  // namespace zym
