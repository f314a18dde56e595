// One tokenizer used by several threads at once. What overlaps without a lock shows in the thread
// sanitizer build; what it would change shows in every build.
#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "tests/tokenizer/bpe_trainer.h"
#include "tests/tokenizer/sample_text.h"
#include "tests/tokenizer/vocabulary.h"
#include "tokenizer/tokenizer.h"
#include "tokenizer/whitespace.h"

namespace {

using kel::Tokenizer;

constexpr size_t kThreads = 4;
constexpr size_t kRounds = 5;
constexpr size_t kMerges = 300;

struct Coded {
  std::string text;
  std::vector<int32_t> ids;
  std::string decoded;
};

Coded coded(const Tokenizer& tokenizer, std::string text) {
  Coded result{.text = std::move(text), .ids = {}, .decoded = {}};
  EXPECT_TRUE(tokenizer.encode(result.text, result.ids, true).ok());
  EXPECT_TRUE(tokenizer.decode(result.ids, result.decoded).ok());
  return result;
}

std::vector<Coded> codedAlone(const Tokenizer& tokenizer) {
  std::vector<Coded> all;
  for (const kel::testing::SampleText& sample : kel::testing::sampleTexts()) {
    std::string turn = "<|im_start|>user\n";
    turn.append(sample.text).append("<|im_end|>\n");
    all.push_back(coded(tokenizer, std::move(turn)));
  }
  return all;
}

class SharedTokenizer : public testing::TestWithParam<std::string_view> {};

TEST_P(SharedTokenizer, GivesEveryThreadWhatItGivesOneAlone) {
  const Tokenizer tokenizer = kel::testing::loaded(
      kel::testing::trainBpe(kel::testing::allSampleText(), GetParam(), kMerges));
  const std::vector<Coded> expected = codedAlone(tokenizer);
  ASSERT_GT(expected.size(), kThreads);

  std::latch start(kThreads);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      // Each begins elsewhere, so that different texts meet.
      for (size_t i = 0; i < kRounds * expected.size(); ++i) {
        const Coded& alone = expected[(t + i) % expected.size()];
        const Coded together = coded(tokenizer, alone.text);
        EXPECT_EQ(alone.ids, together.ids);
        EXPECT_EQ(alone.decoded, together.decoded);
        EXPECT_EQ(tokenizer.eosId, tokenizer.tokenToId("<|im_end|>"));
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

INSTANTIATE_TEST_SUITE_P(SpaceMarkers, SharedTokenizer,
                         testing::Values(kel::kByteLevelSpace, kel::kEscapedSpace),
                         [](const auto& marker) {
                           return marker.param == kel::kByteLevelSpace ? "ByteLevel" : "Escaped";
                         });

}  // namespace
