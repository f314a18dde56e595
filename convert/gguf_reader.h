// Structure of a GGUF file, versions 2 and 3: metadata and tensor list, every length, count and
// offset checked before use. What the values mean is the business of gguf_model.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "container/status.h"
#include "convert/source_type.h"

namespace kel::convert {

// Value types, numbered as in files.
enum class GgufType : uint32_t {
  U8 = 0,
  I8 = 1,
  U16 = 2,
  I16 = 3,
  U32 = 4,
  I32 = 5,
  F32 = 6,
  Bool = 7,
  String = 8,
  Array = 9,
  U64 = 10,
  I64 = 11,
  F64 = 12,
};

// One metadata value. Views point into the file's bytes.
struct GgufValue {
  GgufType type = GgufType::U8;
  uint64_t bits = 0;      // of a scalar, zero-extended
  std::string_view text;  // of a string

  // Of an array: scalar elements lie packed at elements, strings have been cut into a list.
  GgufType elementType = GgufType::U8;
  uint64_t count = 0;
  const uint8_t* elements = nullptr;
  std::vector<std::string_view> strings;

  // The scalar as an integer, whatever integer type the writer chose; none for another type or a
  // value beyond int64.
  std::optional<int64_t> asInteger() const;
  std::optional<double> asNumber() const;  // of any numeric scalar
  std::optional<bool> asBool() const;
  // Element i of an integer or bool array; none for another element type. i < count.
  std::optional<int64_t> integerAt(uint64_t i) const;
};

// Scalar kinds have a fixed size in bytes; 0 for strings, arrays and numbers that are no type.
uint32_t ggufTypeSize(GgufType type);

struct GgufTensor {
  std::string_view name;
  std::string_view typeName;
  std::optional<SourceType> type;  // none: a known type that cannot be decoded
  std::vector<uint64_t> dims;      // innermost first, 1 to 4 of them
  const uint8_t* data = nullptr;   // in the file's bytes, wholly inside
  uint64_t nBytes = 0;
};

class GgufFile {
 public:
  // Views into the nBytes bytes at data, which outlive this object. On failure the content is
  // unspecified. Messages start with "GGUF: "; a tensor type of unknown size is Unsupported, all
  // else InvalidFormat or Unsupported (versions, byte order).
  Status parse(const uint8_t* data, uint64_t nBytes);

  uint32_t version() const { return fileVersion; }
  // Null when there is no such key.
  const GgufValue* find(std::string_view key) const;
  const std::vector<GgufTensor>& tensors() const { return tensorList; }

  // Adds the tensors of another part of the same model. InvalidFormat when both have one.
  Status takeTensors(GgufFile part);

 private:
  uint32_t fileVersion = 0;
  std::unordered_map<std::string_view, GgufValue> metadata;
  std::vector<GgufTensor> tensorList;
};

}  // namespace kel::convert
