// resetModel and embedRow.

#include "qwen35/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "qwen35/forward.h"
#include "tests/support/bound_views.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::QuantType;
using qwen35::Layer;
using qwen35::Model;

bool allZero(const qwen35::StateBuffer& buffer) {
  return std::all_of(buffer.begin(), buffer.end(), [](float f) { return f == 0.0f; });
}

TEST(ResetModel, LeavesAllStateZeroWithUnchangedSizes) {
  const kel::test::TempDir folder;
  ASSERT_TRUE(kel::test::writeRandomModel(folder.file("m.zym"), {}).ok());
  kel::ZYMLoader loader;
  ASSERT_TRUE(loader.open(folder.file("m.zym").c_str()).ok());
  Model m;
  ASSERT_TRUE(qwen35::initLayers(loader, m, 8));
  ASSERT_TRUE(qwen35::bindModel(loader, m, 8));
  std::vector<float> hidden(m.nEmbd);
  for (size_t pos = 0; pos < 8; ++pos) {
    qwen35::embedRow(m, pos, hidden.data());
    qwen35::forwardTokenHidden(m, hidden.data(), pos, hidden.data());
  }
  ASSERT_EQ(8u, m.layers[3].pos);
  ASSERT_NE(0.0f, m.layers[3].kCache[m.layers[3].kCache.size() - 1]);
  ASSERT_FALSE(allZero(m.layers[0].ssmState));

  qwen35::resetModel(m);
  for (const Layer& layer : m.layers) {
    EXPECT_EQ(0u, layer.pos);
    EXPECT_EQ(layer.isLinear ? 32u * 128 * 128 : 0u, layer.ssmState.size());
    EXPECT_EQ(layer.isLinear ? 8192u * 3 : 0u, layer.convState.size());
    EXPECT_EQ(layer.isLinear ? 0u : 4u * 8 * 256, layer.kCache.size());
    EXPECT_EQ(layer.kCache.size(), layer.vCache.size());
    EXPECT_TRUE(allZero(layer.ssmState) && allZero(layer.convState));
    EXPECT_TRUE(allZero(layer.kCache) && allZero(layer.vCache));
  }
}

class EmbedRow : public ::testing::Test {
 protected:
  // A table of two rows of 256 in the given encoding.
  std::vector<float> embed(QuantType type, const std::vector<uint8_t>& rows, size_t token) {
    table.type = type;
    table.data = rows.data();
    m.tokEmbd = &table;
    m.nEmbd = 256;
    m.nVocab = 2;
    std::vector<float> out(256, -1.0f);
    qwen35::embedRow(m, token, out.data());
    return out;
  }

  kel::TensorView table;
  Model m;
};

TEST_F(EmbedRow, F32IsCopied) {
  std::vector<float> floats(512);
  floats[256] = 1.5f;
  floats[511] = -2.0f;
  std::vector<uint8_t> rows(2048);
  std::memcpy(rows.data(), floats.data(), rows.size());
  const std::vector<float> out = embed(QuantType::F32, rows, 1);
  EXPECT_EQ(1.5f, out[0]);
  EXPECT_EQ(0.0f, out[1]);
  EXPECT_EQ(-2.0f, out[255]);
}

TEST_F(EmbedRow, Bf16IsWidened) {
  std::vector<uint8_t> rows(1024);
  rows[512] = 0xC0;  // 0x3FC0 = 1.5
  rows[513] = 0x3F;
  EXPECT_EQ(1.5f, embed(QuantType::BF16, rows, 1)[0]);
}

TEST_F(EmbedRow, QuantisedRowsStartAtWholeBlocks) {
  struct {
    QuantType type;
    size_t rowBytes;
    size_t codes;  // offset of the first code byte
    float value;   // of element 0 with scale 1, sub-scale 1 and code byte 3
  } const formats[] = {{QuantType::Q8_0, 8 * 34, 2, 3.0f},
                       {QuantType::Q4_K, 144, 16, 3.0f},
                       {QuantType::Q5_K, 176, 48, 3.0f}};
  for (const auto& format : formats) {
    std::vector<uint8_t> rows(2 * format.rowBytes);
    uint8_t* block = rows.data() + format.rowBytes;
    block[1] = 0x3C;  // 0x3C00: scale 1
    if (format.type != QuantType::Q8_0) {
      block[4] = 1;
    }
    block[format.codes] = 3;
    EXPECT_EQ(format.value, embed(format.type, rows, 1)[0]) << kel::quantTypeName(format.type);
    EXPECT_EQ(0.0f, embed(format.type, rows, 0)[0]) << kel::quantTypeName(format.type);
  }
}

TEST_F(EmbedRow, ATypeWithoutDecoderReturnsTheScratchRowAsItWas) {
  const std::vector<uint8_t> codes(2 * 8 * 18, 0x77);
  EXPECT_EQ(std::vector<float>(256, 0.0f), embed(QuantType::Q4_0, codes, 1));

  std::vector<uint8_t> rows(2048);
  const float value = 4.25f;
  std::memcpy(rows.data() + 4, &value, sizeof value);
  const std::vector<float> previous = embed(QuantType::F32, rows, 0);
  EXPECT_EQ(previous, embed(QuantType::Q4_0, codes, 1));
  EXPECT_EQ(4.25f, previous[1]);
}

}  // namespace
