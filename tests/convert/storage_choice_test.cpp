#include "convert/storage_choice.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "convert/errors.h"
#include "convert/free_space.h"
#include "convert/tensor_rows.h"
#include "quant/block_sizes.h"
#include "quant/least_squares_k.h"

namespace {

using kel::QuantType;
using kel::TensorRole;
using kel::convert::chooseStorage;
using kel::convert::MatrixToStore;
using kel::convert::Preset;
using kel::convert::SourceType;
using kel::convert::Storage;
using kel::convert::StorageChoice;

QuantType stored(const MatrixToStore& matrix, const StorageChoice& choice = {}) {
  return chooseStorage(matrix, choice).type;
}

StorageChoice preset(Preset value) {
  StorageChoice choice;
  choice.preset = value;
  return choice;
}

TEST(StorageChoice, KeepsWhatProductsAccept) {
  for (const auto& [source, type] :
       {std::pair{SourceType::F32, QuantType::F32}, std::pair{SourceType::BF16, QuantType::BF16},
        std::pair{SourceType::Q8_0, QuantType::Q8_0}, std::pair{SourceType::Q4_K, QuantType::Q4_K},
        std::pair{SourceType::Q5_K, QuantType::Q5_K}}) {
    const Storage storage = chooseStorage({TensorRole::FfnUp, source, 2560}, {});
    EXPECT_EQ(type, storage.type);
    EXPECT_EQ("", storage.reason);
  }
  // The embedding of a common file.
  const Storage embedding = chooseStorage({TensorRole::Embedding, SourceType::Q6_K, 2560}, {});
  EXPECT_EQ(QuantType::Q8_0, embedding.type);
  EXPECT_EQ(
      "matrix products cannot use Q6_K; Q5_K would lose precision; quality stays that of Q6_K",
      embedding.reason);
}

// Which type that is for each source: added_error_test.cpp.
TEST(StorageChoice, LowBitSourcesTakeTheSmallestTypeThatKeepsTheirPrecision) {
  const Storage four = chooseStorage({TensorRole::FfnUp, SourceType::Q4_0, 2560}, {});
  EXPECT_EQ(QuantType::Q4_K, four.type);
  EXPECT_EQ("matrix products cannot use Q4_0; Q4_K keeps its precision; quality stays that of Q4_0",
            four.reason);
  const Storage eight = chooseStorage({TensorRole::FfnUp, SourceType::IQ4_XS, 2560}, {});
  EXPECT_EQ(QuantType::Q8_0, eight.type);
  EXPECT_EQ(
      "matrix products cannot use IQ4_XS; Q5_K would lose precision; quality stays that of IQ4_XS",
      eight.reason);
  // No whole super-blocks, and no block at all.
  const Storage narrow = chooseStorage({TensorRole::FfnUp, SourceType::Q4_0, 288}, {});
  EXPECT_EQ(QuantType::Q8_0, narrow.type);
  EXPECT_EQ(
      "matrix products cannot use Q4_0; Q4_K keeps its precision; rows of 288 are no whole blocks "
      "of Q4_K; quality stays that of Q4_0",
      narrow.reason);
  EXPECT_EQ("matrix products cannot use F16",
            chooseStorage({TensorRole::FfnUp, SourceType::F16, 2560}, {}).reason);
  // What is asked for comes first.
  EXPECT_EQ(QuantType::Q8_0,
            stored({TensorRole::FfnUp, SourceType::Q4_0, 2560}, preset(Preset::Best)));
}

TEST(StorageChoice, RowsThatHoldNoWholeBlockFallBack) {
  StorageChoice choice;
  choice.type = QuantType::Q4_K;
  EXPECT_EQ(QuantType::Q4_K, stored({TensorRole::FfnUp, SourceType::F32, 512}, choice));
  EXPECT_EQ(QuantType::Q8_0, stored({TensorRole::FfnUp, SourceType::F32, 288}, choice));
  EXPECT_EQ(QuantType::BF16, stored({TensorRole::FfnUp, SourceType::F32, 40}, choice));
  EXPECT_EQ("type as asked for; rows of 40 are no whole blocks of Q4_K",
            chooseStorage({TensorRole::FfnUp, SourceType::F32, 40}, choice).reason);
  EXPECT_EQ(QuantType::BF16, stored({TensorRole::FfnUp, SourceType::F16, 40}));
}

TEST(StorageChoice, EmbeddingTypeComesFirst) {
  StorageChoice choice = preset(Preset::Best);
  choice.embeddingType = QuantType::F32;
  EXPECT_EQ(QuantType::F32, stored({TensorRole::Embedding, SourceType::BF16, 256}, choice));
  EXPECT_EQ(QuantType::Q8_0, stored({TensorRole::FfnUp, SourceType::BF16, 256}, choice));
}

TEST(StorageChoice, Presets) {
  struct Row {
    TensorRole role;
    QuantType small;
    QuantType balanced;
  };
  for (const Row& row : {Row{TensorRole::FfnGate, QuantType::Q4_K, QuantType::Q5_K},
                         Row{TensorRole::FfnUp, QuantType::Q4_K, QuantType::Q5_K},
                         Row{TensorRole::FfnDown, QuantType::Q5_K, QuantType::Q5_K},
                         Row{TensorRole::AttnQ, QuantType::Q5_K, QuantType::Q5_K},
                         Row{TensorRole::AttnK, QuantType::Q5_K, QuantType::Q5_K},
                         Row{TensorRole::AttnV, QuantType::Q5_K, QuantType::Q5_K},
                         Row{TensorRole::AttnOutput, QuantType::Q5_K, QuantType::Q5_K},
                         Row{TensorRole::AttnQkv, QuantType::Q5_K, QuantType::Q8_0},
                         Row{TensorRole::AttnGate, QuantType::Q5_K, QuantType::Q8_0},
                         Row{TensorRole::SsmOut, QuantType::Q8_0, QuantType::Q8_0},
                         Row{TensorRole::SsmAlpha, QuantType::BF16, QuantType::Q5_K},
                         Row{TensorRole::SsmBeta, QuantType::BF16, QuantType::Q5_K},
                         Row{TensorRole::Embedding, QuantType::Q8_0, QuantType::Q8_0}}) {
    const MatrixToStore matrix{row.role, SourceType::F32, 2560};
    const std::string_view name = kel::tensorOf(row.role).suffix;
    EXPECT_EQ(row.small, stored(matrix, preset(Preset::Small))) << name;
    EXPECT_EQ(row.balanced, stored(matrix, preset(Preset::Balanced))) << name;
    EXPECT_EQ(QuantType::Q8_0, stored(matrix, preset(Preset::Best))) << name;
    EXPECT_EQ(QuantType::BF16, stored(matrix, preset(Preset::Full))) << name;
  }
}

TEST(StorageChoice, NamesOfTypesAndPresets) {
  EXPECT_EQ(QuantType::Q5_K, kel::convert::storageTypeByName("q5_k"));
  EXPECT_EQ(std::nullopt, kel::convert::storageTypeByName("q6_k"));
  for (const Preset value : {Preset::Small, Preset::Balanced, Preset::Best, Preset::Full})
    EXPECT_EQ(value, kel::convert::presetByName(presetName(value)));
  EXPECT_EQ(std::nullopt, kel::convert::presetByName("tiny"));
}

TEST(StorageChoice, CapitalsCountAsSmallLetters) {
  EXPECT_EQ(QuantType::Q8_0, kel::convert::storageTypeByName("Q8_0"));
  EXPECT_EQ(QuantType::Q5_K, kel::convert::storageTypeByName("q5_K"));
  EXPECT_EQ(Preset::Balanced, kel::convert::presetByName("Balanced"));
  EXPECT_EQ(std::nullopt, kel::convert::storageTypeByName("Q8_"));
  EXPECT_EQ(std::nullopt, kel::convert::storageTypeByName("Q8_01"));
}

TEST(Bfloat16, RoundsToNearestEven) {
  const auto encoded = [](float value) {
    uint8_t bytes[2];
    kel::convert::encodeRow(QuantType::BF16, &value, 1, bytes);
    return bytes[0] | bytes[1] << 8;
  };
  EXPECT_EQ(0x3F80, encoded(1.0F));
  EXPECT_EQ(0x3F80, encoded(1.00390625F)) << "a tie, down to even";
  EXPECT_EQ(0x3F82, encoded(1.01171875F)) << "a tie, up to even";
  EXPECT_EQ(0x3F81, encoded(1.005F));
  EXPECT_EQ(0xBF80, encoded(-1.0F));
}

TEST(EncodeRow, SearchesForTheLeastErrorInSuperBlocks) {
  std::vector<float> row(512);
  for (size_t i = 0; i < row.size(); ++i) {
    row[i] = std::sin(static_cast<float>(i));
  }
  for (const auto& [type, encode] : {std::pair{QuantType::Q4_K, &kel::quant::leastSquaresQ4K},
                                     std::pair{QuantType::Q5_K, &kel::quant::leastSquaresQ5K}}) {
    std::vector<uint8_t> expected(kel::quant::quantizedBytes(type, row.size()));
    std::vector<uint8_t> encoded(expected.size());
    encode(row.data(), expected.data(), row.size());
    kel::convert::encodeRow(type, row.data(), row.size(), encoded.data());
    EXPECT_EQ(expected, encoded) << quantTypeName(type);
  }
}

TEST(Printable, ControlBytesAreReplacedAndLongTextIsCutBetweenCharacters) {
  EXPECT_EQ("a?b? \u00E9", kel::convert::printable("a\x1B"
                                                   "b\x7F \u00E9"));
  const std::string longest(100, 'x');
  EXPECT_EQ(longest, kel::convert::printable(longest));
  EXPECT_EQ(longest + "...", kel::convert::printable(longest + "y"));
  const std::string before(99, 'x');
  EXPECT_EQ(before + "...", kel::convert::printable(before + "\u00E9"));
}

TEST(FreeSpace, IsComparedWithTheNeed) {
  EXPECT_TRUE(kel::convert::checkFreeSpace("/tmp/model.zym", 0).ok());
  const kel::Status status = kel::convert::checkFreeSpace("/tmp/model.zym", UINT64_MAX);
  EXPECT_EQ(kel::StatusCode::IoError, status.code);
  EXPECT_EQ(0U, status.message.find(
                    "not enough space for /tmp/model.zym: it needs 18446744073709.6 MB, and "))
      << status.message;
  EXPECT_TRUE(kel::convert::checkFreeSpace("/no/such/folder/model.zym", UINT64_MAX).ok());
}

}  // namespace
