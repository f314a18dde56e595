#include "host/inspect/conversion_report.h"

#include <gtest/gtest.h>

namespace zym {
namespace {

using kel::QuantType;
using kel::convert::ConvertSummary;

ConvertSummary smallSummary() {
  ConvertSummary summary;
  summary.modelName = "Small";
  summary.sourceFormat = "GGUF 3";
  summary.groups = {{"token_embd.weight", "Q6_K", QuantType::Q8_0,
                     "matrix products cannot use Q6_K", 1, 4'200'000, 5'440'000},
                    {"attn_norm.weight", "F32", QuantType::F32, "", 32, 131'072, 131'072}};
  summary.sourceBytes = 4'331'072;
  summary.storedBytes = 5'571'072;
  return summary;
}

TEST(ConversionReportTest, TellsOfEveryGroupWhatBecameOfItAndWhy) {
  EXPECT_EQ(conversionText(smallSummary()),
            "Small (GGUF 3)\n"
            "\n"
            "tensor              number  source           stored           why\n"
            "token_embd.weight        1  Q6_K    4.20 MB  Q8_0    5.44 MB  matrix products cannot "
            "use Q6_K\n"
            "attn_norm.weight        32  F32      131 kB  F32      131 kB  kept\n"
            "in all                  33          4.33 MB          5.57 MB\n");
}

TEST(ConversionReportTest, CountsWhatWasLeftOut) {
  ConvertSummary summary = smallSummary();
  summary.skipped = {{"multi-token-prediction", 1}, {"vision", 297}};
  const std::string text = conversionText(summary);
  EXPECT_NE(text.find("\nleft out: 1 multi-token-prediction tensor\n"), std::string::npos) << text;
  EXPECT_NE(text.find("\nleft out: 297 vision tensors\n"), std::string::npos) << text;
}

TEST(ConversionReportTest, EndsWithRemarks) {
  ConvertSummary summary = smallSummary();
  summary.remarks = {"this is odd", "so\x1b is that"};
  const std::string text = conversionText(summary);
  EXPECT_TRUE(text.ends_with("5.57 MB\nremark: this is odd\nremark: so is that\n")) << text;
}

TEST(ConversionReportTest, NameOfTheModelCannotControlTheTerminal) {
  ConvertSummary summary = smallSummary();
  summary.modelName = "Sm\x1b[31mall\xFF";
  EXPECT_EQ(conversionText(summary).rfind("Sm[31mall\uFFFD (GGUF 3)\n", 0), 0U);
}

}  // namespace
}  // namespace zym
