#include "tests/support/random_model.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <stdexcept>
#include <utility>

#include "container/shape_metadata.h"
#include "container/zym2_writer.h"
#include "quant/blocks.h"

namespace kel::test {

namespace {

using kel::QuantType;
using kel::quant::f32ToF16;

// xorshift64*: one multiplication per value, where a real model has a hundred million.
class Random {
 public:
  explicit Random(uint64_t seed) : state(seed | 1) {
    for (int i = 0; i < 8; ++i) {
      next();
    }
  }
  uint64_t next() {
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 0x2545F4914F6CDD1DULL;
  }
  float uniform(float low, float high) {
    return low + (high - low) * static_cast<float>(next() >> 40) * 0x1p-24f;
  }

 private:
  uint64_t state;
};

// Writes one value behind another, into bytes that have room for all.
class ValueWriter {
 public:
  explicit ValueWriter(std::vector<uint8_t>& out) : at(out.data()) {}

  template <typename T>
  void put(T value) {
    std::memcpy(at, &value, sizeof value);
    at += sizeof value;
  }
  void putRandomBytes(size_t n, Random& random) {
    for (size_t i = 0; i < n; i += sizeof(uint64_t)) {
      const uint64_t bits = random.next();
      const size_t count = std::min(n - i, sizeof bits);
      std::memcpy(at, &bits, count);
      at += count;
    }
  }

 private:
  uint8_t* at;
};

// Blocks of random codes. The scales below make the decoded values' root mean square about `rms`
// and, in the formats with a minimum, their mean about zero.
void putBlock(ValueWriter& out, QuantType type, float rms, Random& random) {
  const float scale = rms * random.uniform(0.8f, 1.2f);
  switch (type) {
    case QuantType::Q8_0:
      out.put(f32ToF16(scale / 74.0f));
      out.putRandomBytes(32, random);
      break;
    case QuantType::Q4_K:
      out.put(f32ToF16(scale / 258.0f));
      out.put(f32ToF16(scale / 258.0f * 7.5f));
      out.putRandomBytes(12 + 128, random);
      break;
    case QuantType::Q5_K:
      out.put(f32ToF16(scale / 527.0f));
      out.put(f32ToF16(scale / 527.0f * 15.5f));
      out.putRandomBytes(12 + 32 + 128, random);
      break;
    default:
      throw std::invalid_argument("no random blocks of this type");
  }
}

size_t blockLength(QuantType type) {
  switch (type) {
    case QuantType::F32:
    case QuantType::BF16:
      return 1;
    case QuantType::Q8_0:
      return 32;
    default:
      return 256;
  }
}

size_t blockBytes(QuantType type) {
  return kel::quant::quantizedBytes(type, blockLength(type));
}

uint64_t elementCount(const TensorPlan& plan) {
  uint64_t n = 1;
  for (const uint64_t d : plan.dims) {
    n *= d;
  }
  return n;
}

class Planner {
 public:
  explicit Planner(const RandomModelSpec& modelSpec) : spec(modelSpec) {}

  std::vector<TensorPlan> take() { return std::move(plan); }

  void model() {
    matrix("token_embd.weight", spec.hidden, spec.vocab);
    vector("output_norm.weight", spec.hidden, 0.8f, 1.2f);
    if (spec.shape.ownOutput) {
      matrix("output.weight", spec.hidden, spec.vocab);
    }
    const size_t layers = spec.statesShape ? spec.shape.layers : spec.blocks;
    for (size_t i = 0; i < layers; ++i) {
      prefix = "blk." + std::to_string(i) + ".";
      layer(spec.statesShape ? !spec.shape.isFull(static_cast<uint32_t>(i))
                             : spec.layerKinds[i % spec.layerKinds.size()] == 'L');
    }
  }

