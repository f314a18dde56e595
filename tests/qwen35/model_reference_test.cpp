// The whole model against an independent account in double precision.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "tests/support/hidden_dump.h"
#include "tests/support/instrumented.h"
#include "tests/support/opened_model.h"
#include "tests/support/reference_model.h"
#include "tests/support/scoped_env.h"

namespace {

using kel::QuantType;
using kel::test::DumpRecord;
using kel::test::Handle;
using kel::test::ModelFile;
using kel::test::RandomModelSpec;
using kel::test::ReferenceLayer;
using kel::test::ReferenceRun;
using kel::test::Vector;

constexpr size_t kTokens = kel::test::kInstrumented ? 12 : 40;
constexpr size_t kLayers = kel::test::kInstrumented ? 5 : 32;
constexpr size_t kRecords = kLayers * 5 + 1;  // of a token's dump
constexpr double kTolerance = 1e-4;

// |got - expected| / |expected|, as vectors.
double relativeError(const Vector& expected, const float* got) {
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    difference += (got[i] - expected[i]) * (got[i] - expected[i]);
    size += expected[i] * expected[i];
  }
  return size == 0 ? std::sqrt(difference) : std::sqrt(difference / size);
}

void compareLayers(const ReferenceRun& reference, const std::vector<DumpRecord>& dump) {
  ASSERT_EQ(kTokens * kRecords, dump.size());
  double worst = 0;
  for (size_t t = 0; t < kTokens; ++t) {
    for (size_t l = 0; l < kLayers; ++l) {
      const ReferenceLayer& layer = reference.layers[l];
      const Vector* const expected[] = {&layer.attn[t], &layer.residual[t], &layer.normed[t],
                                        &layer.ffn[t], &layer.out[t]};
      for (size_t i = 0; i < 5; ++i) {
        const DumpRecord& record = dump[t * kRecords + l * 5 + i];
        const double error = relativeError(*expected[i], record.values.data());
        worst = std::max(worst, error);
        ASSERT_LE(error, kTolerance) << record.name << " of token " << t;
      }
    }
    ASSERT_LE(relativeError(reference.result[t], dump[(t + 1) * kRecords - 1].values.data()),
              kTolerance);
  }
  testing::Test::RecordProperty("worstRelativeError", std::to_string(worst));
}

void compareLogits(const Vector& expected, const std::vector<float>& logits, size_t t) {
  EXPECT_LE(relativeError(expected, logits.data()), kTolerance) << "logits of token " << t;
  double error = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    error = std::max(error, std::abs(logits[i] - expected[i]));
  }
  Vector sorted = expected;
  std::partial_sort(sorted.begin(), sorted.begin() + 2, sorted.end(), std::greater<>());
  if (sorted[0] - sorted[1] > 2 * error) {
    EXPECT_EQ(std::max_element(expected.begin(), expected.end()) - expected.begin(),
              std::max_element(logits.begin(), logits.end()) - logits.begin())
        << "best token after token " << t;
  }
}

void compareState(const ReferenceLayer& expected, const qwen35::Layer& layer, size_t maxCtx,
                  size_t l) {
  if (layer.isLinear) {
    EXPECT_LE(relativeError(expected.ssmState, layer.ssmState.data()), kTolerance) << l;
    EXPECT_LE(relativeError(expected.convState, layer.convState.data()), kTolerance) << l;
    return;
  }
  EXPECT_EQ(kTokens, layer.pos);
  for (size_t g = 0; g < 4; ++g) {
    const auto ofHead = [&](const Vector& all) {
      const auto begin = all.begin() + static_cast<std::ptrdiff_t>(g * kTokens * 256);
      return Vector(begin, begin + kTokens * 256);
    };
    const size_t row = g * maxCtx * 256;
    EXPECT_LE(relativeError(ofHead(expected.keys), layer.kCache.data() + row), kTolerance) << l;
    EXPECT_LE(relativeError(ofHead(expected.values), layer.vCache.data() + row), kTolerance) << l;
  }
}

void compareWithReference(RandomModelSpec spec) {
  spec.blocks = kLayers;
  const ModelFile file(spec);
  Handle handle(file);
  std::vector<size_t> tokens;
  for (size_t t = 0; t < kTokens; ++t) {
    tokens.push_back(t * 7919 % spec.vocab);
  }
  const ReferenceRun reference = kel::test::runReference(handle.loader, tokens, handle.model.shape);

  const std::string dump = file.folder.file("dump");
  const kel::test::ScopedEnv dumpTo("QWEN35_HID_DUMP", dump.c_str());
  for (size_t t = 0; t < kTokens; ++t) {
    compareLogits(reference.logits[t], handle.logits(tokens[t]), t);
  }
  compareLayers(reference, kel::test::readHiddenDump(dump));
  for (size_t l = 0; l < kLayers; ++l) {
    compareState(reference.layers[l], handle.model.layers[l], handle.model.maxCtx, l);
  }
}

TEST(ModelReference, F32Hidden64WithBiases) {
  compareWithReference(
      {.hidden = 64, .ffn = 256, .vocab = 1000, .types = {QuantType::F32}, .biases = true});
}

TEST(ModelReference, Bf16Hidden64WithoutBiases) {
  compareWithReference({.hidden = 64, .ffn = 256, .vocab = 300, .types = {QuantType::BF16}});
}

TEST(ModelReference, Q80Hidden64) {
  compareWithReference({.hidden = 64, .ffn = 256, .vocab = 300, .types = {QuantType::Q8_0}});
}

TEST(ModelReference, Q4KHidden256WithBiases) {
  compareWithReference(
      {.hidden = 256, .ffn = 256, .vocab = 500, .types = {QuantType::Q4_K}, .biases = true});
}

TEST(ModelReference, Q5KHidden256) {
  compareWithReference({.hidden = 256, .ffn = 512, .vocab = 500, .types = {QuantType::Q5_K}});
}

TEST(ModelReference, EveryTypeInOneModel) {
  compareWithReference({.hidden = 256,
                        .ffn = 256,
                        .vocab = 777,
                        .types = {QuantType::F32, QuantType::Q5_K, QuantType::BF16, QuantType::Q8_0,
                                  QuantType::Q4_K},
                        .biases = true,
                        .layerKinds = "LFLLF",
                        .seed = 2});
}

}  // namespace
