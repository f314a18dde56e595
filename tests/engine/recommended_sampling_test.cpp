#include "engine/recommended_sampling.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "container/zym2_writer.h"
#include "tests/support/container_samples.h"
#include "tests/support/temp_dir.h"

namespace engine {
namespace {

using Numbers = std::vector<float>;  // temperature, top-p, top-k, presence, min-p, repetition
using Metadata = std::vector<std::pair<std::string, float>>;

Numbers numbersOf(const SamplerSettings& settings) {
  return {settings.temperature,     settings.topP, static_cast<float>(settings.topK),
          settings.presencePenalty, settings.minP, settings.repetitionPenalty};
}

// Of a container with these metadata.
Numbers recommended(SamplingMode mode, const Metadata& metadata) {
  const kel::test::TempDir folder;
  const std::string path = folder.file("model.zym");
  kel::ZYM2Writer writer;
  kel::test::require(writer.create(path));
  for (const auto& [name, value] : metadata) {
    writer.addMetaF32("general.sampling." + name, value);
  }
  kel::test::require(writer.finish());
  kel::ZYM2Reader reader;
  kel::test::require(reader.open(path.c_str()));
  return numbersOf(recommendedSampling(mode, reader));
}

// The makers' table.
TEST(RecommendedSampling, EveryModeHasItsSettings) {
  const Numbers thinking = {1.0F, 0.95F, 20, 1.5F, 0, 1};
  const Numbers coding = {0.6F, 0.95F, 20, 0, 0, 1};
  const Numbers plain = {0.7F, 0.8F, 20, 1.5F, 0, 1};
  EXPECT_EQ(thinking, numbersOf(recommendedSampling(SamplingMode::Thinking)));
  EXPECT_EQ(coding, numbersOf(recommendedSampling(SamplingMode::PreciseCoding)));
  EXPECT_EQ(plain, numbersOf(recommendedSampling(SamplingMode::WithoutThinking)));
  EXPECT_EQ(plain, recommended(SamplingMode::WithoutThinking, {}));
}

TEST(RecommendedSampling, TheFileComesFirst) {
  EXPECT_EQ((Numbers{0.5F, 0.9F, 40, -1, 0.1F, 1.1F}),
            recommended(SamplingMode::Thinking, {{"temp", 0.5F},
                                                 {"top_k", 40},
                                                 {"top_p", 0.9F},
                                                 {"min_p", 0.1F},
                                                 {"penalty_present", -1},
                                                 {"penalty_repeat", 1.1F}}));
  EXPECT_EQ((Numbers{0.25F, 0.95F, 20, 0, 0, 1}),
            recommended(SamplingMode::PreciseCoding, {{"temp", 0.25F}}));
}

TEST(RecommendedSampling, TopKBelowOneMeansEveryToken) {
  EXPECT_EQ(0, recommended(SamplingMode::Thinking, {{"top_k", 0}})[2]);
  EXPECT_EQ(0, recommended(SamplingMode::Thinking, {{"top_k", -1}})[2]);
}

TEST(RecommendedSampling, ValuesOutOfRangeArePassedOver) {
  const Numbers expected = {1.0F, 0.95F, 20, 0.5F, 0, 1};
  for (const float topK : {NAN, INFINITY, 1e30F, -1e30F, 30.5F}) {
    EXPECT_EQ(expected, recommended(SamplingMode::Thinking, {{"temp", -1},
                                                             {"top_k", topK},
                                                             {"top_p", 0},
                                                             {"min_p", 2},
                                                             {"penalty_present", 0.5F},
                                                             {"penalty_repeat", 0}}));
  }
}

}  // namespace
}  // namespace engine
