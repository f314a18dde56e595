// The decoders tell which values are not finite; the search has to agree with them.
#include "quant/non_finite.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>

#include "tests/quant/formats.h"

namespace {

using kel::QuantType;
using kel::quant::firstNonFinite;

using Bytes = std::vector<uint8_t>;

std::optional<uint64_t> firstInDecoded(const std::vector<float>& values) {
  for (size_t i = 0; i < values.size(); ++i) {
    if (!std::isfinite(values[i])) {
      return i;
    }
  }
  return std::nullopt;
}

// One half in 32 of random bytes is infinite or NaN, so that both outcomes are frequent.
TEST(FirstNonFinite, AgreesWithTheDecodersOnRandomBlocks) {
  std::mt19937 random(7);
  for (const formats::Format& format : formats::kAll) {
    int found = 0;
    int sound = 0;
    for (int round = 0; round < 400; ++round) {
      const size_t n = 1 + random() % (9 * format.blockLen);
      Bytes blocks(kel::quant::quantizedBytes(format.type, n));
      for (uint8_t& byte : blocks) {
        byte = static_cast<uint8_t>(random());
      }
      std::vector<float> values(n);
      format.decode(blocks.data(), values.data(), n);
      const std::optional<uint64_t> expected = firstInDecoded(values);
      EXPECT_EQ(expected, firstNonFinite(format.type, blocks.data(), n))
          << kel::quantTypeName(format.type);
      (expected ? found : sound) += 1;
    }
    EXPECT_GT(found, 10) << kel::quantTypeName(format.type);
    EXPECT_GT(sound, 10) << kel::quantTypeName(format.type);
  }
}

// Bit patterns at the border, one byte off alignment, at the ends of a long row and between.
template <typename Word>
void expectFound(QuantType type, std::initializer_list<Word> finite,
                 std::initializer_list<Word> notFinite) {
  constexpr size_t kLength = 3000;
  Bytes row(1 + kLength * sizeof(Word));
  const auto put = [&](size_t i, Word value) {
    std::memcpy(row.data() + 1 + i * sizeof(Word), &value, sizeof(Word));
  };
  for (size_t i = 0; i < kLength; ++i) {
    put(i, std::data(finite)[i % finite.size()]);
  }
  EXPECT_EQ(std::nullopt, firstNonFinite(type, row.data() + 1, kLength));
  for (const Word bad : notFinite) {
    for (const size_t at : {kLength - 1, size_t{1024}, size_t{1023}, size_t{0}}) {
      put(at, bad);
      EXPECT_EQ(at, firstNonFinite(type, row.data() + 1, kLength)) << bad;
      EXPECT_EQ(std::nullopt, firstNonFinite(type, row.data() + 1, at)) << bad;
    }
    for (const size_t at : {kLength - 1, size_t{1024}, size_t{1023}, size_t{0}}) {
      put(at, *finite.begin());
    }
  }
}

TEST(FirstNonFinite, PlainValuesAreToldApartByTheirBits) {
  expectFound<uint32_t>(QuantType::F32, {0x00000000, 0x80000000, 0x7F7FFFFF, 0xFF7FFFFF, 1},
                        {0x7F800000, 0xFF800000, 0x7F800001, 0xFFFFFFFF});
  expectFound<uint16_t>(QuantType::F16, {0x0000, 0x8000, 0x7BFF, 0xFBFF, 1},
                        {0x7C00, 0xFC00, 0x7C01, 0xFFFF});
  expectFound<uint16_t>(QuantType::BF16, {0x0000, 0x8000, 0x7F7F, 0xFF7F, 1},
                        {0x7F80, 0xFF80, 0x7F81, 0xFFFF});
}

TEST(FirstNonFinite, TypesThatAreNotDecodedAnswerNone) {
  const Bytes ones(136, 0xFF);
  EXPECT_EQ(std::nullopt, firstNonFinite(QuantType::IQ4_XS, ones.data(), 256));
  EXPECT_EQ(std::nullopt, firstNonFinite(static_cast<QuantType>(9), ones.data(), 1));
}

}  // namespace
