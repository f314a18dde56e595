// Sampling settings and the random generator through the built library: what each call stores, puts
// back and draws, read off replies that are rows of coin flips.
#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

#include "tests/abi/coin_model.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::ChatModel;
using testing_abi::coinFlips;
using testing_abi::coinSampling;
using testing_abi::Handle;
using testing_abi::kCoinTemperature;
using testing_abi::kCoinTopK;
using testing_abi::plugin;
using testing_abi::sampling;

const std::string kOnlyTheBest(ZYM_MAX_TURN_TOKENS, 'a');

// A token of the vocabulary that the matrix has no row for: a prompt with it fails.
constexpr const char* kUnfeedable = "\x7F";

class Settings : public testing::Test {
 protected:
  Settings() {
    const std::string path = folder.file("m.zym");
    ChatModel model = testing_abi::coinModel();
    model.editTables = [](kel::TokenizerData& tables) {
      tables.tokens.emplace_back(kUnfeedable);
      tables.tokenTypes.push_back(1);
    };
    kel::test::writeChatModel(path, model);
    handle = testing_abi::createHandle(path);
  }

  void configure(const ZYMSessionOptions& options) const {
    EXPECT_EQ(0u, plugin().runtimesV2(nullptr)->configure(handle.get(), &options));
  }
  std::string reply() const { return testing_abi::generate(handle, "x").text; }
  std::string replyWith(const ZYMSessionOptions& options) const {
    return testing_abi::generateEx(handle, "x", &options).text;
  }

  // The reply depends on the last token's embedding alone, and is spelt faster without attention.
  const kel::test::ScopedEnv withoutAttention{"QWEN35_ABLATE", "lin"};
  kel::test::TempDir folder;
  Handle handle;
};

TEST_F(Settings, OfAFreshSessionAreGreedyWithTheGeneratorSeededWith42) {
  EXPECT_EQ(kOnlyTheBest, reply()) << "the temperature is 0";
  configure(sampling(kCoinTemperature, kCoinTopK, 0.0F, 0));
  std::mt19937 generator(42);
  EXPECT_EQ(coinFlips(generator), reply()) << "the top-p that was there cuts nothing";
}

// All 300 tokens are about as likely, the two that end a turn among them.
TEST_F(Settings, ATopKThatWasNeverSetCutsNothing) {
  configure(sampling(kCoinTemperature, 0, 0.0F, 7));
  std::set<std::string> chosen;
  for (int i = 0; i < 20; ++i) {
    const testing_abi::Reply turn = testing_abi::streamTurn(handle, "x");
    chosen.insert(turn.pieces.begin(), turn.pieces.end());
  }
  EXPECT_GT(chosen.size(), 200u);
}

// A seed that is not 0 reseeds, also when the half that counts is.
TEST_F(Settings, SeedsCountByTheirLow32Bits) {
  for (const uint64_t seed : {uint64_t{1} << 32, uint64_t{0xABCD00000009}}) {
    const auto low = static_cast<uint32_t>(seed & 0xFFFFFFFF);
    std::mt19937 generator(low);
    configure(coinSampling(seed));
    EXPECT_EQ(coinFlips(generator), reply()) << "configured " << seed;
    EXPECT_EQ(coinFlips(generator), reply()) << "seeded once, not at every call";

    generator.seed(low);
    EXPECT_EQ(coinFlips(generator), replyWith(coinSampling(seed))) << "for one call " << seed;
    EXPECT_EQ(coinFlips(generator), reply()) << "the generator is not put back";
  }
}

