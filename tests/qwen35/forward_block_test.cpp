// Blocks of tokens against single ones, and against blocks cut elsewhere.
#include "qwen35/forward_block.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <random>
#include <vector>

#include "qwen35/recurrent_state.h"
#include "tests/support/instrumented.h"
#include "tests/support/opened_model.h"

namespace {

using kel::QuantType;
using kel::test::Handle;
using kel::test::ModelFile;

using Bits = std::vector<uint32_t>;

constexpr size_t kTokens = 70;
constexpr size_t kLengthStep = kel::test::kInstrumented ? 9 : 1;
constexpr int kCuts = kel::test::kInstrumented ? 1 : 4;

Bits bits(const float* values, size_t n) {
  Bits out;
  for (size_t i = 0; i < n; ++i) {
    out.push_back(std::bit_cast<uint32_t>(values[i]));
  }
  return out;
}

std::vector<size_t> prompt(size_t n) {
  std::vector<size_t> tokens(n);
  std::mt19937 generator(9);
  for (size_t& token : tokens) {
    token = generator() % 300;
  }
  return tokens;
}

// Feeds tokens [begin, begin + count) as one block; returns their hidden states.
Bits feedBlock(Handle& handle, const std::vector<size_t>& tokens, size_t begin, size_t count) {
  const size_t n = handle.model.nEmbd;
  std::vector<float> emb(count * n);
  for (size_t i = 0; i < count; ++i) {
    qwen35::embedRow(handle.model, tokens[begin + i], emb.data() + i * n);
  }
  std::vector<float> hidden(count * n);
  qwen35::forwardBlock(handle.model, emb.data(), count, handle.position, hidden.data());
  handle.position += count;
  return bits(hidden.data(), hidden.size());
}

// Everything that the forward pass leaves behind.
std::vector<Bits> stateOf(const qwen35::Model& m) {
  std::vector<Bits> out;
  for (const qwen35::Layer& layer : m.layers) {
    out.push_back({static_cast<uint32_t>(layer.pos), static_cast<uint32_t>(layer.written)});
    for (const qwen35::StateBuffer* buffer :
         {&layer.ssmState, &layer.convState, &layer.kCache, &layer.vCache}) {
      out.push_back(bits(buffer->data(), buffer->size()));
    }
  }
  return out;
}

ModelFile modelOf(const std::vector<QuantType>& types) {
  return ModelFile({.hidden = 256, .ffn = 256, .vocab = 301, .types = types, .biases = true});
}

TEST(ForwardBlock, EveryLengthGivesTheBitsOfSingleTokens) {
  const ModelFile file({.biases = true, .layerKinds = "FFFFFFFL"});
  const std::vector<size_t> tokens = prompt(kTokens);
  Handle single(file.path, kTokens);
  Bits expected;
  for (const size_t token : tokens) {
    const Bits one = bits(single.hidden(token).data(), single.model.nEmbd);
    expected.insert(expected.end(), one.begin(), one.end());
  }
  Handle block(file.path, kTokens);
  for (size_t length = 1; length <= kTokens; length += kLengthStep) {
    block.reset();
    const Bits actual = feedBlock(block, tokens, 0, length);
    EXPECT_TRUE(std::equal(actual.begin(), actual.end(), expected.begin())) << length;
  }
  block.reset();
  feedBlock(block, tokens, 0, kTokens);
  EXPECT_EQ(stateOf(single.model), stateOf(block.model));
}

TEST(ForwardBlock, GivesTheBitsOfSingleTokensForEveryType) {
  const ModelFile file =
      modelOf({QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K, QuantType::BF16, QuantType::F32});
  const std::vector<size_t> tokens = prompt(12);
  Handle single(file.path);
  Handle block(file.path);
  Bits expected;
  for (size_t i = 0; i < 11; ++i) {
    const Bits one = bits(single.hidden(tokens[i]).data(), single.model.nEmbd);
    expected.insert(expected.end(), one.begin(), one.end());
  }
  EXPECT_EQ(expected, feedBlock(block, tokens, 0, 11));
  EXPECT_EQ(stateOf(single.model), stateOf(block.model));
  EXPECT_EQ(bits(single.logits(tokens[11]).data(), 301),
            bits(block.logits(tokens[11]).data(), 301));
}

// To one model token by token, each with its logits, to the other as a block.
void feedAllButLast(Handle& single, Handle& block, const std::vector<size_t>& tokens) {
  for (size_t i = 0; i + 1 < tokens.size(); ++i) {
    single.logits(tokens[i]);
  }
  feedBlock(block, tokens, 0, tokens.size() - 1);
}

TEST(ForwardBlock, StaysCloseToSingleTokensForCodedTypes) {
  const ModelFile file = modelOf({QuantType::Q4_K, QuantType::Q5_K});
  const std::vector<size_t> tokens = prompt(12);
  Handle single(file.path);
  Handle block(file.path);
  feedAllButLast(single, block, tokens);
  const std::vector<float> expected = single.logits(tokens[11]);
  const std::vector<float> actual = block.logits(tokens[11]);
  float largest = 0.0f;
  for (const float logit : expected) {
    largest = std::max(largest, std::abs(logit));
  }
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NEAR(expected[i], actual[i], 1e-4f * largest) << i;
  }
}

