// The metadata section: a u32 entry count, then the entries packed back to back, each a u16 key
// length, the key, a type byte and the value.
#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "container/byte_cursor.h"
#include "container/zym2_reader.h"

namespace kel {

using zym2::MetaType;

namespace {

using Entry = ZYM2Reader::MetaEntryView;

// Key length, type byte and the shortest value: no entry takes fewer bytes.
constexpr uint64_t kMinEntryBytes = 2 + 1 + 4;

bool readString(ByteCursor& in, uint64_t length, std::string& out) {
  const uint8_t* bytes = nullptr;
  if (!in.take(length, bytes)) {
    return false;
  }
  out.assign(reinterpret_cast<const char*>(bytes), length);
  return true;
}

bool readKey(ByteCursor& in, std::string& out) {
  uint16_t length = 0;
  return in.read(length) && readString(in, length, out);
}

bool readStr(ByteCursor& in, std::string& out) {
  uint32_t length = 0;
  return in.read(length) && readString(in, length, out);
}

bool readArray(ByteCursor& in, std::vector<uint32_t>& out) {
  uint32_t count = 0;
  const uint8_t* bytes = nullptr;
  if (!in.read(count) || !in.take(sizeof(uint32_t) * uint64_t{count}, bytes)) {
    return false;
  }
  out.resize(count);
  if (count != 0) {
    std::memcpy(out.data(), bytes, sizeof(uint32_t) * size_t{count});
  }
  return true;
}

// The value of entry.type; null on success, else the message of the fault.
const char* readValue(ByteCursor& in, Entry& entry) {
  switch (entry.type) {
    case MetaType::U32:
      return in.read(entry.u32) ? nullptr : "ZYM2: bad meta u32";
    case MetaType::I32:
      return in.read(entry.i32) ? nullptr : "ZYM2: bad meta i32";
    case MetaType::F32:
      return in.read(entry.f32) ? nullptr : "ZYM2: bad meta f32";
    case MetaType::U64:
      return in.read(entry.u64) ? nullptr : "ZYM2: bad meta u64";
    case MetaType::Str:
      return readStr(in, entry.str) ? nullptr : "ZYM2: bad meta str";
    case MetaType::U32Array:
      return readArray(in, entry.array) ? nullptr : "ZYM2: bad meta array";
  }
  return "ZYM2: unknown meta type";
}

const char* readEntry(ByteCursor& in, Entry& entry) {
  if (!readKey(in, entry.key)) {
    return "ZYM2: bad meta key";
  }
  uint8_t type = 0;
  if (!in.read(type)) {
    return "ZYM2: bad meta type";
  }
  entry.type = static_cast<MetaType>(type);
  return readValue(in, entry);
}

}  // namespace

Status ZYM2Reader::parseMeta() {
  ByteCursor in(sectionData(zym2::SectionType::Meta), sectionSize(zym2::SectionType::Meta));
  uint32_t count = 0;
  if (!in.read(count)) {
    return Status::invalid("ZYM2: missing meta section");
  }
  // Room for every entry at once, but never for more than the section can hold: a wild count in a
  // small file must not claim memory.
  meta.reserve(std::min<uint64_t>(count, in.remaining() / kMinEntryBytes));
  for (uint32_t i = 0; i < count; ++i) {
    MetaEntryView entry;
    const char* fault = readEntry(in, entry);
    if (fault != nullptr) {
      return Status::invalid(fault);
    }
    meta.push_back(std::move(entry));
  }
  return Status::success();
}

const ZYM2Reader::MetaEntryView* ZYM2Reader::findMeta(const char* key, MetaType type) const {
  if (key == nullptr) {
    return nullptr;
  }
  const std::string_view wanted(key);
  for (const MetaEntryView& entry : meta) {
    if (entry.type == type && entry.key == wanted) {
      return &entry;
    }
  }
  return nullptr;
}

bool ZYM2Reader::getMetaU32(const char* key, uint32_t& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::U32);
  if (entry == nullptr) {
    return false;
  }
  out = entry->u32;
  return true;
}

bool ZYM2Reader::getMetaI32(const char* key, int32_t& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::I32);
  if (entry == nullptr) {
    return false;
  }
  out = entry->i32;
  return true;
}

bool ZYM2Reader::getMetaF32(const char* key, float& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::F32);
  if (entry == nullptr) {
    return false;
  }
  out = entry->f32;
  return true;
}

bool ZYM2Reader::getMetaU64(const char* key, uint64_t& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::U64);
  if (entry == nullptr) {
    return false;
  }
  out = entry->u64;
  return true;
}

bool ZYM2Reader::getMetaStr(const char* key, std::string& out) const {
  const MetaEntryView* entry = findMeta(key, MetaType::Str);
  if (entry == nullptr) {
    return false;
  }
  out = entry->str;
  return true;
}

bool ZYM2Reader::getMetaU32Array(const char* key, const uint32_t*& data, size_t& count) const {
  const MetaEntryView* entry = findMeta(key, MetaType::U32Array);
  if (entry == nullptr) {
    return false;
  }
  data = entry->array.data();
  count = entry->array.size();
  return true;
}

bool ZYM2Reader::metaAt(size_t index, MetaEntryView& out) const {
  if (index >= meta.size()) {
    return false;
  }
  out = meta[index];
  return true;
}

}  // namespace kel
