// Passes over tokens of several conversations against passes over each by itself.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <list>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qwen35/aligned_vectors.h"
#include "qwen35/forward.h"
#include "qwen35/replay.h"
#include "qwen35/snapshot.h"
#include "tests/qwen35/tested_tables.h"
#include "tests/support/family_shapes.h"
#include "tests/support/float_bits.h"
#include "tests/support/instrumented.h"
#include "tests/support/opened_model.h"

namespace {

using kel::QuantType;
using kel::test::Bits;
using kel::test::bitsOf;
using kel::test::kInstrumented;
using kel::test::ModelFile;
using kel::test::RandomModelSpec;
using qwen35::Arithmetic;
using qwen35::CacheType;

using Tokens = std::vector<size_t>;

constexpr size_t kVocab = 101;
constexpr size_t kPositions = 96;
constexpr size_t kMostTokens = 40;  // of a pass
constexpr QuantType kTypes[] = {QuantType::F32, QuantType::BF16, QuantType::Q8_0, QuantType::Q4_K,
                                QuantType::Q5_K};

RandomModelSpec specOf(const std::vector<QuantType>& types) {
  return {.hidden = 256,
          .ffn = 256,
          .vocab = kVocab,
          .types = types,
          .biases = true,
          .shape = kel::test::familyShape(4, 8, 2, 16, true),
          .statesShape = true};
}

RandomModelSpec oddSpec() {
  return {.hidden = 8,
          .ffn = 16,
          .vocab = kVocab,
          .biases = true,
          .shape = kel::test::oddShape(),
          .statesShape = true};
}

Tokens someTokens(size_t n, unsigned seed) {
  Tokens tokens(n);
  std::mt19937 generator(seed);
  for (size_t& token : tokens) {
    token = generator() % kVocab;
  }
  return tokens;
}

// A model file that is open once for all conversations over it.
struct OpenFile {
  explicit OpenFile(const RandomModelSpec& spec) : file(spec), shape(spec.shape) {
    if (!loader.open(file.path.c_str()).ok()) {
      throw std::runtime_error("model does not open");
    }
  }

  ModelFile file;
  kel::ModelShape shape;
  kel::ZYMLoader loader;
};

struct Conversation {
  Conversation(const OpenFile& file, size_t positions, CacheType cacheType)
      : model{.shape = file.shape, .cacheType = cacheType} {
    if (!qwen35::initLayers(file.loader, model, positions) ||
        !qwen35::bindModel(file.loader, model, positions)) {
      throw std::runtime_error("model does not bind");
    }
    qwen35::alignVectors(model);
  }

