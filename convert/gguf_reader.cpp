#include "convert/gguf_reader.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>
#include <utility>

#include "container/byte_cursor.h"
#include "convert/errors.h"

namespace kel::convert {

namespace {

constexpr uint32_t kMagic = 0x46554747;  // "GGUF"
constexpr uint64_t kMaxKeyBytes = 65535;
constexpr uint64_t kMaxNameBytes = 64;
constexpr uint32_t kMaxRank = 4;
constexpr uint64_t kDefaultAlignment = 32;
constexpr int64_t kMinAlignment = 8;
constexpr int64_t kMaxAlignment = int64_t{1} << 20;
// The shortest encodings: empty key, type and one byte; empty name, rank 1.
constexpr uint64_t kMinPairBytes = 8 + 4 + 1;
constexpr uint64_t kMinTensorBytes = 8 + 4 + 8 + 4 + 8;
// Far above real files; what a file makes this reader allocate stays in proportion.
constexpr uint64_t kMaxEntries = 65536;

// Types that can be decoded, by their number in files.
struct DecodedType {
  uint32_t id;
  SourceType type;
};

constexpr DecodedType kDecodedTypes[] = {
    {0, SourceType::F32},     {1, SourceType::F16},     {2, SourceType::Q4_0},
    {3, SourceType::Q4_1},    {6, SourceType::Q5_0},    {7, SourceType::Q5_1},
    {8, SourceType::Q8_0},    {10, SourceType::Q2_K},   {11, SourceType::Q3_K},
    {12, SourceType::Q4_K},   {13, SourceType::Q5_K},   {14, SourceType::Q6_K},
    {20, SourceType::IQ4_NL}, {23, SourceType::IQ4_XS}, {30, SourceType::BF16},
    {39, SourceType::MXFP4},
};

// All others: only their names and, for the layout of the file, their sizes.
struct OtherType {
  uint32_t id;
  const char* name;
  quant::BlockFormat block;  // 0 bytes: size unknown, so the file's layout cannot be checked
};

constexpr OtherType kOtherTypes[] = {
    {9, "Q8_1", {32, 36}},     {15, "Q8_K", {256, 292}},   {16, "IQ2_XXS", {256, 66}},
    {17, "IQ2_XS", {256, 74}}, {18, "IQ3_XXS", {256, 98}}, {19, "IQ1_S", {256, 50}},
    {21, "IQ3_S", {256, 110}}, {22, "IQ2_S", {256, 82}},   {24, "I8", {1, 1}},
    {25, "I16", {1, 2}},       {26, "I32", {1, 4}},        {27, "I64", {1, 8}},
    {28, "F64", {1, 8}},       {29, "IQ1_M", {256, 56}},   {34, "TQ1_0", {256, 0}},
    {35, "TQ2_0", {256, 0}},   {40, "NVFP4", {1, 0}},
};

struct ElementType {
  const char* name;
  quant::BlockFormat block;
  std::optional<SourceType> decoded;
};

std::optional<ElementType> findElementType(uint32_t id) {
  const auto hasId = [id](const auto& type) { return type.id == id; };
  const auto* decoded = std::find_if(std::begin(kDecodedTypes), std::end(kDecodedTypes), hasId);
  if (decoded != std::end(kDecodedTypes)) {
    const SourceTypeInfo& info = sourceTypeInfo(decoded->type);
    return ElementType{info.name, info.block, decoded->type};
  }
  const auto* other = std::find_if(std::begin(kOtherTypes), std::end(kOtherTypes), hasId);
  if (other != std::end(kOtherTypes)) {
    return ElementType{other->name, other->block, {}};
  }
  return std::nullopt;
}

bool readString(ByteCursor& in, std::string_view& out) {
  uint64_t length = 0;
  const uint8_t* bytes = nullptr;
  if (!in.read(length) || !in.take(length, bytes)) {
    return false;
  }
  out = {reinterpret_cast<const char*>(bytes), length};
  return true;
}

Status truncatedValue(std::string_view key) {
  return malformed("GGUF: the value of {} runs past the end of the file", printable(key));
}

Status readArray(ByteCursor& in, std::string_view key, GgufValue& value) {
  uint32_t elementType = 0;
  if (!in.read(elementType) || !in.read(value.count)) {
    return truncatedValue(key);
  }
  value.elementType = static_cast<GgufType>(elementType);
  if (value.elementType == GgufType::String) {
    if (value.count > in.remaining() / sizeof(uint64_t)) {
      return truncatedValue(key);
    }
    for (uint64_t i = 0; i < value.count; ++i) {
      if (!readString(in, value.strings.emplace_back())) {
        return truncatedValue(key);
      }
    }
    return Status::success();
  }
  const uint32_t size = ggufTypeSize(value.elementType);
  if (size == 0) {
    return malformed("GGUF: {} is an array of element type {}, which is not supported",
                     printable(key), elementType);
  }
  if (value.count > in.remaining() / size || !in.take(value.count * size, value.elements)) {
    return truncatedValue(key);
  }
  return Status::success();
}

Status readValue(ByteCursor& in, std::string_view key, GgufValue& value) {
  uint32_t type = 0;
  if (!in.read(type)) {
    return truncatedValue(key);
  }
  value.type = static_cast<GgufType>(type);
  if (value.type == GgufType::Array) {
    return readArray(in, key, value);
  }
  if (value.type == GgufType::String) {
    return readString(in, value.text) ? Status::success() : truncatedValue(key);
  }
  const uint32_t size = ggufTypeSize(value.type);
  if (size == 0) {
    return malformed("GGUF: {} has the unknown value type {}", printable(key), type);
  }
  const uint8_t* bytes = nullptr;
  if (!in.take(size, bytes)) {
    return truncatedValue(key);
  }
  std::memcpy(&value.bits, bytes, size);
  if (value.type == GgufType::Bool && value.bits > 1) {
    return malformed("GGUF: {} is a bool of value {}", printable(key), value.bits);
  }
  return Status::success();
}

// Bytes of a tensor. False when the first dimension is no whole number of blocks or the size does
// not fit 64 bits.
bool tensorBytes(const std::vector<uint64_t>& dims, const ElementType& type, uint64_t& nBytes) {
  if (dims[0] % type.block.elements != 0) {
    return false;
  }
  nBytes = dims[0] / type.block.elements;
  if (__builtin_mul_overflow(nBytes, uint64_t{type.block.bytes}, &nBytes)) {
    return false;
  }
  for (size_t i = 1; i < dims.size(); ++i) {
    if (__builtin_mul_overflow(nBytes, dims[i], &nBytes)) {
      return false;
    }
  }
  return true;
}

Status readTensorInfo(ByteCursor& in, GgufTensor& tensor, uint64_t& offset) {
  uint32_t rank = 0;
  uint32_t typeId = 0;
  if (!readString(in, tensor.name)) {
    return malformed("GGUF: the tensor list is cut off");
  }
  const std::string name = printable(tensor.name);
  if (tensor.name.size() > kMaxNameBytes) {
    return malformed("GGUF: the tensor name {} has {} bytes, more than {}", name,
                     tensor.name.size(), kMaxNameBytes);
  }
  if (!in.read(rank)) {
    return malformed("GGUF: the tensor list is cut off");
  }
  if (rank < 1 || rank > kMaxRank) {
    return malformed("GGUF: {} has rank {}", name, rank);
  }
  tensor.dims.resize(rank);
  for (uint64_t& dim : tensor.dims) {
    if (!in.read(dim)) {
      return malformed("GGUF: the tensor list is cut off");
    }
  }
  if (!in.read(typeId) || !in.read(offset)) {
    return malformed("GGUF: the tensor list is cut off");
  }
  const std::optional<ElementType> type = findElementType(typeId);
  if (!type || type->block.bytes == 0) {
    return unsupported("{} {}", name, cannotDecode(type ? type->name : std::to_string(typeId)));
  }
  tensor.typeName = type->name;
  tensor.type = type->decoded;
  if (!tensorBytes(tensor.dims, *type, tensor.nBytes)) {
    return malformed("GGUF: the shape of {} is not possible with type {}", name, type->name);
  }
  return Status::success();
}

struct Extent {
  uint64_t offset;
  const GgufTensor* tensor;
};

Status checkOverlaps(std::vector<Extent> extents) {
  std::sort(extents.begin(), extents.end(), [](const Extent& a, const Extent& b) {
    return std::pair(a.offset, a.tensor->nBytes) < std::pair(b.offset, b.tensor->nBytes);
  });
  for (size_t i = 1; i < extents.size(); ++i) {
    const Extent& before = extents[i - 1];
    if (extents[i].offset - before.offset < before.tensor->nBytes) {
      return malformed("GGUF: the data of {} and {} overlap", printable(before.tensor->name),
                       printable(extents[i].tensor->name));
    }
  }
  return Status::success();
}

// Points every tensor at its bytes. offsets: one per tensor, from the start of the data.
Status placeTensors(const uint8_t* data, uint64_t nBytes, uint64_t alignment,
                    const std::vector<uint64_t>& offsets, std::vector<GgufTensor>& tensors) {
  std::vector<Extent> extents;
  extents.reserve(tensors.size());
  for (size_t i = 0; i < tensors.size(); ++i) {
    GgufTensor& tensor = tensors[i];
    if (offsets[i] % alignment != 0) {
      return malformed("GGUF: the offset {} of {} is not a multiple of the alignment {}",
                       offsets[i], printable(tensor.name), alignment);
    }
    if (offsets[i] > nBytes || nBytes - offsets[i] < tensor.nBytes) {
      return malformed("GGUF: the data of {} runs past the end of the file: is it complete?",
                       printable(tensor.name));
    }
    tensor.data = data + offsets[i];
    extents.push_back({offsets[i], &tensor});
  }
  return checkOverlaps(std::move(extents));
}

Status readMetadata(ByteCursor& in, uint64_t count,
                    std::unordered_map<std::string_view, GgufValue>& metadata) {
  for (uint64_t i = 0; i < count; ++i) {
    std::string_view key;
    if (!readString(in, key)) {
      return malformed("GGUF: the metadata are cut off");
    }
    if (key.size() > kMaxKeyBytes) {
      return malformed("GGUF: a metadata key is over 65535 bytes");
    }
    GgufValue value;
    Status status = readValue(in, key, value);
    if (!status.ok()) {
      return status;
    }
    if (!metadata.emplace(key, std::move(value)).second) {
      return malformed("GGUF: the metadata key {} occurs twice", printable(key));
    }
  }
  return Status::success();
}

Status readTensorList(ByteCursor& in, uint64_t count, std::vector<GgufTensor>& tensors,
                      std::vector<uint64_t>& offsets) {
  std::unordered_map<std::string_view, uint64_t> names;
  tensors.resize(count);
  offsets.resize(count);
  for (uint64_t i = 0; i < count; ++i) {
    Status status = readTensorInfo(in, tensors[i], offsets[i]);
    if (!status.ok()) {
      return status;
    }
    if (!names.emplace(tensors[i].name, i).second) {
      return malformed("GGUF: the tensor name {} occurs twice", printable(tensors[i].name));
    }
  }
  return Status::success();
}

Status readAlignment(const GgufValue* value, uint64_t& alignment) {
  alignment = kDefaultAlignment;
  if (value == nullptr) {
    return Status::success();
  }
  const std::optional<int64_t> stored = value->asInteger();
  if (!stored || *stored < kMinAlignment || *stored > kMaxAlignment ||
      (*stored & (*stored - 1)) != 0) {
    return malformed("GGUF: general.alignment is not a power of two from 8 to 1048576");
  }
  alignment = static_cast<uint64_t>(*stored);
  return Status::success();
}

Status checkVersion(uint32_t version) {
  if (version == 2 || version == 3) {
    return Status::success();
  }
  if (version == 0x02000000 || version == 0x03000000) {
    return unsupported("GGUF: big-endian files are not supported");
  }
  return unsupported("GGUF: the format version is {}; versions 2 and 3 are supported", version);
}

}  // namespace

Status GgufFile::parse(const uint8_t* data, uint64_t nBytes) {
  metadata.clear();
  tensorList.clear();
  ByteCursor in(data, nBytes);
  uint32_t magic = 0;
  uint64_t tensorCount = 0;
  uint64_t pairCount = 0;
  if (!in.read(magic) || magic != kMagic) {
    return malformed("GGUF: not a GGUF file");
  }
  if (!in.read(fileVersion)) {
    return malformed("GGUF: the header is cut off");
  }
  Status status = checkVersion(fileVersion);
  if (!status.ok()) {
    return status;
  }
  if (!in.read(tensorCount) || !in.read(pairCount)) {
    return malformed("GGUF: the header is cut off");
  }
  if (pairCount > std::min(in.remaining() / kMinPairBytes, kMaxEntries)) {
    return malformed("GGUF: {} metadata pairs are more than this file can hold", pairCount);
  }
  status = readMetadata(in, pairCount, metadata);
  if (!status.ok()) {
    return status;
  }
  if (tensorCount > std::min(in.remaining() / kMinTensorBytes, kMaxEntries)) {
    return malformed("GGUF: {} tensors are more than this file can hold", tensorCount);
  }
  std::vector<uint64_t> offsets;
  status = readTensorList(in, tensorCount, tensorList, offsets);
  if (!status.ok()) {
    return status;
  }
  uint64_t alignment = 0;
  status = readAlignment(find("general.alignment"), alignment);
  if (!status.ok()) {
    return status;
  }
  const uint64_t padding = (alignment - (nBytes - in.remaining()) % alignment) % alignment;
  const uint8_t* skipped = nullptr;
  if (!in.take(padding, skipped)) {
    // A file without tensor data may end where its lists end.
    if (tensorList.empty()) {
      return Status::success();
    }
    return malformed("GGUF: the file ends before its tensor data: is it complete?");
  }
  return placeTensors(data + (nBytes - in.remaining()), in.remaining(), alignment, offsets,
                      tensorList);
}

Status GgufFile::takeTensors(GgufFile part) {
  std::unordered_set<std::string_view> names;
  for (const GgufTensor& tensor : tensorList) {
    names.insert(tensor.name);
  }
  for (GgufTensor& tensor : part.tensorList) {
    if (names.contains(tensor.name)) {
      return malformed("GGUF: {} is in an earlier part too", printable(tensor.name));
    }
    tensorList.push_back(std::move(tensor));
  }
  return Status::success();
}

const GgufValue* GgufFile::find(std::string_view key) const {
  const auto found = metadata.find(key);
  return found == metadata.end() ? nullptr : &found->second;
}

}  // namespace kel::convert
