#include "container/zym2_writer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kel {

using zym2::MetaType;
using zym2::SectionType;
using zym2::TensorEntry;

namespace {

// Every section type once.
constexpr size_t kTableEntries = 6;
constexpr size_t kHeadBytes = zym2::kHeaderBytes + kTableEntries * sizeof(zym2::SectionEntry);

constexpr bool fitsU32(size_t length) {
  return length <= UINT32_MAX;
}

template <typename T>
void appendScalar(std::string& bytes, T value) {
  char raw[sizeof(T)];
  std::memcpy(raw, &value, sizeof(T));
  bytes.append(raw, sizeof(T));
}

bool listsFit(const TokenizerData& tables) {
  const size_t longest = std::max({tables.tokens.size(), tables.auxValues.size(),
                                   tables.tokenTypes.size(), tables.merges.size()});
  return longest <= zym2::kMaxTokenizerCount;
}

bool stringsFit(const TokenizerData& tables) {
  const auto fits = [](const std::string& text) { return fitsU32(text.size()); };
  return fits(tables.label) && std::all_of(tables.tokens.begin(), tables.tokens.end(), fits) &&
         std::all_of(tables.merges.begin(), tables.merges.end(), fits);
}

}  // namespace

ZYM2Writer::~ZYM2Writer() = default;

Status ZYM2Writer::create(const std::string& path, ExistingFile existing) {
  if (!failure.ok()) {
    return failure;
  }
  if (out.isOpen()) {
    return fail("create called while a file is being written");
  }
  // The head is written last; until then its place is all zero, which no reader accepts.
  const char head[kHeadBytes] = {};
  Status status = out.create(path, existing);
  if (status.ok()) {
    status = out.append(head, sizeof(head));
  }
  if (status.ok()) {
    status = out.alignTo(zym2::kAlignment);
  }
  weightsOffset = out.size();
  return check(std::move(status));
}

bool ZYM2Writer::beginMeta(std::string_view key, MetaType type, size_t valueLength) {
  if (!failure.ok()) {
    return false;
  }
  Status status = Status::success();
  if (key.size() > UINT16_MAX) {
    status = fail("metadata key over 65535 bytes");
  }
  if (!fitsU32(valueLength)) {
    status = fail("metadata value too long");
  }
  if (!status.ok()) {
    return false;  // remembered: the next call that answers a status reports it
  }
  appendScalar(meta, static_cast<uint16_t>(key.size()));
  meta.append(key);
  meta.push_back(static_cast<char>(type));
  ++metaCount;
  return true;
}

void ZYM2Writer::addMetaU32(std::string_view key, uint32_t value) {
  if (beginMeta(key, MetaType::U32, 0)) {
    appendScalar(meta, value);
  }
}

void ZYM2Writer::addMetaI32(std::string_view key, int32_t value) {
  if (beginMeta(key, MetaType::I32, 0)) {
    appendScalar(meta, value);
  }
}

void ZYM2Writer::addMetaF32(std::string_view key, float value) {
  if (beginMeta(key, MetaType::F32, 0)) {
    appendScalar(meta, value);
  }
}

void ZYM2Writer::addMetaU64(std::string_view key, uint64_t value) {
  if (beginMeta(key, MetaType::U64, 0)) {
    appendScalar(meta, value);
  }
}

void ZYM2Writer::addMetaStr(std::string_view key, std::string_view value) {
  if (!beginMeta(key, MetaType::Str, value.size())) {
    return;
  }
  appendScalar(meta, static_cast<uint32_t>(value.size()));
  meta.append(value);
}

void ZYM2Writer::addMetaU32Array(std::string_view key, const std::vector<uint32_t>& values) {
  if (!beginMeta(key, MetaType::U32Array, values.size())) {
    return;
  }
  appendScalar(meta, static_cast<uint32_t>(values.size()));
  meta.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(uint32_t));
}

void ZYM2Writer::setTokenizer(TokenizerData tables) {
  tokenizer = std::move(tables);
}

void ZYM2Writer::setText(std::string bytes) {
  text = std::move(bytes);
}

void ZYM2Writer::setHeaderWords(uint32_t wordA, uint64_t wordB, uint64_t wordC) {
  header.wordA = wordA;
  header.wordB = wordB;
  header.wordC = wordC;
}

void ZYM2Writer::setQuantInfo(bool present) {
  quantInfo = present;
}

void ZYM2Writer::storeChecksums() {
  if (!failure.ok() || weightSum) {
    return;
  }
  if (!tensors.empty()) {
    // Remembered: the next call that answers a status reports it.
    static_cast<void>(fail("checksums asked for after the first tensor"));
    return;
  }
  weightSum.emplace();
}

