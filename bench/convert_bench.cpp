// Speed of whole conversions of a GGUF file in BF16 into each stored type: reading, encoding,
// checksums, writing and syncing, on the number of threads in the name.
//
// bytes_per_second counts the source's tensors. The model has the layers of a real one with rows of
// 256 and is written to the temporary folder (some 330 MB, and as much again for the target).
// Weights are normally distributed, seed 1. Median and spread: --benchmark_repetitions=5.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>

#include "container/model_shape.h"
#include "convert/convert.h"
#include "convert/model_layout.h"
#include "quant/bfloat16.h"
#include "tests/convert/gguf_builder.h"

namespace {

using kel::QuantType;
using kel::convert::TensorSpec;
using kel::convert::ValueForm;
using kel::test::Bytes;
using kel::test::GgufBuilder;

constexpr kel::ModelSizes kSizes = {256, 1024, 4096};
constexpr size_t kPatternElements = 1 << 20;

Bytes weights(std::mt19937& random) {
  std::normal_distribution<float> gauss(0, 0.02F);
  Bytes bytes;
  bytes.reserve(kPatternElements * sizeof(uint16_t));
  for (size_t i = 0; i < kPatternElements; ++i) {
    kel::test::appendNumber(bytes, kel::quant::f32ToBf16(gauss(random)));
  }
  return bytes;
}

Bytes constants(uint64_t n, float value) {
  Bytes bytes;
  for (uint64_t i = 0; i < n; ++i) {
    kel::test::appendNumber(bytes, value);
  }
  return bytes;
}

GgufBuilder::Tensor sourceTensor(const TensorSpec& spec, const Bytes& pattern) {
  uint64_t n = 1;
  for (const uint64_t dim : spec.dims) {
    n *= dim;
  }
  if (spec.tensor->kind != kel::TensorKind::Matrix) {
    return {spec.name, spec.dims, 0, constants(n, spec.form == ValueForm::Decay ? -1.0F : 1.0F)};
  }
  GgufBuilder::Tensor tensor{spec.name, spec.dims, 30};
  tensor.data.resize(n * sizeof(uint16_t));
  for (size_t at = 0; at < tensor.data.size(); at += pattern.size()) {
    const auto length = std::min(pattern.size(), tensor.data.size() - at);
    std::copy_n(pattern.begin(), length, tensor.data.begin() + static_cast<std::ptrdiff_t>(at));
  }
  return tensor;
}

void addShape(GgufBuilder& file) {
  constexpr const kel::ModelShape& kShape = kel::kFixedShape;
  const std::pair<const char*, uint64_t> numbers[] = {
      {"block_count", kShape.layers},
      {"context_length", kShape.contextLength},
      {"full_attention_interval", kShape.fullInterval()},
      {"attention.head_count", kShape.queryHeads},
      {"attention.head_count_kv", kShape.kvHeads},
      {"attention.key_length", kShape.headDim},
      {"attention.value_length", kShape.headDim},
      {"rope.dimension_count", kShape.ropeDim},
      {"ssm.conv_kernel", kShape.convTaps},
      {"ssm.state_size", kShape.linearKeyDim},
      {"ssm.group_count", kShape.linearKeyHeads},
      {"ssm.time_step_rank", kShape.linearValueHeads},
      {"ssm.inner_size", kShape.linearValueWidth()},
  };
  for (const auto& [name, value] : numbers) {
    file.u32(std::string("qwen35.") + name, static_cast<uint32_t>(value));
  }
  file.f32("qwen35.rope.freq_base", static_cast<float>(kShape.ropeBase));
  file.f32("qwen35.attention.layer_norm_rms_epsilon", static_cast<float>(kShape.normEps));
}

// Written once, removed at exit.
const std::string& sourceFolder() {
  static const kel::test::TempDir folder;
  static const std::string path = [] {
    GgufBuilder file;
    file.text("general.architecture", "qwen35");
    addShape(file);
    file.text("tokenizer.ggml.model", "gpt2");
    file.texts("tokenizer.ggml.tokens", {"a", "\u0120", "\u0120a"});
    file.array<int32_t>("tokenizer.ggml.token_type", 5, {1, 1, 1});
    file.texts("tokenizer.ggml.merges", {"\u0120 a"});
    std::mt19937 random(1);
    const Bytes pattern = weights(random);
    for (const TensorSpec& spec : kel::convert::modelTensors(kel::kFixedShape, kSizes, 0)) {
      if (spec.tensor->required) {
        file.tensors.push_back(sourceTensor(spec, pattern));
      }
    }
    file.write(folder.file("source.gguf"));
    return folder.path().string();
  }();
  return path;
}

void convertModel(benchmark::State& state, QuantType type) {
  kel::convert::ConvertOptions options;
  options.source = sourceFolder() + "/source.gguf";
  options.target = sourceFolder() + "/target.zym";
  options.storage.type = type;
  options.force = true;
  options.threads = static_cast<unsigned>(state.range(0));
  kel::convert::ProgressSink quiet;
  int64_t nBytes = 0;
  for ([[maybe_unused]] auto step : state) {
    const kel::convert::ConvertResult result = kel::convert::convertModel(options, quiet);
    if (!result.status.ok()) {
      state.SkipWithError(result.status.message.c_str());
      break;
    }
    nBytes += static_cast<int64_t>(result.summary.sourceBytes);
  }
  state.SetBytesProcessed(nBytes);
}

void threadCounts(benchmark::internal::Benchmark* bench) {
  bench->ArgName("threads")->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(convertModel, bf16, QuantType::BF16)->Apply(threadCounts);
BENCHMARK_CAPTURE(convertModel, q8_0, QuantType::Q8_0)->Apply(threadCounts);
BENCHMARK_CAPTURE(convertModel, q5_k, QuantType::Q5_K)->Apply(threadCounts);
BENCHMARK_CAPTURE(convertModel, q4_k, QuantType::Q4_K)->Apply(threadCounts);

}  // namespace
