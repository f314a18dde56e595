#include "convert/section_checksums.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace kel::convert {

namespace {

void addU32(Checksum& sum, uint64_t value) {
  const auto word = static_cast<uint32_t>(value);
  sum.update(&word, sizeof(word));
}

void addString(Checksum& sum, const std::string& value) {
  addU32(sum, value.size());
  sum.update(value.data(), value.size());
}

void addStrings(Checksum& sum, const std::vector<std::string>& values) {
  addU32(sum, values.size());
  for (const std::string& value : values) {
    addString(sum, value);
  }
}

void addIntegers(Checksum& sum, const std::vector<int32_t>& values) {
  addU32(sum, values.size());
  sum.update(values.data(), values.size() * sizeof(int32_t));
}

// The tokenizer section as docs/container.md lays it out.
std::string tokenizerChecksum(const TokenizerData& tables) {
  Checksum sum;
  addU32(sum, zym2::kTokenizerMagic);
  addString(sum, tables.label);
  addStrings(sum, tables.tokens);
  addIntegers(sum, tables.auxValues);
  addIntegers(sum, tables.tokenTypes);
  addStrings(sum, tables.merges);
  for (const int32_t id : {tables.bosId, tables.eosId, tables.unkId, tables.extraId}) {
    addU32(sum, static_cast<uint32_t>(id));
  }
  const uint8_t flag = tables.flag ? 1 : 0;
  sum.update(&flag, sizeof(flag));
  return sum.hex();
}

template <typename Record>
std::string checksumOf(const std::vector<Record>& records) {
  Checksum sum;
  sum.update(records.data(), records.size() * sizeof(Record));
  return sum.hex();
}

}  // namespace

void Checksum::Free::operator()(XXH3_state_s* s) const {
  XXH3_freeState(s);
}

Checksum::Checksum() : state(XXH3_createState()) {
  if (!state) {
    throw std::bad_alloc();
  }
  XXH3_128bits_reset(state.get());
}

void Checksum::update(const void* data, size_t nBytes) {
  XXH3_128bits_update(state.get(), data, nBytes);
}

std::string Checksum::hex() const {
  const XXH128_hash_t sum = XXH3_128bits_digest(state.get());
  return fmt::format("{:016x}{:016x}", sum.high64, sum.low64);
}

void SectionChecksums::beginTensor(std::string_view name, QuantType type,
                                   const std::vector<uint64_t>& dims) {
  constexpr uint8_t kZeros[zym2::kAlignment] = {};
  const uint64_t padding = (zym2::kAlignment - weightBytes % zym2::kAlignment) % zym2::kAlignment;
  weights.update(kZeros, padding);
  weightBytes += padding;
  zym2::TensorEntry& entry = index.emplace_back();
  std::copy(name.begin(), name.end(), entry.name);
  entry.nameLength = static_cast<uint16_t>(name.size());
  entry.type = static_cast<uint16_t>(type);
  entry.rank = static_cast<uint16_t>(dims.size());
  std::copy(dims.begin(), dims.end(), entry.dims);
  entry.offset = weightBytes;
}

void SectionChecksums::writeTensorData(const void* data, size_t nBytes) {
  weights.update(data, nBytes);
  weightBytes += nBytes;
  index.back().byteSize += nBytes;
}

void SectionChecksums::addTo(ZYM2Writer& writer, const TokenizerData& tokenizer) {
  std::sort(index.begin(), index.end(), [](const auto& a, const auto& b) {
    return std::memcmp(a.name, b.name, zym2::kTensorNameBytes) < 0;
  });
  writer.addMetaStr(kTokenizerChecksumKey, tokenizerChecksum(tokenizer));
  writer.addMetaStr(kTensorIndexChecksumKey, checksumOf(index));
  writer.addMetaStr(kWeightDataChecksumKey, weights.hex());
  writer.addMetaStr(kQuantInfoChecksumKey,
                    checksumOf(std::vector<zym2::QuantRecord>(index.size())));
}

}  // namespace kel::convert