Status ZYM2Writer::addTensor(std::string_view name, QuantType type,
                             const std::vector<uint64_t>& dims, const void* data,
                             uint64_t byteSize) {
  Status status = beginTensor(name, type, dims);
  if (status.ok()) {
    status = writeTensorData(data, byteSize);
  }
  if (status.ok()) {
    status = endTensor();
  }
  return status;
}

Status ZYM2Writer::beginTensor(std::string_view name, QuantType type,
                               const std::vector<uint64_t>& dims) {
  if (!failure.ok()) {
    return failure;
  }
  if (!out.isOpen()) {
    return fail("no file is being written");
  }
  if (inTensor) {
    return fail("the previous tensor is not ended");
  }
  if (name.empty()) {
    return fail("empty tensor name");
  }
  if (name.size() > zym2::kTensorNameBytes) {
    return fail("tensor name over 64 bytes: " + std::string(name));
  }
  // The index order stops at a zero byte, so such a name could not be told from its start.
  if (name.find('\0') != std::string_view::npos) {
    return fail("tensor name holds a zero byte");
  }
  if (dims.size() > zym2::kMaxRank) {
    return fail("tensor rank above 4: " + std::string(name));
  }
  if (!names.insert(std::string(name)).second) {
    return fail("duplicate tensor name: " + std::string(name));
  }
  Status status = alignTensor();
  TensorEntry entry{};
  std::copy(name.begin(), name.end(), entry.name);
  entry.nameLength = static_cast<uint16_t>(name.size());
  entry.type = static_cast<uint16_t>(type);
  entry.rank = static_cast<uint16_t>(dims.size());
  std::copy(dims.begin(), dims.end(), entry.dims);
  entry.offset = out.size() - weightsOffset;
  tensors.push_back(entry);
  inTensor = true;
  return check(std::move(status));
}

// The zeros in front of a tensor are part of the section.
Status ZYM2Writer::alignTensor() {
  constexpr uint8_t kZeros[zym2::kAlignment] = {};
  const uint64_t before = out.size();
  Status status = out.alignTo(zym2::kAlignment);
  if (weightSum) {
    weightSum->update(kZeros, out.size() - before);
  }
  return status;
}

Status ZYM2Writer::writeTensorData(const void* data, size_t nBytes) {
  if (!failure.ok()) {
    return failure;
  }
  if (!inTensor) {
    return fail("tensor data outside a tensor");
  }
  tensors.back().byteSize += nBytes;
  if (weightSum) {
    weightSum->update(data, nBytes);
  }
  return check(out.append(data, nBytes));
}

Status ZYM2Writer::endTensor() {
  if (!failure.ok()) {
    return failure;
  }
  if (!inTensor) {
    return fail("end of a tensor outside a tensor");
  }
  inTensor = false;
  return Status::success();
}

Status ZYM2Writer::finish() {
  if (!failure.ok()) {
    return failure;
  }
  if (!out.isOpen()) {
    return fail("no file is being written");
  }
  if (inTensor) {
    return fail("the last tensor is not ended");
  }
  addSection(SectionType::WeightData, weightsOffset);
  if (weightSum) {
    checksums.emplace_back(SectionType::WeightData, weightSum->hex());
  }
  Status status = writeSections();
  if (status.ok()) {
    status = writeHead();
  }
  if (status.ok()) {
    status = out.commit();
  }
  if (!status.ok()) {
    return check(std::move(status));
  }
  abandon();
  return Status::success();
}

Status ZYM2Writer::writeSections() {
  Status status = Status::success();
  if (tokenizer) {
    status = writeTokenizer();
  }
  if (status.ok() && text) {
    status = writeSection(SectionType::Text, *text);
  }
  if (status.ok()) {
    status = writeIndex();
  }
  if (status.ok() && quantInfo) {
    const std::vector<zym2::QuantRecord> records(tensors.size());
    status = writeSection(SectionType::QuantInfo, {reinterpret_cast<const char*>(records.data()),
                                                   records.size() * sizeof(zym2::QuantRecord)});
  }
  if (!status.ok()) {
    return status;
  }
  return writeMeta();
}

Status ZYM2Writer::writeMeta() {
  if (weightSum) {
    addChecksums();
    // The digits follow once what stands before them is complete.
    if (beginMeta(kMetadataChecksumKey, MetaType::Str, kChecksumDigits)) {
      appendScalar(meta, static_cast<uint32_t>(kChecksumDigits));
    }
  }
  std::string bytes;
  appendScalar(bytes, metaCount);
  bytes += meta;
  if (weightSum) {
    Checksum sum;
    sum.update(bytes.data(), bytes.size());
    bytes += sum.hex();
  }
  return writeSection(SectionType::Meta, bytes);
}