 private:
  void layer(bool linear) {
    vector("attn_norm.weight", spec.hidden, 0.8f, 1.2f);
    vector("post_attention_norm.weight", spec.hidden, 0.8f, 1.2f);
    matrix("ffn_gate.weight", spec.hidden, spec.ffn);
    matrix("ffn_up.weight", spec.hidden, spec.ffn);
    matrix("ffn_down.weight", spec.ffn, spec.hidden);
    linear ? linearAttention() : fullAttention();
  }

  void linearAttention() {
    const uint64_t values = shape.linearValueHeads * shape.linearValueDim;
    const uint64_t channels = 2 * shape.linearKeyHeads * shape.linearKeyDim + values;
    matrix("attn_qkv.weight", spec.hidden, channels);
    matrix("attn_gate.weight", spec.hidden, values);
    matrix("ssm_beta.weight", spec.hidden, shape.linearValueHeads);
    matrix("ssm_alpha.weight", spec.hidden, shape.linearValueHeads);
    vector("ssm_dt.bias", shape.linearValueHeads, -2.0f, 2.0f);
    vector("ssm_a", shape.linearValueHeads, -1.5f, -0.01f);
    matrix("ssm_conv1d.weight", shape.convTaps, channels);
    plan.back().type = QuantType::F32;
    vector("ssm_norm.weight", shape.linearValueDim, 0.8f, 1.2f);
    matrix("ssm_out.weight", values, spec.hidden);
  }

  void fullAttention() {
    const uint64_t queries = shape.queryHeads * shape.headDim;
    const uint64_t keys = shape.kvHeads * shape.headDim;
    matrix("attn_q.weight", spec.hidden, 2 * queries);
    matrix("attn_k.weight", spec.hidden, keys);
    matrix("attn_v.weight", spec.hidden, keys);
    matrix("attn_output.weight", queries, spec.hidden);
    vector("attn_q_norm.weight", shape.headDim, 0.8f, 1.2f);
    vector("attn_k_norm.weight", shape.headDim, 0.8f, 1.2f);
    if (spec.biases) {
      vector("attn_q.bias", 2 * queries, -0.5f, 0.5f);
      vector("attn_k.bias", keys, -0.5f, 0.5f);
      vector("attn_v.bias", keys, -0.5f, 0.5f);
    }
  }

  void matrix(const char* suffix, uint64_t cols, uint64_t rows) {
    plan.push_back({.name = prefix + suffix, .type = nextType(cols), .dims = {cols, rows}});
  }

  void vector(const char* suffix, uint64_t n, float low, float high) {
    plan.push_back({.name = prefix + suffix, .dims = {n}, .low = low, .high = high});
  }

  QuantType nextType(uint64_t cols) {
    for (size_t tries = 0; tries < spec.types.size(); ++tries) {
      const QuantType type = spec.types[turn++ % spec.types.size()];
      if (cols % blockLength(type) == 0) {
        return type;
      }
    }
    return QuantType::F32;
  }

