// The demonstration checkpoint through the importer, against the tests' own conversion of it, which
// gives the known replies and logits.
#include <gtest/gtest.h>

#include "tests/convert/converted.h"
#include "tests/support/demo_model.h"

namespace {

using kel::QuantType;
using kel::test::Bytes;

TEST(DemoCheckpoint, ConvertsToTheKnownContainer) {
  for (const QuantType type : {QuantType::BF16, QuantType::Q8_0}) {
    kel::convert::StorageChoice storage;
    storage.type = type;
    const kel::test::Converted converted(ZYM_DEMO_FOLDER, storage);
    const std::string known = converted.folder.file("known.zym");
    kel::test::writeDemoModel(known, type);
    kel::ZYMLoader loader;
    ASSERT_TRUE(loader.open(known.c_str()).ok());
    ASSERT_EQ(loader.tensorCount, converted.loader.tensorCount);
    for (const kel::TensorView& view : loader.tensors) {
      const auto* data = static_cast<const uint8_t*>(view.data);
      EXPECT_EQ(Bytes(data, data + view.byteSize), converted.bytes(view.name)) << view.name;
      EXPECT_EQ(view.type, converted.tensor(view.name).type) << view.name;
    }
    EXPECT_EQ(loader.tokenizer.tokens, converted.loader.tokenizer.tokens);
    EXPECT_EQ(loader.tokenizer.tokenTypes, converted.loader.tokenizer.tokenTypes);
    EXPECT_EQ(loader.tokenizer.merges, converted.loader.tokenizer.merges);
    EXPECT_EQ(loader.tokenizer.eosId, converted.loader.tokenizer.eosId);
  }
}

TEST(DemoCheckpoint, RawVocabularyHasNoLettersButTheSpace) {
  kel::convert::ConvertOptions options;
  const kel::test::TempDir folder;
  options.source = ZYM_DEMO_FOLDER;
  options.target = folder.file("raw.zym");
  options.vocabulary = kel::convert::VocabularyForm::Raw;
  kel::convert::ProgressSink quiet;
  ASSERT_TRUE(kel::convert::convertModel(options, quiet).status.ok());
  kel::ZYMLoader loader;
  ASSERT_TRUE(loader.open(options.target.c_str()).ok());
  EXPECT_EQ("raw", loader.tokenizer.label);
  EXPECT_EQ("\n", loader.tokenizer.tokens[0]);
  EXPECT_EQ("\u0120 a", loader.tokenizer.merges[0]);
}

}  // namespace