  qwen35::Model model;
  size_t position = 0;
  Bits hidden;  // of the last pass
  Bits logits;
};

std::vector<float> embeddingsOf(Conversation& c, const Tokens& tokens) {
  std::vector<float> rows(tokens.size() * c.model.nEmbd);
  for (size_t i = 0; i < tokens.size(); ++i) {
    embedRow(c.model, tokens[i], rows.data() + i * c.model.nEmbd);
  }
  return rows;
}

// A pass over one conversation's tokens.
void feedAlone(qwen35::Context& context, Conversation& c, const Tokens& tokens,
               Arithmetic arithmetic) {
  const std::vector<float> embeddings = embeddingsOf(c, tokens);
  std::vector<float> hidden(embeddings.size());
  std::vector<float> logits(tokens.size() * kVocab);
  forward(context, c.model,
          {.embeddings = embeddings.data(),
           .count = tokens.size(),
           .pos = c.position,
           .arithmetic = arithmetic,
           .hidden = hidden.data(),
           .logits = logits.data(),
           .allLogits = true});
  c.position += tokens.size();
  c.hidden = bitsOf(hidden);
  c.logits = bitsOf(logits);
}

// A token of a pass of its own, one after the other.
void feedOneByOne(qwen35::Context& context, Conversation& c, const Tokens& tokens) {
  Bits hidden;
  Bits logits;
  for (const size_t token : tokens) {
    feedAlone(context, c, {token}, Arithmetic::SingleToken);
    hidden.insert(hidden.end(), c.hidden.begin(), c.hidden.end());
    logits.insert(logits.end(), c.logits.begin(), c.logits.end());
  }
  c.hidden = hidden;
  c.logits = logits;
}

struct Turn {
  Conversation* conversation;
  Tokens tokens;
  qwen35::Snapshot* before = nullptr;
  qwen35::Replay* replay = nullptr;
};

// One pass over the tokens of all.
void feedShared(qwen35::Context& context, const std::vector<Turn>& turns) {
  std::vector<qwen35::Sequence> sequences;
  std::vector<float> embeddings;
  size_t count = 0;
  for (const Turn& turn : turns) {
    sequences.push_back({.model = &turn.conversation->model,
                         .first = count,
                         .count = turn.tokens.size(),
                         .pos = turn.conversation->position,
                         .before = turn.before,
                         .replay = turn.replay});
    const std::vector<float> rows = embeddingsOf(*turn.conversation, turn.tokens);
    embeddings.insert(embeddings.end(), rows.begin(), rows.end());
    count += turn.tokens.size();
  }
  const size_t width = turns.front().conversation->model.nEmbd;
  std::vector<float> hidden(count * width);
  std::vector<float> logits(count * kVocab);
  forwardShared(context, {.sequences = sequences,
                          .embeddings = embeddings.data(),
                          .hidden = hidden.data(),
                          .logits = logits.data()});
  for (size_t s = 0; s < turns.size(); ++s) {
    Conversation& c = *turns[s].conversation;
    const auto& [first, n] = std::pair(sequences[s].first, sequences[s].count);
    c.position += n;
    c.hidden = bitsOf({hidden.data() + first * width, n * width});
    c.logits = bitsOf({logits.data() + first * kVocab, n * kVocab});
  }
}

// Of everything that passes leave behind.
bool haveSameState(const qwen35::Model& a, const qwen35::Model& b) {
  const auto same = [](const qwen35::StateBuffer& one, const qwen35::StateBuffer& other) {
    return one.size() == other.size() &&
           (one.empty() || std::memcmp(one.data(), other.data(), one.size() * sizeof(float)) == 0);
  };
  return std::equal(a.layers.begin(), a.layers.end(), b.layers.begin(), b.layers.end(),
                    [&](const qwen35::Layer& one, const qwen35::Layer& other) {
                      return one.pos == other.pos && same(one.ssmState, other.ssmState) &&
                             same(one.convState, other.convState) &&
                             same(one.kCache, other.kCache) && same(one.vCache, other.vCache);
                    });
}

void expectSame(const Conversation& expected, const Conversation& actual, const std::string& what) {
  EXPECT_EQ(expected.hidden, actual.hidden) << what;
  EXPECT_EQ(expected.logits, actual.logits) << what;
  EXPECT_TRUE(haveSameState(expected.model, actual.model)) << what;
}

// The same conversations twice: to be fed together, and each alone. Their prompts have the lengths
// given; every second one has fewer positions and every third one caches of 16 bits.
class Pairs {
 public:
  Pairs(const OpenFile& file, const std::vector<size_t>& promptLengths,
        const qwen35::ContextOptions& options = {})
      : widest(file, kPositions, CacheType::F32),
        plain(widest.model, {.maxTokens = kMostTokens}),
        shared(widest.model,
               {.maxTokens = kMostTokens, .threads = options.threads, .kernels = options.kernels}) {
    qwen35::Context prompts(widest.model, {.maxTokens = kPositions});
    for (size_t i = 0; i < promptLengths.size(); ++i) {
      const CacheType type = i % 3 == 2 ? CacheType::BF16 : CacheType::F32;
      const size_t positions = i % 2 == 0 ? kPositions : kPositions - 7;
      for (auto* all : {&alone, &together}) {
        all->emplace_back(file, positions, type);
        if (promptLengths[i] > 0) {
          feedAlone(prompts, all->back(), someTokens(promptLengths[i], static_cast<unsigned>(i)),
                    Arithmetic::Batch);
        }
      }
    }
  }