void ZYM2Writer::addChecksums() {
  for (const SectionChecksum& known : kSectionChecksums) {
    for (const auto& [section, sum] : checksums) {
      if (section == known.section) {
        addMetaStr(known.key, sum);
      }
    }
  }
}

Status ZYM2Writer::writeSection(SectionType type, std::string_view bytes) {
  Status status = out.alignTo(zym2::kAlignment);
  const uint64_t offset = out.size();
  if (status.ok()) {
    status = out.append(bytes.data(), bytes.size());
  }
  if (weightSum) {
    Checksum sum;
    sum.update(bytes.data(), bytes.size());
    checksums.emplace_back(type, sum.hex());
  }
  addSection(type, offset);
  return status;
}

void ZYM2Writer::addSection(SectionType type, uint64_t offset) {
  sections.push_back({static_cast<uint32_t>(type), 0, offset, out.size() - offset});
}

Status ZYM2Writer::writeTokenizer() {
  if (!listsFit(*tokenizer)) {
    return Status::invalid("ZYM2Writer: tokenizer list too long");
  }
  if (!stringsFit(*tokenizer)) {
    return Status::invalid("ZYM2Writer: tokenizer string too long");
  }
  std::string bytes;
  const auto u32 = [&](size_t value) { appendScalar(bytes, static_cast<uint32_t>(value)); };
  const auto string = [&](const std::string& value) {
    u32(value.size());
    bytes += value;
  };
  const auto strings = [&](const std::vector<std::string>& values) {
    u32(values.size());
    for (const std::string& value : values) {
      string(value);
    }
  };
  const auto integers = [&](const std::vector<int32_t>& values) {
    u32(values.size());
    for (const int32_t value : values) {
      appendScalar(bytes, value);
    }
  };
  u32(zym2::kTokenizerMagic);
  string(tokenizer->label);
  strings(tokenizer->tokens);
  integers(tokenizer->auxValues);
  integers(tokenizer->tokenTypes);
  strings(tokenizer->merges);
  for (const int32_t id :
       {tokenizer->bosId, tokenizer->eosId, tokenizer->unkId, tokenizer->extraId}) {
    appendScalar(bytes, id);
  }
  bytes.push_back(tokenizer->flag ? 1 : 0);
  return writeSection(SectionType::Tokenizer, bytes);
}

Status ZYM2Writer::writeIndex() {
  // Byte-wise ascending: readers search by halves. Names are zero-padded and hold no zero byte.
  std::sort(tensors.begin(), tensors.end(), [](const TensorEntry& a, const TensorEntry& b) {
    return std::memcmp(a.name, b.name, zym2::kTensorNameBytes) < 0;
  });
  return writeSection(SectionType::TensorIndex, {reinterpret_cast<const char*>(tensors.data()),
                                                 tensors.size() * sizeof(TensorEntry)});
}

Status ZYM2Writer::writeHead() {
  header.magic = zym2::kMagic;
  header.version = zym2::kVersion;
  header.endianMarker = zym2::kEndianMarker;
  header.sectionCount = static_cast<uint32_t>(sections.size());
  header.tensorCount = static_cast<uint32_t>(tensors.size());
  uint8_t head[kHeadBytes];
  const size_t tableBytes = sections.size() * sizeof(zym2::SectionEntry);
  std::memcpy(head, &header, zym2::kCrcOffset);
  std::memcpy(head + zym2::kCrcOffset, sections.data(), tableBytes);
  header.crc = zym2::crc64(head, zym2::kCrcOffset + tableBytes);
  Status status = out.overwrite(0, &header, sizeof(header));
  if (status.ok()) {
    status = out.overwrite(sizeof(header), sections.data(), tableBytes);
  }
  return status;
}

void ZYM2Writer::abandon() {
  out.discard();
  failure = Status::success();
  header = {};
  meta.clear();
  metaCount = 0;
  tokenizer.reset();
  text.reset();
  quantInfo = true;
  weightSum.reset();
  checksums.clear();
  weightsOffset = 0;
  inTensor = false;
  names.clear();
  tensors.clear();
  sections.clear();
}

Status ZYM2Writer::fail(const std::string& what) {
  return check(Status::invalid("ZYM2Writer: " + what));
}

Status ZYM2Writer::check(Status status) {
  if (!status.ok()) {
    out.discard();
    failure = status;
  }
  return status;
}

}  // namespace kel
