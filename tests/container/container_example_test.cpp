// The worked example of docs/container.md is a file that the writer makes and the loader opens.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "container/zym_loader.h"
#include "tests/support/container_samples.h"
#include "tests/support/patterns.h"

namespace {

using kel::test::Bytes;
namespace test = kel::test;

constexpr size_t kExampleBytes = 613;

// Places the bytes of every line "offset  bytes  comment"; the rest is zero.
Bytes exampleOfTheDocument() {
  Bytes bytes(kExampleBytes, 0);
  std::ifstream document(ZYM_CONTAINER_DOCUMENT);
  const std::string listing = "([0-9a-f]{4})  ((?:[0-9a-f]{2} )+).*";
  std::string line;
  while (std::getline(document, line)) {
    const test::PatternMatch match = test::wholeMatch(line, listing);
    if (match.empty()) {
      continue;
    }
    size_t at = std::stoul(match[1], nullptr, 16);
    std::istringstream values(match[2]);
    for (std::string value; values >> value; ++at) {
      bytes.at(at) = static_cast<uint8_t>(std::stoul(value, nullptr, 16));
    }
  }
  return bytes;
}

Bytes exampleOfTheWriter() {
  const test::TempDir dir;
  const std::string path = dir.file("example.zym");
  kel::TokenizerData tables;
  tables.label = "tiny";
  tables.tokens = {"a", "b", "ab"};
  tables.tokenTypes = {1, 1, 3};
  tables.merges = {"a b"};
  tables.eosId = 2;
  const float data[] = {1.0F, -2.0F};

  kel::ZYM2Writer writer;
  test::require(writer.create(path));
  test::require(writer.addTensor("w", kel::QuantType::F32, {2}, data, sizeof(data)));
  writer.addMetaStr("general.architecture", "qwen35");
  writer.setTokenizer(tables);
  writer.setQuantInfo(false);
  test::require(writer.finish());
  return test::readFile(path);
}

TEST(ContainerExample, TheListingIsWhatTheWriterMakes) {
  EXPECT_EQ(exampleOfTheDocument(), exampleOfTheWriter());
}

TEST(ContainerExample, TheListingOpens) {
  test::ImageFile file;
  kel::ZYMLoader loader;
  const char* path = file.write(test::ContainerImage(exampleOfTheDocument()));
  ASSERT_EQ("", loader.open(path).message);
  const kel::TensorView* tensor = loader.findTensor("w");
  ASSERT_NE(nullptr, tensor);
  EXPECT_EQ(-2.0F, static_cast<const float*>(tensor->data)[1]);
  EXPECT_EQ(2, loader.tokenizer.eosId);
  std::string architecture;
  EXPECT_TRUE(loader.reader.getMetaStr("general.architecture", architecture));
  EXPECT_EQ("qwen35", architecture);
}

}  // namespace
