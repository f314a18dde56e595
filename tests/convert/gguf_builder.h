// Writes GGUF files for tests, by the published layout and with no code of the importer. Anything
// may be wrong on purpose.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace kel::test {

inline void appendText(Bytes& bytes, const std::string& text) {
  bytes.insert(bytes.end(), text.begin(), text.end());
}

template <typename T>
void appendNumber(Bytes& bytes, T value) {
  uint8_t raw[sizeof(T)];
  std::memcpy(raw, &value, sizeof(T));
  for (const uint8_t byte : raw) {
    bytes.push_back(byte);
  }
}

class GgufBuilder {
 public:
  struct Tensor {
    std::string name;
    std::vector<uint64_t> ne;
    uint32_t type = 0;
    Bytes data{};
    uint64_t holeBytes = 0;    // in place of data: zeros that take no disk space
    int64_t atOffset = -1;     // in place of the next free offset
    bool afterEarlier = true;  // false: later tensors do not make room for it
  };

  uint32_t magic = 0x46554747;
  uint32_t version = 3;
  uint64_t alignment = 32;
  std::vector<Tensor> tensors;
  int64_t tensorCount = -1;  // in place of the real one
  int64_t pairCount = -1;

  // The raw encoding of a key and its value.
  void pair(const std::string& key, uint32_t type, const Bytes& value) {
    string(metadata, key);
    appendNumber(metadata, type);
    metadata.insert(metadata.end(), value.begin(), value.end());
    ++pairs;
  }
  template <typename T>
  void scalar(const std::string& key, uint32_t type, T value) {
    Bytes bytes;
    appendNumber(bytes, value);
    pair(key, type, bytes);
  }
  void u32(const std::string& key, uint32_t value) { scalar(key, 4, value); }
  void f32(const std::string& key, float value) { scalar(key, 6, value); }
  void boolean(const std::string& key, bool value) { scalar<uint8_t>(key, 7, value ? 1 : 0); }
  void text(const std::string& key, const std::string& value) {
    Bytes bytes;
    string(bytes, value);
    pair(key, 8, bytes);
  }
  void texts(const std::string& key, const std::vector<std::string>& values) {
    Bytes bytes = arrayHead(8, values.size());
    for (const std::string& value : values) {
      string(bytes, value);
    }
    pair(key, 9, bytes);
  }
  template <typename T>
  void array(const std::string& key, uint32_t elementType, const std::vector<T>& values) {
    Bytes bytes = arrayHead(elementType, values.size());
    for (const T value : values) {
      appendNumber(bytes, value);
    }
    pair(key, 9, bytes);
  }
  static Bytes arrayHead(uint32_t elementType, uint64_t count) {
    Bytes bytes;
    appendNumber(bytes, elementType);
    appendNumber(bytes, count);
    return bytes;
  }
  static void string(Bytes& bytes, const std::string& value) {
    appendNumber<uint64_t>(bytes, value.size());
    appendText(bytes, value);
  }

  // Everything in front of the tensor data, padded; offsets receives one per tensor.
  Bytes head(std::vector<uint64_t>& offsets) const {
    Bytes bytes;
    appendNumber(bytes, magic);
    appendNumber(bytes, version);
    appendNumber<uint64_t>(bytes,
                           tensorCount < 0 ? tensors.size() : static_cast<uint64_t>(tensorCount));
    appendNumber<uint64_t>(bytes, pairCount < 0 ? pairs : static_cast<uint64_t>(pairCount));
    bytes.insert(bytes.end(), metadata.begin(), metadata.end());
    uint64_t next = 0;
    for (const Tensor& tensor : tensors) {
      string(bytes, tensor.name);
      appendNumber<uint32_t>(bytes, static_cast<uint32_t>(tensor.ne.size()));
      for (const uint64_t n : tensor.ne) {
        appendNumber(bytes, n);
      }
      appendNumber(bytes, tensor.type);
      offsets.push_back(tensor.atOffset < 0 ? next : static_cast<uint64_t>(tensor.atOffset));
      appendNumber(bytes, offsets.back());
      if (tensor.afterEarlier) {
        next = aligned(offsets.back() + sizeOf(tensor));
      }
    }
    bytes.resize(aligned(bytes.size()));
    return bytes;
  }

  Bytes bytes() const {
    std::vector<uint64_t> offsets;
    Bytes file = head(offsets);
    const size_t dataStart = file.size();
    for (size_t i = 0; i < tensors.size(); ++i) {
      const size_t end = dataStart + offsets[i] + sizeOf(tensors[i]);
      if (file.size() < end) {
        file.resize(end);
      }
      std::copy(tensors[i].data.begin(), tensors[i].data.end(),
                file.begin() + static_cast<std::ptrdiff_t>(dataStart + offsets[i]));
    }
    return file;
  }

  // Writes without holding the data twice, and leaves holes where tensors have no data.
  void write(const std::string& path) const {
    std::vector<uint64_t> offsets;
    const Bytes start = head(offsets);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    uint64_t fileBytes = start.size();
    const auto put = [&](uint64_t at, const Bytes& data) {
      out.seekp(static_cast<std::streamoff>(at));
      out.write(reinterpret_cast<const char*>(data.data()),
                static_cast<std::streamsize>(data.size()));
    };
    put(0, start);
    for (size_t i = 0; i < tensors.size(); ++i) {
      put(start.size() + offsets[i], tensors[i].data);
      fileBytes = std::max(fileBytes, start.size() + offsets[i] + sizeOf(tensors[i]));
    }
    out.close();
    std::filesystem::resize_file(path, fileBytes);
  }

 private:
  static uint64_t sizeOf(const Tensor& tensor) {
    return tensor.data.empty() ? tensor.holeBytes : tensor.data.size();
  }
  uint64_t aligned(uint64_t at) const { return (at + alignment - 1) / alignment * alignment; }

  Bytes metadata;
  uint64_t pairs = 0;
};

}  // namespace kel::test
