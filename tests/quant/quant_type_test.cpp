#include "quant/quant_type.h"

#include <gtest/gtest.h>

namespace {

TEST(QuantTypeName, EveryTypeHasItsName) {
  const char* const expected[] = {"F32",  "F16",  "BF16", "Q4_0",  "Q8_0",
                                  "Q4_K", "Q5_K", "Q6_K", "IQ4_XS"};
  for (uint8_t value = 0; value < 9; ++value) {
    EXPECT_STREQ(expected[value], kel::quantTypeName(static_cast<kel::QuantType>(value)));
  }
}

TEST(QuantTypeName, AnyOtherValueIsAQuestionMark) {
  for (int value = 9; value < 256; ++value) {
    EXPECT_STREQ("?", kel::quantTypeName(static_cast<kel::QuantType>(value))) << value;
  }
}

TEST(HasProduct, FiveTypesHave) {
  using kel::QuantType;
  for (int value = 0; value < 256; ++value) {
    const auto type = static_cast<QuantType>(value);
    const bool expected = type == QuantType::F32 || type == QuantType::BF16 ||
                          type == QuantType::Q8_0 || type == QuantType::Q4_K ||
                          type == QuantType::Q5_K;
    EXPECT_EQ(expected, kel::hasMatmul(type)) << value;
  }
}

}  // namespace
