// What zym check says of the runtime library, against what the library's code makes of the file.
#include "host/inspect/library_verdict.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/engine/engine_models.h"
#include "tests/support/opened_model.h"

namespace zym {
namespace {

using kel::ModelShape;

struct Case {
  const char* name;
  std::function<void(ModelShape&)> change;
  LibraryRun run;
  const char* text;
};

void PrintTo(const Case& tested, std::ostream* out) {
  *out << tested.name;
}

const Case kCases[] = {
    {"Fixed", [](ModelShape&) {}, LibraryRun::Rightly, "the runtime library can run it too"},
    {"LongerContext", [](ModelShape& shape) { shape.contextLength = 262144; }, LibraryRun::Rightly,
     "the runtime library can run it too"},
    {"UnevenLayers",
     [](ModelShape& shape) {
       shape.fullLayers = {};
       shape.fullLayers.add(1);
       shape.fullLayers.add(2);
     },
     LibraryRun::Rightly, "the runtime library can run it too"},
    {"OwnOutputHead", [](ModelShape& shape) { shape.ownOutput = true; }, LibraryRun::Wrongly,
     "the runtime library cannot run it rightly: it computes logits from the embedding, not with "
     "the output head that the model has"},
    {"FewerLayers", [](ModelShape& shape) { shape.layers = 24; }, LibraryRun::Never,
     "the runtime library cannot: it runs models of 32 layers, not of 24"},
    {"MoreLayers", [](ModelShape& shape) { shape.layers = 64; }, LibraryRun::Wrongly,
     "the runtime library cannot run it rightly: it runs models of 32 layers, not of 64"},
    {"QueryHeads", [](ModelShape& shape) { shape.queryHeads = 8; }, LibraryRun::Never,
     "the runtime library cannot: it runs models of 16 query heads, not of 8"},
    // As wide as before in all.
    {"HeadsOfOtherWidth",
     [](ModelShape& shape) {
       shape.linearKeyHeads = 8;
       shape.linearKeyDim = 256;
     },
     LibraryRun::Wrongly,
     "the runtime library cannot run it rightly: it runs models of 16 key heads of linear "
     "attention, not of 8"},
    {"Taps", [](ModelShape& shape) { shape.convTaps = 3; }, LibraryRun::Never,
     "the runtime library cannot: it runs models of 4 taps of the convolution, not of 3"},
    {"RotatedDimensions", [](ModelShape& shape) { shape.ropeDim = 32; }, LibraryRun::Wrongly,
     "the runtime library cannot run it rightly: it runs models of 64 rotated dimensions, not of "
     "32"},
    {"RotaryBase", [](ModelShape& shape) { shape.ropeBase = 1e4; }, LibraryRun::Wrongly,
     "the runtime library cannot run it rightly: it runs models of the rotary base 1e+07, not of "
     "10000"},
    {"Epsilon", [](ModelShape& shape) { shape.normEps = 1e-3; }, LibraryRun::Wrongly,
     "the runtime library cannot run it rightly: it runs models of the epsilon of norms 1e-06, "
     "not of 0.001"},
};

// What the library would answer; empty when it refuses.
std::vector<float> libraryLogits(const std::string& path, const std::vector<int32_t>& tokens) {
  try {
    kel::test::Handle handle(path);
    std::vector<float> logits;
    for (const int32_t token : tokens) {
      logits = handle.logits(static_cast<size_t>(token));
    }
    return logits;
  } catch (const std::runtime_error&) {
    return {};
  }
}

double relativeDifference(const std::vector<float>& expected, const std::vector<float>& got) {
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    difference += std::pow(static_cast<double>(got[i]) - expected[i], 2);
    size += std::pow(expected[i], 2);
  }
  return std::sqrt(difference / size);
}

class LibraryVerdictTest : public testing::TestWithParam<Case> {};

TEST_P(LibraryVerdictTest, IsWhatTheLibraryDoes) {
  kel::test::RandomModelSpec spec{.vocab = 40, .types = {kel::QuantType::BF16}};
  spec.statesShape = true;
  GetParam().change(spec.shape);
  const engine::testing_support::OpenedModel opened(spec);
  kel::StatedShape stated;
  ASSERT_TRUE(kel::readShape(opened.model->file().reader, stated).ok());

  const LibraryVerdict verdict = judgeForLibrary(opened.model->file(), stated);
  EXPECT_EQ(GetParam().run, verdict.run);
  EXPECT_EQ(GetParam().text, verdictText(verdict));

  const std::vector<int32_t> tokens = {7, 25, 3, 3, 30};
  const std::vector<float> library = libraryLogits(opened.path, tokens);
  EXPECT_EQ(verdict.run == LibraryRun::Never, library.empty());
  if (!library.empty()) {
    const auto context = opened.context();
    engine::testing_support::feed(*context, tokens);
    const double difference =
        relativeDifference(engine::testing_support::logitsOf(*context), library);
    EXPECT_EQ(verdict.run == LibraryRun::Rightly, difference < 1e-4) << difference;
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, LibraryVerdictTest, testing::ValuesIn(kCases),
                         [](const auto& shape) { return shape.param.name; });

}  // namespace
}  // namespace zym
