#include "convert/gguf_shape.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>

#include "container/shape_metadata.h"
#include "convert/errors.h"
#include "convert/layer_kinds.h"

namespace kel::convert {

namespace {

constexpr std::string_view kBlocks = "qwen35.block_count";
constexpr std::string_view kPredictionLayers = "qwen35.nextn_predict_layers";
constexpr std::string_view kKvHeads = "qwen35.attention.head_count_kv";
constexpr std::string_view kRecurrent = "qwen35.attention.recurrent_layers";
constexpr std::string_view kInterval = "qwen35.full_attention_interval";

struct IntegerKey {
  std::string_view key;
  uint64_t ModelShape::*field;
};

constexpr IntegerKey kIntegerKeys[] = {
    {"qwen35.context_length", &ModelShape::contextLength},
    {"qwen35.attention.head_count", &ModelShape::queryHeads},
    {"qwen35.attention.key_length", &ModelShape::headDim},
    {"qwen35.rope.dimension_count", &ModelShape::ropeDim},
    {"qwen35.ssm.conv_kernel", &ModelShape::convTaps},
    {"qwen35.ssm.state_size", &ModelShape::linearKeyDim},
    {"qwen35.ssm.group_count", &ModelShape::linearKeyHeads},
    {"qwen35.ssm.time_step_rank", &ModelShape::linearValueHeads},
};

struct NumberKey {
  std::string_view key;
  double ModelShape::*field;
};

constexpr NumberKey kNumberKeys[] = {
    {"qwen35.rope.freq_base", &ModelShape::ropeBase},
    {"qwen35.attention.layer_norm_rms_epsilon", &ModelShape::normEps},
};

Status missing(std::string_view key) {
  return unsupported("{} is missing; the importer needs it", key);
}

Status notAnInteger(std::string_view key) {
  return malformed("GGUF: {} is not an integer", key);
}

Status toUnsigned(std::string_view key, std::optional<int64_t> value, uint64_t& out) {
  if (!value) {
    return notAnInteger(key);
  }
  if (*value < 0) {
    return malformed("GGUF: {} is {}", key, *value);
  }
  out = static_cast<uint64_t>(*value);
  return Status::success();
}

Status readInteger(const GgufFile& file, std::string_view key, uint64_t& out) {
  const GgufValue* value = file.find(key);
  return value == nullptr ? missing(key) : toUnsigned(key, value->asInteger(), out);
}

Status readNumber(const GgufFile& file, std::string_view key, double& out) {
  const GgufValue* value = file.find(key);
  if (value == nullptr) {
    return missing(key);
  }
  const std::optional<double> number = value->asNumber();
  if (!number) {
    return malformed("GGUF: {} is not a number", key);
  }
  out = *number;
  return Status::success();
}

// "blk.32.nextn.enorm.weight" -> 32; none for any other name.
std::optional<uint64_t> predictionBlock(std::string_view name) {
  constexpr std::string_view kStart = "blk.";
  uint64_t block = 0;
  if (!name.starts_with(kStart)) {
    return std::nullopt;
  }
  name.remove_prefix(kStart.size());
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), block);
  name.remove_prefix(static_cast<size_t>(end - name.data()));
  if (error != std::errc() || !name.starts_with(".nextn.")) {
    return std::nullopt;
  }
  return block;
}

bool hasBlock(const GgufFile& file, uint64_t block) {
  const std::string name = fmt::format("blk.{}.attn_norm.weight", block);
  return std::any_of(file.tensors().begin(), file.tensors().end(),
                     [&](const GgufTensor& tensor) { return tensor.name == name; });
}

Status readLayers(const GgufFile& file, ModelShape& shape) {
  uint64_t blocks = 0;
  uint64_t extra = 0;
  Status status = readInteger(file, kBlocks, blocks);
  if (status.ok() && file.find(kPredictionLayers) != nullptr) {
    status = readInteger(file, kPredictionLayers, extra);
  }
  if (!status.ok()) {
    return status;
  }
  if (extra > 1) {
    return misfit(kPredictionLayers, extra, "0 or 1");
  }
  uint64_t layers = blocks - std::min(extra, blocks);
  std::optional<uint64_t> prediction;
  for (const GgufTensor& tensor : file.tensors()) {
    const std::optional<uint64_t> block = predictionBlock(tensor.name);
    prediction = block && prediction ? std::min(*block, *prediction) : block ? block : prediction;
  }
  if (prediction && (*prediction == blocks || *prediction + 1 == blocks)) {
    layers = *prediction;
  } else if (prediction) {
    return unsupported("{} is {}, but blk.{} is a prediction layer", kBlocks, blocks, *prediction);
  } else if (extra == 1 && hasBlock(file, layers)) {
    layers = blocks;  // all of them ordinary ones: the file's count leaves the prediction layer out
  }
  if (layers == 0 || layers > LayerSet::kCapacity) {
    return misfit(kBlocks, blocks, fmt::format("1 to {}", LayerSet::kCapacity));
  }
  shape.layers = static_cast<uint32_t>(layers);
  return Status::success();
}

