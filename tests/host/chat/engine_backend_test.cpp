// What the engine's backend makes of the settings, with a small random model.
#include "host/chat/engine_backend.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/chat_model.h"
#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using Pieces = std::vector<std::string>;

constexpr uint64_t kReplyTokens = 12;

class EngineBackendTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<kel::test::TempDir>();
    kel::test::RandomModelSpec spec = {
        .vocab = 110, .shape = kel::test::oddShape(), .statesShape = true};
    spec.tokenizer = kel::test::chatTables(spec.vocab);
    const kel::Status status = kel::test::writeRandomModel(folder->file("model.zym"), spec);
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
  }
  static void TearDownTestSuite() { folder.reset(); }

  EngineBackendTest() {
    EngineOptions options;
    options.model = folder->file("model.zym");
    options.maxTokens = kReplyTokens;
    const kel::Status status = openEngineBackend(options, backend);
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
    configure({.temperature = 0.0F});
  }

  Pieces complete(const std::string& prompt) {
    Pieces pieces;
    TurnCalls calls;
    calls.piece = [&](std::string_view piece) { pieces.emplace_back(piece); };
    TurnOutcome outcome;
    EXPECT_EQ("", backend->complete(prompt, calls, outcome).message);
    return pieces;
  }

  void configure(const Sampling& sampling) { EXPECT_EQ("", backend->configure(sampling).message); }

  static std::unique_ptr<kel::test::TempDir> folder;
  std::unique_ptr<Backend> backend;
};

std::unique_ptr<kel::test::TempDir> EngineBackendTest::folder;

bool hasRepeats(const Pieces& pieces) {
  return std::set<std::string>(pieces.begin(), pieces.end()).size() < pieces.size();
}

TEST_F(EngineBackendTest, PenaltiesEndRepetition) {
  const Pieces plain = complete("abc");
  EXPECT_TRUE(hasRepeats(plain));
  configure({.presencePenalty = 2.0F});
  const Pieces penalised = complete("abc");
  EXPECT_FALSE(hasRepeats(penalised));
  EXPECT_EQ("a", penalised.at(1)) << "of the prompt, which is not counted";
  // Every completion begins with nothing said.
  EXPECT_EQ(penalised, complete("abc"));
  configure({.presencePenalty = 0.0F, .frequencyPenalty = 2.0F});
  EXPECT_FALSE(hasRepeats(complete("abc")));
  configure({.frequencyPenalty = 0.0F, .repetitionPenalty = 100.0F});
  const Pieces other = complete("abc");
  EXPECT_FALSE(hasRepeats(other));
  EXPECT_NE("a", other.at(1)) << "of the prompt";
  configure({.repetitionPenalty = 1.0F});
  EXPECT_EQ(plain, complete("abc"));
}

TEST_F(EngineBackendTest, MinPCutsWhatIsDrawn) {
  const Pieces greedy = complete("hello");
  configure({.temperature = 100.0F, .minP = 1.0F, .presencePenalty = 0.0F});
  EXPECT_EQ(greedy, complete("hello"));
  configure({.minP = 0.0F});
  EXPECT_NE(greedy, complete("hello"));
}

TEST_F(EngineBackendTest, OfRefusedSettingsNoneHolds) {
  const Pieces plain = complete("abc");
  EXPECT_EQ("sampler: temperature must be a number from 0, not -1",
            backend->configure({.temperature = -1.0F, .presencePenalty = 2.0F}).message);
  EXPECT_EQ(plain, complete("abc"));
}

}  // namespace
}  // namespace zym
