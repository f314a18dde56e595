#include <bit>
#include <cstring>

#include "convert/gguf_reader.h"

namespace kel::convert {

namespace {

template <typename T>
int64_t extended(uint64_t bits) {
  return static_cast<T>(bits);
}

std::optional<int64_t> integerOf(GgufType type, uint64_t bits) {
  switch (type) {
    case GgufType::U8:
    case GgufType::U16:
    case GgufType::U32:
      return static_cast<int64_t>(bits);
    case GgufType::I8:
      return extended<int8_t>(bits);
    case GgufType::I16:
      return extended<int16_t>(bits);
    case GgufType::I32:
      return extended<int32_t>(bits);
    case GgufType::I64:
      return extended<int64_t>(bits);
    case GgufType::U64:
      if (bits > static_cast<uint64_t>(INT64_MAX)) {
        return std::nullopt;
      }
      return static_cast<int64_t>(bits);
    default:
      return std::nullopt;
  }
}

}  // namespace

uint32_t ggufTypeSize(GgufType type) {
  switch (type) {
    case GgufType::U8:
    case GgufType::I8:
    case GgufType::Bool:
      return 1;
    case GgufType::U16:
    case GgufType::I16:
      return 2;
    case GgufType::U32:
    case GgufType::I32:
    case GgufType::F32:
      return 4;
    case GgufType::U64:
    case GgufType::I64:
    case GgufType::F64:
      return 8;
    default:
      return 0;
  }
}

std::optional<int64_t> GgufValue::asInteger() const {
  return integerOf(type, bits);
}

std::optional<double> GgufValue::asNumber() const {
  if (type == GgufType::F32) {
    return std::bit_cast<float>(static_cast<uint32_t>(bits));
  }
  if (type == GgufType::F64) {
    return std::bit_cast<double>(bits);
  }
  const std::optional<int64_t> integer = asInteger();
  if (!integer) {
    return std::nullopt;
  }
  return static_cast<double>(*integer);
}

std::optional<bool> GgufValue::asBool() const {
  if (type != GgufType::Bool) {
    return std::nullopt;
  }
  return bits != 0;
}

std::optional<int64_t> GgufValue::integerAt(uint64_t i) const {
  const uint32_t size = ggufTypeSize(elementType);
  if (type != GgufType::Array || size == 0 || i >= count) {
    return std::nullopt;
  }
  uint64_t element = 0;
  std::memcpy(&element, elements + i * size, size);
  if (elementType == GgufType::Bool) {
    return element != 0 ? 1 : 0;
  }
  return integerOf(elementType, element);
}

}  // namespace kel::convert