TEST_F(Settings, ConfigureStoresEachSettingUntilItIsChanged) {
  std::mt19937 generator(3);
  configure(sampling(kCoinTemperature, kCoinTopK, 0.5F, 3));
  EXPECT_EQ(kOnlyTheBest, reply()) << "a top-p below 1 leaves the best token";
  EXPECT_EQ(kOnlyTheBest, reply());
  coinFlips(generator);  // which is drawn all the same
  coinFlips(generator);
  configure(sampling(-1.0F, 0, 1.0F, 0));
  EXPECT_EQ(coinFlips(generator), reply()) << "top-p";
  configure(sampling(-1.0F, 1, 0.0F, 0));
  EXPECT_EQ(kOnlyTheBest, reply()) << "top-k";
  configure(sampling(-1.0F, kCoinTopK, 0.0F, 0));
  EXPECT_EQ(coinFlips(generator), reply()) << "top-k";
  configure(sampling(0.0F, 0, 0.0F, 0));
  EXPECT_EQ(kOnlyTheBest, reply()) << "temperature";
  configure(sampling(kCoinTemperature, 0, 0.0F, 0));
  EXPECT_EQ(coinFlips(generator), reply()) << "temperature";
}

TEST_F(Settings, OfOneCallAreAppliedToItAndPutBack) {
  std::mt19937 generator(4);
  configure(coinSampling(4));
  EXPECT_EQ(kOnlyTheBest, replyWith(sampling(0.0F, 0, 0.0F, 0))) << "temperature 0 is greedy";
  EXPECT_EQ(coinFlips(generator), reply());
  EXPECT_EQ(kOnlyTheBest, replyWith(sampling(-1.0F, 1, 0.0F, 0)));
  EXPECT_EQ(coinFlips(generator), reply());
  EXPECT_EQ(kOnlyTheBest, replyWith(sampling(-1.0F, 0, 0.5F, 0)));
  coinFlips(generator);  // drawn for the call with a top-p
  EXPECT_EQ(coinFlips(generator), reply());
}

TEST_F(Settings, OfAFailedCallArePutBack) {
  const ZYMSessionOptions greedy = sampling(0.0F, 1, 0.5F, 0);
  std::mt19937 generator(5);
  configure(coinSampling(5));
  EXPECT_EQ(1u, testing_abi::generateEx(handle, kUnfeedable, &greedy).status);
  EXPECT_EQ(coinFlips(generator), reply());
}

TEST_F(Settings, ResetKeepsThemAndTheStateOfTheGenerator) {
  std::mt19937 generator(6);
  configure(coinSampling(6));
  EXPECT_EQ(coinFlips(generator), reply());
  EXPECT_EQ(0u, testing_abi::resetOf(handle));
  EXPECT_EQ(coinFlips(generator), reply());
}

TEST_F(Settings, AreThoseOfBothChatEntriesToo) {
  std::mt19937 generator(8);
  configure(coinSampling(8));
  EXPECT_EQ(coinFlips(generator), testing_abi::chatTurn(handle, "x").text);
  EXPECT_EQ(coinFlips(generator), testing_abi::streamTurn(handle, "x").text);
}

TEST_F(Settings, ATurnCancelledBeforehandDrawsNothing) {
  std::mt19937 generator(9);
  configure(coinSampling(9));
  volatile int cancel = 1;
  EXPECT_EQ("", testing_abi::streamTurn(handle, "x", &cancel).text);
  EXPECT_EQ(coinFlips(generator), reply());
}

// Neither the greedy settings of the measurement nor a setting that it has no use for stay behind.
TEST_F(Settings, BenchKeepsThemAndDrawsNothing) {
  const ZYMBenchParams params = {.structSize = 12, .genTokens = 2, .extraTokens = 1};
  ZYMBenchResult result{};
  std::mt19937 generator(10);
  configure(sampling(kCoinTemperature, kCoinTopK, 0.5F, 10));
  ASSERT_EQ(0u, plugin().runtimesV2(nullptr)->bench(handle.get(), &params, &result));
  EXPECT_EQ(kOnlyTheBest, reply());
  coinFlips(generator);
  configure(sampling(-1.0F, 0, 1.0F, 0));
  ASSERT_EQ(0u, plugin().runtimesV2(nullptr)->bench(handle.get(), &params, &result));
  EXPECT_EQ(coinFlips(generator), reply());
}

}  // namespace