// One number, or one per layer with 0 where there are no such heads.
Status readKvHeads(const GgufFile& file, ModelShape& shape, LayerKinds& kinds) {
  const GgufValue* value = file.find(kKvHeads);
  if (value == nullptr || value->type != GgufType::Array) {
    return readInteger(file, kKvHeads, shape.kvHeads);
  }
  if (value->count < shape.layers) {
    return misfit(fmt::format("the length of {}", kKvHeads), value->count, shape.layers);
  }
  LayerSet full;
  for (uint32_t layer = 0; layer < shape.layers; ++layer) {
    uint64_t count = 0;
    Status status = toUnsigned(kKvHeads, value->integerAt(layer), count);
    if (!status.ok()) {
      return status;
    }
    if (count == 0) {
      continue;
    }
    full.add(layer);
    if (shape.kvHeads != 0 && shape.kvHeads != count) {
      return misfit(fmt::format("{}[{}]", kKvHeads, layer), count,
                    fmt::format("the {} of the layers before", shape.kvHeads));
    }
    shape.kvHeads = count;
  }
  return kinds.state(std::string(kKvHeads), full);
}

Status readRecurrent(const GgufFile& file, const ModelShape& shape, LayerKinds& kinds) {
  const GgufValue* value = file.find(kRecurrent);
  if (value == nullptr) {
    return Status::success();
  }
  LayerSet full;
  for (uint32_t layer = 0; layer < shape.layers; ++layer) {
    const std::optional<int64_t> recurrent = value->integerAt(layer);
    if (!recurrent) {
      return malformed("GGUF: {} is not a list of {} bools", kRecurrent, shape.layers);
    }
    if (*recurrent == 0) {
      full.add(layer);
    }
  }
  return kinds.state(std::string(kRecurrent), full);
}

Status readKinds(const GgufFile& file, ModelShape& shape) {
  LayerKinds kinds(shape.layers);
  Status status = Status::success();
  if (file.find(kInterval) != nullptr) {
    uint64_t interval = 0;
    status = readInteger(file, kInterval, interval);
    if (status.ok()) {
      status = kinds.stateInterval(std::string(kInterval), interval);
    }
  }
  if (status.ok()) {
    status = readKvHeads(file, shape, kinds);
  }
  if (status.ok()) {
    status = readRecurrent(file, shape, kinds);
  }
  return status.ok() ? kinds.get(std::string(kInterval), shape.fullLayers) : status;
}

// Two numbers that say what others imply, or nearly.
Status readWidths(const GgufFile& file, ModelShape& shape) {
  constexpr std::string_view kValueLength = "qwen35.attention.value_length";
  constexpr std::string_view kInnerSize = "qwen35.ssm.inner_size";
  uint64_t valueLength = 0;
  uint64_t innerSize = 0;
  Status status = readInteger(file, kValueLength, valueLength);
  if (status.ok()) {
    status = readInteger(file, kInnerSize, innerSize);
  }
  if (!status.ok()) {
    return status;
  }
  if (valueLength != shape.headDim) {
    return misfit(kValueLength, valueLength, fmt::format("the key's, {}", shape.headDim));
  }
  if (shape.linearValueHeads == 0 || innerSize % shape.linearValueHeads != 0) {
    return misfit(kInnerSize, innerSize,
                  fmt::format("a multiple of the {} value heads", shape.linearValueHeads));
  }
  shape.linearValueDim = innerSize / shape.linearValueHeads;
  return status;
}

}  // namespace

Status readGgufShape(const GgufFile& file, ModelShape& out) {
  out = {};
  Status status = readLayers(file, out);
  for (const IntegerKey& key : kIntegerKeys) {
    if (status.ok()) {
      status = readInteger(file, key.key, out.*key.field);
    }
  }
  for (const NumberKey& key : kNumberKeys) {
    if (status.ok()) {
      status = readNumber(file, key.key, out.*key.field);
    }
  }
  if (status.ok()) {
    status = readKinds(file, out);
  }
  if (status.ok()) {
    status = readWidths(file, out);
  }
  if (!status.ok()) {
    return status;
  }
  const std::string fault = shapeFault(out);
  return fault.empty() ? status : unsupported("the metadata state {}", fault);
}

}  // namespace kel::convert