  const RandomModelSpec& spec;
  const kel::ModelShape& shape = spec.shape;
  std::vector<TensorPlan> plan;
  std::string prefix;
  size_t turn = 0;
};

// In pieces of as many rows as distinctBytes hold, each the same.
kel::Status addTensor(kel::ZYM2Writer& writer, const TensorPlan& entry,
                      const RandomModelSpec& spec) {
  TensorPlan piece = entry;
  if (entry.dims.size() == 2 && entry.data.empty()) {
    const uint64_t rowBytes =
        entry.dims[0] / blockLength(entry.type) * uint64_t{blockBytes(entry.type)};
    piece.dims[1] = std::clamp<uint64_t>(spec.distinctBytes / std::max<uint64_t>(rowBytes, 1), 1,
                                         std::max<uint64_t>(entry.dims[1], 1));
  }
  const std::vector<uint8_t> bytes = tensorBytes(piece, spec.seed);
  if (piece.dims == entry.dims) {
    return writer.addTensor(entry.name, entry.type, entry.dims, bytes.data(), bytes.size());
  }
  kel::Status status = writer.beginTensor(entry.name, entry.type, entry.dims);
  const uint64_t rowBytes = bytes.size() / piece.dims[1];
  for (uint64_t row = 0; status.ok() && row < entry.dims[1]; row += piece.dims[1]) {
    const uint64_t rows = std::min(piece.dims[1], entry.dims[1] - row);
    status = writer.writeTensorData(bytes.data(), rows * rowBytes);
  }
  return status.ok() ? writer.endTensor() : status;
}

kel::TokenizerData defaultTokenizer(uint64_t vocab) {
  kel::TokenizerData tables;
  for (uint64_t i = 0; i < vocab; ++i) {
    tables.tokens.push_back(std::string("<").append(std::to_string(i)).append(">"));
    tables.tokenTypes.push_back(1);
  }
  return tables;
}

}  // namespace

std::vector<TensorPlan> planTensors(const RandomModelSpec& spec) {
  Planner planner(spec);
  planner.model();
  return planner.take();
}

TensorPlan& planned(std::vector<TensorPlan>& plan, const std::string& name) {
  const auto at = std::find_if(plan.begin(), plan.end(),
                               [&](const TensorPlan& entry) { return entry.name == name; });
  if (at == plan.end()) {
    throw std::out_of_range("no tensor planned: " + name);
  }
  return *at;
}

std::vector<uint8_t> tensorBytes(const TensorPlan& plan, uint64_t seed) {
  if (!plan.data.empty()) {
    return plan.data;
  }
  Random random(seed * 0x9E3779B97F4A7C15ULL ^ std::hash<std::string>{}(plan.name));
  const uint64_t n = elementCount(plan);
  const bool isVector = plan.dims.size() < 2;
  const float rms = 1.0f / std::sqrt(static_cast<float>(plan.dims.at(0)));
  const float bound = rms * std::sqrt(3.0f);  // of a uniform value with that root mean square
  const float low = isVector ? plan.low : -bound;
  const float high = isVector ? plan.high : bound;
  const uint64_t blocks = (n + blockLength(plan.type) - 1) / blockLength(plan.type);
  std::vector<uint8_t> bytes(blocks * blockBytes(plan.type));
  ValueWriter out(bytes);
  for (uint64_t block = 0; block < blocks; ++block) {
    if (plan.type == QuantType::F32) {
      out.put(random.uniform(low, high));
    } else if (plan.type == QuantType::BF16) {
      const float value = random.uniform(low, high);
      uint32_t bits;
      std::memcpy(&bits, &value, sizeof bits);
      out.put(static_cast<uint16_t>(bits >> 16));
    } else {
      putBlock(out, plan.type, rms, random);
    }
  }
  return bytes;
}

kel::Status writeRandomModel(const std::string& path, const RandomModelSpec& spec) {
  std::vector<TensorPlan> plan = planTensors(spec);
  if (spec.edit) {
    spec.edit(plan);
  }
  kel::ZYM2Writer writer;
  kel::Status status = writer.create(path);
  if (!spec.architecture.empty()) {
    writer.addMetaStr("general.architecture", spec.architecture);
  }
  if (!spec.chatTemplate.empty()) {
    writer.addMetaStr("tokenizer.chat_template", spec.chatTemplate);
  }
  for (const auto& [key, text] : spec.texts) {
    writer.addMetaStr(key, text);
  }
  if (spec.statesShape) {
    kel::writeShape(writer, spec.shape, {spec.hidden, spec.ffn, spec.vocab}, 0);
  }
  writer.setTokenizer(spec.tokenizer.tokens.empty() ? defaultTokenizer(spec.vocab)
                                                    : spec.tokenizer);
  for (const TensorPlan& entry : plan) {
    status = addTensor(writer, entry, spec);
    if (!status.ok()) {
      return status;
    }
  }
  return writer.finish();
}

}  // namespace kel::test
