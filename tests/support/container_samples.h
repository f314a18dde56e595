// Small well-formed containers, written by the writer, for tests to read and to damage.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "container/zym2_writer.h"
#include "tests/support/zym2_patch.h"

namespace kel::test {

inline void require(const Status& status) {
  if (!status.ok()) {
    throw std::runtime_error(status.message);
  }
}

inline TokenizerData sampleTokenizer() {
  TokenizerData tables;
  tables.label = "sample";
  tables.tokens = {"a", "b", "ab", "<end>"};
  tables.auxValues = {-7};
  tables.tokenTypes = {1, 1, 1, 3};
  tables.merges = {"a b"};
  tables.bosId = -1;
  tables.eosId = 3;
  tables.unkId = -2;
  tables.extraId = 5;
  tables.flag = true;
  return tables;
}

// Names of the tensors of sampleImage() in index order; tensor i is F32, two rows of two columns,
// filled with i + 1.
inline const std::vector<std::string>& sampleTensorNames() {
  static const std::vector<std::string> names = {"a", "b", "c"};
  return names;
}

// Metadata of every type, a tokenizer, a text, three tensors, quant info.
inline ContainerImage sampleImage() {
  const TempDir dir;
  const std::string path = dir.file("sample.zym");
  ZYM2Writer writer;
  require(writer.create(path));
  writer.addMetaStr("general.architecture", "qwen35");
  writer.addMetaU32("u32", 1);
  writer.addMetaI32("i32", -1);
  writer.addMetaF32("f32", 1.5F);
  writer.addMetaU64("u64", uint64_t{1} << 40);
  writer.addMetaU32Array("array", {7, 8, 9});
  writer.setTokenizer(sampleTokenizer());
  writer.setText("some text");
  writer.setHeaderWords(0xA, 0xB, 0xC);
  for (size_t i = 0; i < sampleTensorNames().size(); ++i) {
    const std::vector<float> data(4, static_cast<float>(i + 1));
    require(writer.addTensor(sampleTensorNames()[i], QuantType::F32, {2, 2}, data.data(), 16));
  }
  require(writer.finish());
  return ContainerImage(readFile(path));
}

// An image with one file behind it: opens whatever the image holds at the time.
class ImageFile {
 public:
  const char* write(const ContainerImage& image) {
    writeFile(path, image.bytes);
    return path.c_str();
  }

 private:
  TempDir dir;
  std::string path = dir.file("image.zym");
};

}  // namespace kel::test