  // Feeds so many tokens to each, and compares all that comes of it.
  void feedAndCompare(const std::vector<size_t>& counts, const std::string& what) {
    std::vector<Turn> turns;
    auto own = alone.begin();
    auto conversation = together.begin();
    for (const size_t count : counts) {
      turns.push_back({&*conversation++, someTokens(count, ++seed)});
      feedOneByOne(plain, *own++, turns.back().tokens);
    }
    feedShared(shared, turns);
    compare(what);
  }

  void compare(const std::string& what) {
    auto own = alone.begin();
    size_t index = 0;
    for (const Conversation& conversation : together) {
      expectSame(*own++, conversation, what + ", conversation " + std::to_string(index++));
    }
  }

  Conversation widest;  // what the contexts are made for
  qwen35::Context plain;
  qwen35::Context shared;
  std::list<Conversation> alone;
  std::list<Conversation> together;
  unsigned seed = 100;
};

// From the empty conversation to one with more positions than scores are formed of in a piece.
TEST(SharedPass, ATokenHasTheBitsOfItsOwnPassForEveryType) {
  for (const QuantType type : kTypes) {
    const OpenFile file(specOf({type}));
    // Around the count at which products change their ways, and more than attend at a time.
    for (const std::vector<size_t>& prompts :
         {std::vector<size_t>{9, 2}, {5, 0, 3}, {0, 9, 70, 3, 1, 2, 64, 5, 4, 2}}) {
      Pairs pairs(file, prompts);
      for (const char* turn : {"first turn", "second turn"}) {
        pairs.feedAndCompare(std::vector<size_t>(prompts.size(), 1),
                             std::string(kel::quantTypeName(type)) + " of " +
                                 std::to_string(prompts.size()) + ", " + turn);
      }
      if (kInstrumented) {
        break;
      }
    }
  }
}

TEST(SharedPass, ConversationsMayHaveSeveralTokensEach) {
  const OpenFile file(specOf({QuantType::Q4_K, QuantType::Q8_0, QuantType::F32}));
  const OpenFile odd(oddSpec());
  for (const OpenFile* model : {&file, &odd}) {
    Pairs pairs(*model, {5, 60, 0});
    // Tokens of one conversation that attend in two goes, and of two conversations in one go.
    for (const std::vector<size_t>& counts :
         {std::vector<size_t>{1, 1, 1}, {5, 2, 3}, {9, 1, 17}, {7, 8, 1}}) {
      pairs.feedAndCompare(counts, std::to_string(counts[0]) + " tokens of the first");
    }
  }
}

TEST(SharedPass, NeitherThreadsNorInstructionSetsChangeABit) {
  const int before = omp_get_max_threads();
  const OpenFile file(
      specOf({QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K, QuantType::BF16, QuantType::F32}));
  const OpenFile odd(oddSpec());
  for (const qwen35::KernelTable* table : qwen35::testedTables()) {
    for (const size_t threads : {1, 2, 3, 7}) {
      omp_set_num_threads(static_cast<int>(threads));
      // The large model, which takes plain kernels long, not with all of both.
      const bool isOdd = table != &qwen35::kernels() && threads != 3;
      Pairs pairs(isOdd ? odd : file, {2, 0, 5, 1}, {.threads = threads, .kernels = table});
      pairs.feedAndCompare({1, 1, 1, 1}, std::string(table->name) + std::to_string(threads));
    }
  }
  omp_set_num_threads(before);
}

TEST(SharedPass, ConversationsComeAndGo) {
  const OpenFile file(oddSpec());
  Pairs pairs(file, {4, 0, 30, 11});
  for (const std::vector<size_t>& present :
       {std::vector<size_t>{0, 1, 2, 3}, {3}, {2, 0}, {1, 3, 0}}) {
    std::vector<Turn> turns;
    for (const size_t i : present) {
      const auto at = static_cast<std::ptrdiff_t>(i);
      turns.push_back({&*std::next(pairs.together.begin(), at), someTokens(1, ++pairs.seed)});
      feedOneByOne(pairs.plain, *std::next(pairs.alone.begin(), at), turns.back().tokens);
    }
    feedShared(pairs.shared, turns);
    pairs.compare("of " + std::to_string(present.size()));
  }
}

TEST(SharedPass, TokensOfOneConversationAreTakenBackAlone) {
  const OpenFile file(oddSpec());
  Pairs pairs(file, {6, 20});
  Conversation& guessing = pairs.together.front();
  Conversation& other = pairs.together.back();
  qwen35::Snapshot before(guessing.model);
  qwen35::Replay replay(guessing.model, 4);
  qwen35::Snapshot otherBefore(other.model);
  qwen35::Replay otherReplay(other.model, 3);
  const Tokens tokens = {7, 8, 9, 10};
  // The second one's are behind those of the first, in the pass but not in its replay.
  feedShared(pairs.shared, {{&guessing, tokens, &before, &replay},
                            {&other, {1, 2, 3}, &otherBefore, &otherReplay}});
  keepTokens(pairs.shared, guessing.model, before, replay, 2);
  keepTokens(pairs.shared, other.model, otherBefore, otherReplay, 1);
  guessing.position -= 2;
  other.position -= 2;
  feedOneByOne(pairs.plain, pairs.alone.front(), {7, 8});
  feedOneByOne(pairs.plain, pairs.alone.back(), {1});
  // Which overwrites the cache rows of what did not.
  pairs.feedAndCompare({3, 3}, "behind what stayed");
}

TEST(SharedPass, NumbersThatAreNotFiniteStayWithTheirConversation) {
  for (const float odd : {std::numeric_limits<float>::infinity(), std::nanf("")}) {
    RandomModelSpec spec = specOf({QuantType::Q4_K, QuantType::Q5_K, QuantType::BF16});
    spec.edit = [odd](std::vector<kel::test::TensorPlan>& plan) {
      kel::test::TensorPlan& table = kel::test::planned(plan, "token_embd.weight");
      table.type = QuantType::F32;
      table.data = kel::test::tensorBytes(table, 1);
      std::memcpy(table.data.data() + (size_t{7} * 256 + 30) * sizeof odd, &odd, sizeof odd);
    };
    const OpenFile file(spec);
    Pairs pairs(file, {});
    for (auto* all : {&pairs.alone, &pairs.together}) {
      for (size_t i = 0; i < 4; ++i) {
        all->emplace_back(file, kPositions, CacheType::F32);
      }
    }
    const Tokens tokens = {1, 7, 2, 3};
    for (size_t turn = 0; turn < 2; ++turn) {
      std::vector<Turn> turns;
      auto own = pairs.alone.begin();
      auto conversation = pairs.together.begin();
      for (const size_t token : tokens) {
        turns.push_back({&*conversation++, {turn == 0 ? token : 4}});
        feedOneByOne(pairs.plain, *own++, turns.back().tokens);
      }
      feedShared(pairs.shared, turns);
      for (const std::ptrdiff_t i : {0, 2, 3}) {
        expectSame(*std::next(pairs.alone.begin(), i), *std::next(pairs.together.begin(), i),
                   "conversation " + std::to_string(i));
      }
      const Bits& hidden = std::next(pairs.together.begin())->hidden;
      EXPECT_TRUE(std::all_of(hidden.begin(), hidden.end(),
                              [](uint32_t b) { return std::isnan(std::bit_cast<float>(b)); }));
    }
  }
}

}  // namespace
