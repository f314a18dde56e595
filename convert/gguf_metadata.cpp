#include "convert/gguf_metadata.h"

#include <cmath>
#include <string>

#include "convert/errors.h"
#include "convert/model_layout.h"

namespace kel::convert {

namespace {

constexpr std::string_view kArchitecture = "qwen35";
constexpr int64_t kKvHeads = kFixedShape.kvHeads;
constexpr uint32_t kLayers = kFixedShape.layers;

struct IntegerKey {
  std::string_view key;
  int64_t needed;
};

constexpr IntegerKey kIntegerKeys[] = {
    {"qwen35.attention.head_count", kFixedShape.queryHeads},
    {"qwen35.attention.key_length", kFixedShape.headDim},
    {"qwen35.attention.value_length", kFixedShape.headDim},
    {"qwen35.full_attention_interval", kFixedShape.fullInterval()},
    {"qwen35.rope.dimension_count", kFixedShape.ropeDim},
    {"qwen35.ssm.conv_kernel", kFixedShape.convTaps},
    {"qwen35.ssm.state_size", kFixedShape.linearKeyDim},
    {"qwen35.ssm.group_count", kFixedShape.linearKeyHeads},
    {"qwen35.ssm.time_step_rank", kFixedShape.linearValueHeads},
    {"qwen35.ssm.inner_size", kFixedShape.linearValueWidth()},
};

struct NumberKey {
  std::string_view key;
  double needed;
};

constexpr NumberKey kNumberKeys[] = {
    {"qwen35.rope.freq_base", kFixedShape.ropeBase},
    {"qwen35.attention.layer_norm_rms_epsilon", kFixedShape.normEps},
};
constexpr double kRelativeTolerance = 1e-5;  // files hold such numbers in single precision

Status notAnInteger(std::string_view key) {
  return malformed("GGUF: {} is not an integer", key);
}

Status checkArchitecture(const GgufFile& file) {
  const GgufValue* value = file.find("general.architecture");
  if (value == nullptr || value->type != GgufType::String) {
    return malformed("GGUF: general.architecture is missing: is this a language model?");
  }
  if (value->text == kArchitecture) {
    return Status::success();
  }
  const bool mixture = value->text == "qwen35moe";
  return unsupported("general.architecture is \"{}\"{}; the runtime needs \"{}\"",
                     printable(value->text), mixture ? " (mixture of experts)" : "", kArchitecture);
}

Status checkSplit(const GgufFile& file) {
  const GgufValue* value = file.find("split.count");
  if (value == nullptr) {
    return Status::success();
  }
  const std::optional<int64_t> count = value->asInteger();
  if (!count) {
    return notAnInteger("split.count");
  }
  if (*count <= 1) {
    return Status::success();
  }
  return unsupported("split.count is {}: join the parts into one file first", *count);
}

Status checkBlockCount(const GgufFile& file) {
  const GgufValue* blocks = file.find("qwen35.block_count");
  const GgufValue* predictors = file.find("qwen35.nextn_predict_layers");
  if (blocks == nullptr) {
    return Status::success();
  }
  const std::optional<int64_t> count = blocks->asInteger();
  const std::optional<int64_t> extra = predictors == nullptr ? 0 : predictors->asInteger();
  if (!count) {
    return notAnInteger("qwen35.block_count");
  }
  if (!extra || *extra < 0 || *extra > 1) {
    return misfit("qwen35.nextn_predict_layers", extra ? std::to_string(*extra) : "no integer",
                  "0 or 1");
  }
  if (*count >= *extra && *count - *extra == kLayers) {
    return Status::success();
  }
  return misfit("qwen35.block_count", *count, kLayers + *extra);
}

// One number, or one per layer with 0 where there is no such head.
Status checkKvHeads(const GgufFile& file) {
  constexpr std::string_view kKey = "qwen35.attention.head_count_kv";
  const GgufValue* value = file.find(kKey);
  if (value == nullptr) {
    return Status::success();
  }
  if (value->type != GgufType::Array) {
    const std::optional<int64_t> count = value->asInteger();
    if (!count) {
      return notAnInteger(kKey);
    }
    return *count == kKvHeads ? Status::success() : misfit(kKey, *count, kKvHeads);
  }
  if (value->count < kLayers) {
    return misfit(fmt::format("the length of {}", kKey), value->count, kLayers);
  }
  for (uint32_t layer = 0; layer < kLayers; ++layer) {
    const std::optional<int64_t> count = value->integerAt(layer);
    const int64_t needed = kFixedShape.isFull(layer) ? kKvHeads : 0;
    if (!count) {
      return notAnInteger(kKey);
    }
    if (*count != needed) {
      return misfit(fmt::format("{}[{}]", kKey, layer), *count, needed);
    }
  }
  return Status::success();
}

Status checkRecurrentLayers(const GgufFile& file) {
  constexpr std::string_view kKey = "qwen35.attention.recurrent_layers";
  const GgufValue* value = file.find(kKey);
  if (value == nullptr) {
    return Status::success();
  }
  for (uint32_t layer = 0; layer < kLayers; ++layer) {
    const std::optional<int64_t> recurrent = value->integerAt(layer);
    if (!recurrent) {
      return malformed("GGUF: {} is not a list of {} bools", kKey, kLayers);
    }
    const int needed = kFixedShape.isFull(layer) ? 0 : 1;
    if (*recurrent != needed) {
      return misfit(fmt::format("{}[{}]", kKey, layer), *recurrent, needed);
    }
  }
  return Status::success();
}

Status checkFixedValues(const GgufFile& file) {
  for (const IntegerKey& wanted : kIntegerKeys) {
    const GgufValue* value = file.find(wanted.key);
    if (value == nullptr) {
      continue;
    }
    const std::optional<int64_t> stored = value->asInteger();
    if (!stored) {
      return notAnInteger(wanted.key);
    }
    if (*stored != wanted.needed) {
      return misfit(wanted.key, *stored, wanted.needed);
    }
  }
  for (const NumberKey& wanted : kNumberKeys) {
    const GgufValue* value = file.find(wanted.key);
    if (value == nullptr) {
      continue;
    }
    const std::optional<double> stored = value->asNumber();
    if (!stored) {
      return malformed("GGUF: {} is not a number", wanted.key);
    }
    // Written so that NaN does not fit either.
    if (!(std::abs(*stored - wanted.needed) <= kRelativeTolerance * wanted.needed)) {
      return misfit(wanted.key, *stored, wanted.needed);
    }
  }
  return Status::success();
}

}  // namespace

Status checkGgufMetadata(const GgufFile& file) {
  for (const auto& check : {checkArchitecture, checkSplit, checkBlockCount, checkFixedValues,
                            checkKvHeads, checkRecurrentLayers}) {
    Status status = check(file);
    if (!status.ok()) {
      return status;
    }
  }
  return Status::success();
}

}  // namespace kel::convert
