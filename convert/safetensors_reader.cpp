#include "convert/safetensors_reader.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <tuple>

#include "convert/errors.h"
#include "convert/json_reader.h"

namespace kel::convert {

namespace {

using nlohmann::json;

constexpr uint64_t kMaxHeaderBytes = 100'000'000;

struct ElementSize {
  std::string_view dtype;
  uint64_t bits;
};

constexpr ElementSize kElementSizes[] = {
    {"BOOL", 8},    {"U8", 8},   {"I8", 8},   {"F8_E4M3", 8}, {"F8_E5M2", 8},
    {"F8_E8M0", 8}, {"U16", 16}, {"I16", 16}, {"F16", 16},    {"BF16", 16},
    {"U32", 32},    {"I32", 32}, {"F32", 32}, {"U64", 64},    {"I64", 64},
    {"F64", 64},    {"C64", 64}, {"F4", 4},   {"F6_E2M3", 6}, {"F6_E3M2", 6},
};

// Product of shape and element size in bytes; false when it does not fit 64 bits.
bool byteSize(const std::vector<uint64_t>& shape, uint64_t elementBits, uint64_t& nBytes) {
  uint64_t bits = elementBits;
  for (const uint64_t dim : shape) {
    if (__builtin_mul_overflow(bits, dim, &bits)) {
      return false;
    }
  }
  nBytes = bits / 8;
  return bits % 8 == 0;
}

Status readShape(const json& value, const std::string& name, std::vector<uint64_t>& shape) {
  if (!value.is_array()) {
    return malformed("safetensors: the shape of {} is not a list", name);
  }
  for (const json& dim : value) {
    const auto length = jsonUnsigned(dim);
    if (!length) {
      return malformed("safetensors: the shape of {} holds no valid length", name);
    }
    shape.push_back(*length);
  }
  return Status::success();
}

Status readEntry(const std::string& name, const json& value, const uint8_t* buffer,
                 uint64_t bufferBytes, SafetensorsEntry& entry) {
  const std::string shown = printable(name);
  const json* dtype = jsonMember(value, "dtype");
  const json* shape = jsonMember(value, "shape");
  const json* offsets = jsonMember(value, "data_offsets");
  if (dtype == nullptr || !dtype->is_string() || shape == nullptr || offsets == nullptr ||
      !offsets->is_array() || offsets->size() != 2) {
    return malformed("safetensors: the entry of {} lacks dtype, shape or data_offsets", shown);
  }
  entry.name = name;
  entry.dtype = dtype->get<std::string>();
  Status status = readShape(*shape, shown, entry.shape);
  if (!status.ok()) {
    return status;
  }
  const auto begin = jsonUnsigned((*offsets)[0]);
  const auto end = jsonUnsigned((*offsets)[1]);
  if (!begin || !end || *begin > *end || *end > bufferBytes) {
    return malformed("safetensors: the data of {} lies outside the file: is it complete?", shown);
  }
  const auto* size =
      std::find_if(std::begin(kElementSizes), std::end(kElementSizes),
                   [&](const ElementSize& known) { return known.dtype == entry.dtype; });
  if (size == std::end(kElementSizes)) {
    return malformed("safetensors: {} has the unknown element type {}", shown,
                     printable(entry.dtype));
  }
  uint64_t expected = 0;
  if (!byteSize(entry.shape, size->bits, expected) || *end - *begin != expected) {
    return malformed("safetensors: {} has {} bytes, which do not fit its shape and type {}", shown,
                     *end - *begin, entry.dtype);
  }
  entry.data = buffer + *begin;
  entry.nBytes = expected;
  return Status::success();
}

// Ranges in order must follow one another from the first to the last byte of the buffer.
Status checkCoverage(std::vector<SafetensorsEntry>& entries, const uint8_t* buffer,
                     uint64_t bufferBytes) {
  std::sort(entries.begin(), entries.end(),
            [](const SafetensorsEntry& a, const SafetensorsEntry& b) {
              return std::tie(a.data, a.nBytes, a.name) < std::tie(b.data, b.nBytes, b.name);
            });
  const uint8_t* at = buffer;
  for (const SafetensorsEntry& entry : entries) {
    if (entry.data != at) {
      return malformed("safetensors: the data of {} {}", printable(entry.name),
                       entry.data < at ? "overlap another tensor's" : "follow a gap");
    }
    at += entry.nBytes;
  }
  if (at != buffer + bufferBytes) {
    return malformed("safetensors: {} bytes follow the last tensor", buffer + bufferBytes - at);
  }
  return Status::success();
}

}  // namespace

Status parseSafetensors(const uint8_t* file, uint64_t fileBytes, const std::string& what,
                        std::vector<SafetensorsEntry>& entries) {
  entries.clear();
  uint64_t headerBytes = 0;
  if (fileBytes < sizeof(headerBytes)) {
    return malformed("{}: too short for safetensors", what);
  }
  std::memcpy(&headerBytes, file, sizeof(headerBytes));
  const uint64_t left = fileBytes - sizeof(headerBytes);
  if (headerBytes > kMaxHeaderBytes || headerBytes > left) {
    return malformed("{}: no safetensors file, or cut off within its header", what);
  }
  const auto* text = reinterpret_cast<const char*>(file + sizeof(headerBytes));
  if (headerBytes == 0 || text[0] != '{') {
    return malformed("{}: no safetensors header", what);
  }
  json header;
  Status status = parseJson({text, headerBytes}, what + ": the header", header);
  if (!status.ok()) {
    return status;
  }
  const uint8_t* buffer = file + sizeof(headerBytes) + headerBytes;
  const uint64_t bufferBytes = left - headerBytes;
  for (const auto& [name, value] : header.items()) {
    if (name == "__metadata__") {
      continue;
    }
    status = readEntry(name, value, buffer, bufferBytes, entries.emplace_back());
    if (!status.ok()) {
      return status;
    }
  }
  return checkCoverage(entries, buffer, bufferBytes);
}

}  // namespace kel::convert