// The tokens that greedy decoding yields after a prompt that ended with `last`.
std::vector<size_t> greedyTokens(Handle& handle, size_t last, size_t count) {
  std::vector<size_t> out;
  for (size_t i = 0; i < count; ++i) {
    const std::vector<float> logits = handle.logits(last);
    last = static_cast<size_t>(std::max_element(logits.begin(), logits.end()) - logits.begin());
    out.push_back(last);
  }
  return out;
}

TEST(ForwardBlock, GreedyTokensOfCodedTypesAreThoseAfterSingleTokens) {
  const ModelFile file = modelOf({QuantType::Q4_K, QuantType::Q5_K});
  const std::vector<size_t> tokens = prompt(12);
  Handle single(file.path);
  Handle block(file.path);
  feedAllButLast(single, block, tokens);
  EXPECT_EQ(greedyTokens(single, tokens[11], 24), greedyTokens(block, tokens[11], 24));
}

TEST(ForwardBlock, ResultsDoNotDependOnTheCut) {
  const ModelFile file =
      modelOf({QuantType::Q4_K, QuantType::Q8_0, QuantType::Q5_K, QuantType::BF16, QuantType::F32});
  const std::vector<size_t> tokens = prompt(kTokens);
  Handle whole(file.path, kTokens);
  const Bits expected = feedBlock(whole, tokens, 0, kTokens);
  std::mt19937 generator(10);
  for (int cut = 0; cut < kCuts; ++cut) {
    Handle handle(file.path, kTokens);
    Bits actual;
    for (size_t at = 0; at < kTokens;) {
      const size_t count = std::min<size_t>(1 + generator() % 20, kTokens - at);
      const Bits part = feedBlock(handle, tokens, at, count);
      actual.insert(actual.end(), part.begin(), part.end());
      at += count;
    }
    EXPECT_EQ(expected, actual);
    EXPECT_EQ(stateOf(whole.model), stateOf(handle.model));
  }
}

TEST(RecurrentState, GoesBackToWhereItWasSaved) {
  const ModelFile file;
  const std::vector<size_t> tokens = prompt(20);
  Handle expected(file.path);
  feedBlock(expected, tokens, 0, 5);
  Handle handle(file.path);
  feedBlock(handle, tokens, 0, 5);
  qwen35::RecurrentState saved;
  saved.save(handle.model);
  feedBlock(handle, tokens, 5, 9);
  saved.restore(handle.model);
  handle.position = 5;
  EXPECT_EQ(feedBlock(expected, tokens, 5, 3), feedBlock(handle, tokens, 5, 3));
  EXPECT_EQ(bits(expected.logits(1).data(), 300), bits(handle.logits(1).data(), 300));
}

TEST(RecurrentState, AResetClearsWhatWasWrittenAfterTheSave) {
  const ModelFile file;
  Handle handle(file.path);
  qwen35::RecurrentState saved;
  saved.save(handle.model);
  feedBlock(handle, prompt(9), 0, 9);
  saved.restore(handle.model);
  handle.reset();
  Handle fresh(file.path);
  EXPECT_EQ(stateOf(fresh.model), stateOf(handle.model));
}

}  // namespace
