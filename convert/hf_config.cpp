#include "convert/hf_config.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>
#include <utility>

#include "container/shape_metadata.h"
#include "convert/errors.h"
#include "convert/json_reader.h"
#include "convert/layer_kinds.h"

namespace kel::convert {

namespace {

using nlohmann::json;

// Parts of the wrapper's and of the text-only models' names.
constexpr std::string_view kModelTypes[] = {"qwen3_5", "qwen3_5_text"};
constexpr uint64_t kUsualContext = 262144;  // of the family, where a file does not say

struct ExtentField {
  const char* name;
  uint64_t ModelShape::*extent;
};

constexpr ExtentField kExtentFields[] = {
    {"num_attention_heads", &ModelShape::queryHeads},
    {"num_key_value_heads", &ModelShape::kvHeads},
    {"head_dim", &ModelShape::headDim},
    {"linear_num_key_heads", &ModelShape::linearKeyHeads},
    {"linear_num_value_heads", &ModelShape::linearValueHeads},
    {"linear_key_head_dim", &ModelShape::linearKeyDim},
    {"linear_value_head_dim", &ModelShape::linearValueDim},
    {"linear_conv_kernel_dim", &ModelShape::convTaps},
};

std::string shown(const json& value) {
  return printable(value.dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string field(std::string_view name) {
  return fmt::format("config.json: {}", name);
}

const json* stated(const json& section, const char* name) {
  const json* value = jsonMember(section, name);
  return value == nullptr || value->is_null() ? nullptr : value;
}

Status missing(std::string_view name) {
  return unsupported("{} is missing; the importer needs it", field(name));
}

Status toExtent(std::string_view name, const json& value, uint64_t& out) {
  const std::optional<uint64_t> number = jsonUnsigned(value);
  if (!number) {
    return unsupported("{} is {}; the importer needs a number of 0 or more", field(name),
                       shown(value));
  }
  out = *number;
  return Status::success();
}

Status readExtent(const json& section, const char* name, uint64_t& out) {
  const json* value = stated(section, name);
  return value == nullptr ? missing(name) : toExtent(name, *value, out);
}

Status checkText(const json& section, const char* name, std::string_view needed) {
  const json* value = jsonMember(section, name);
  if (value == nullptr || value->is_null() || *value == needed) {
    return Status::success();
  }
  return misfit(field(name), shown(*value), fmt::format("\"{}\"", needed));
}

// A mixture of experts is another model type, and refused here by its name.
Status checkModelType(const json& file, const json& text) {
  if (jsonMember(file, "model_type") == nullptr && jsonMember(text, "model_type") == nullptr) {
    return unsupported("{} is missing; the importer needs \"qwen3_5\" or \"qwen3_5_text\"",
                       field("model_type"));
  }
  for (const json* section : {&file, &text}) {
    const json* type = jsonMember(*section, "model_type");
    if (type == nullptr) {
      continue;
    }
    if (std::find(std::begin(kModelTypes), std::end(kModelTypes), *type) == std::end(kModelTypes)) {
      return misfit(field("model_type"), shown(*type), "\"qwen3_5\" or \"qwen3_5_text\"");
    }
  }
  for (const char* name : {"num_experts", "num_local_experts"}) {
    const json* experts = jsonMember(text, name);
    if (experts != nullptr && experts->is_number() && *experts > 0) {
      return unsupported("{} is {} (mixture of experts); the runtime needs a dense model",
                         field(name), shown(*experts));
    }
  }
  return Status::success();
}

Status checkNotQuantised(const json& file, const json& text) {
  for (const json* section : {&file, &text}) {
    for (const char* name : {"quantization_config", "quantization"}) {
      const json* value = jsonMember(*section, name);
      if (value != nullptr && !value->is_null()) {
        return unsupported(
            "{} is present: this checkpoint is quantised; the importer needs the original in BF16, "
            "F16 or F32",
            field(name));
      }
    }
  }
  return Status::success();
}

Status readLayers(const json& text, ModelShape& shape) {
  uint64_t layers = 0;
  Status status = readExtent(text, "num_hidden_layers", layers);
  if (!status.ok()) {
    return status;
  }
  if (layers == 0 || layers > LayerSet::kCapacity) {
    return misfit(field("num_hidden_layers"), layers, fmt::format("1 to {}", LayerSet::kCapacity));
  }
  shape.layers = static_cast<uint32_t>(layers);
  return status;
}

Status stateLayerTypes(const json& types, uint32_t layers, LayerKinds& kinds) {
  if (!types.is_array() || types.size() != layers) {
    return misfit(field("the length of layer_types"), types.size(), layers);
  }
  LayerSet full;
  for (uint32_t layer = 0; layer < layers; ++layer) {
    const json& type = types[layer];
    if (type == "full_attention") {
      full.add(layer);
    } else if (type != "linear_attention") {
      return misfit(field(fmt::format("layer_types[{}]", layer)), shown(type),
                    "\"full_attention\" or \"linear_attention\"");
    }
  }
  return kinds.state(field("layer_types"), full);
}

Status readKinds(const json& text, ModelShape& shape) {
  LayerKinds kinds(shape.layers);
  Status status = Status::success();
  if (const json* types = stated(text, "layer_types"); types != nullptr) {
    status = stateLayerTypes(*types, shape.layers, kinds);
  }
  if (status.ok() && stated(text, "full_attention_interval") != nullptr) {
    uint64_t interval = 0;
    status = readExtent(text, "full_attention_interval", interval);
    if (status.ok()) {
      status = kinds.stateInterval(field("full_attention_interval"), interval);
    }
  }
  return status.ok() ? kinds.get(field("layer_types"), shape.fullLayers) : status;
}

// Positions of text are the same in all three sections of "mrope": the rotation is the plain one.
Status checkRopeType(const json& rope, const std::string& prefix) {
  bool isStated = false;
  for (const char* name : {"rope_type", "type"}) {
    const json* type = jsonMember(rope, name);
    if (type == nullptr || type->is_null()) {
      continue;
    }
    isStated = true;
    if (*type != "default" && *type != "mrope") {
      return misfit(field(prefix + name), shown(*type), "\"default\"");
    }
  }
  const json* factor = jsonMember(rope, "factor");
  if (!isStated && factor != nullptr && !factor->is_null() && *factor != 1.0) {
    return misfit(field(prefix + "factor"), shown(*factor), "1, or none");
  }
  return Status::success();
}

// A number that several places may state: the first counts, and the others must say the same.
class SharedNumber {
 public:
  Status state(const std::string& name, const json& value) {
    if (!value.is_number() || !std::isfinite(value.get<double>())) {
      return unsupported("{} is {}; the importer needs a number", field(name), shown(value));
    }
    if (statedBy.empty()) {
      statedBy = name;
      number = value.get<double>();
    } else if (value.get<double>() != number) {
      return misfit(field(name), shown(value), fmt::format("{} as in {}", number, statedBy));
    }
    return Status::success();
  }
  bool isStated() const { return !statedBy.empty(); }
  double value() const { return number; }

 private:
  std::string statedBy;
  double number = 0;
};

struct Rope {
  SharedNumber base;
  SharedNumber rotated;  // as a part of the head
};

Status readRopeSection(const json& section, const std::string& prefix, Rope& out) {
  Status status = Status::success();
  for (const auto& [name, number] :
       {std::pair{"rope_theta", &out.base}, std::pair{"partial_rotary_factor", &out.rotated}}) {
    const json* value = stated(section, name);
    if (status.ok() && value != nullptr) {
      status = number->state(prefix + name, *value);
    }
  }
  return status;
}

Status readRope(const json& text, ModelShape& shape) {
  Rope rope;
  Status status = readRopeSection(text, "", rope);
  for (const char* name : {"rope_parameters", "rope_scaling"}) {
    const json* section = stated(text, name);
    if (section == nullptr) {
      continue;
    }
    // Some files state them for each kind of layer.
    const json* ofFull = stated(*section, "full_attention");
    const std::string prefix =
        fmt::format("{}.{}", name, ofFull == nullptr ? "" : "full_attention.");
    const json& values = ofFull == nullptr ? *section : *ofFull;
    if (status.ok()) {
      status = readRopeSection(values, prefix, rope);
    }
    if (status.ok()) {
      status = checkRopeType(values, prefix);
    }
  }
  if (!status.ok()) {
    return status;
  }
  if (!rope.base.isStated()) {
    return missing("rope_theta");
  }
  if (!rope.rotated.isStated()) {
    return missing("partial_rotary_factor");
  }
  shape.ropeBase = rope.base.value();
  const double dims = rope.rotated.value() * static_cast<double>(shape.headDim);
  if (!(dims >= 0 && dims <= static_cast<double>(shape.headDim)) || dims != std::floor(dims)) {
    return unsupported("{} is {}, which gives no whole number of the {} dimensions of a head",
                       field("partial_rotary_factor"), rope.rotated.value(), shape.headDim);
  }
  shape.ropeDim = static_cast<uint64_t>(dims);
  return status;
}

Status checkKinds(const json& text) {
  Status status = checkText(text, "hidden_act", "silu");
  if (status.ok()) {
    status = checkText(text, "output_gate_type", "sigmoid");
  }
  const json* gate = stated(text, "attn_output_gate");
  if (status.ok() && gate != nullptr && *gate != true) {
    return misfit(field("attn_output_gate"), shown(*gate), true);
  }
  return status;
}

Status readShape(const json& text, ModelShape& shape) {
  Status status = readLayers(text, shape);
  for (const ExtentField& wanted : kExtentFields) {
    if (status.ok()) {
      status = readExtent(text, wanted.name, shape.*wanted.extent);
    }
  }
  shape.contextLength = kUsualContext;
  if (status.ok() && stated(text, "max_position_embeddings") != nullptr) {
    status = readExtent(text, "max_position_embeddings", shape.contextLength);
  }
  const json* epsilon = stated(text, "rms_norm_eps");
  SharedNumber normEps;
  if (status.ok()) {
    status = epsilon == nullptr ? missing("rms_norm_eps") : normEps.state("rms_norm_eps", *epsilon);
    shape.normEps = normEps.value();
  }
  if (status.ok()) {
    status = readKinds(text, shape);
  }
  if (status.ok()) {
    status = readRope(text, shape);
  }
  if (!status.ok()) {
    return status;
  }
  const std::string fault = shapeFault(shape);
  return fault.empty() ? status : unsupported("config.json states {}", fault);
}

StatedSize statedSize(const json& text, const char* name) {
  const json* value = jsonMember(text, name);
  return {field(name), value == nullptr ? std::nullopt : jsonUnsigned(*value)};
}

// An id, or the first of a list of ids; -1 for none.
int32_t tokenId(const json& section, const char* name) {
  const json* value = jsonMember(section, name);
  if (value != nullptr && value->is_array() && !value->empty()) {
    value = &value->front();
  }
  const auto id = value == nullptr ? std::nullopt : jsonUnsigned(*value);
  return id && *id <= INT32_MAX ? static_cast<int32_t>(*id) : -1;
}

// Either level may state it; where they disagree, the tensors decide.
bool saysUntied(const json& file, const json& text) {
  bool untied = false;
  for (const json* section : {&file, &text}) {
    const json* tied = jsonMember(*section, "tie_word_embeddings");
    if (tied == nullptr || !tied->is_boolean()) {
      continue;
    }
    if (tied->get<bool>()) {
      return false;
    }
    untied = true;
  }
  return untied;
}

}  // namespace

Status readHfConfig(const json& file, HfConfig& out) {
  if (!file.is_object()) {
    return malformed("config.json is not an object");
  }
  const json* wrapped = jsonMember(file, "text_config");
  const json& text = wrapped != nullptr && wrapped->is_object() ? *wrapped : file;
  Status status = checkModelType(file, text);
  if (status.ok()) {
    status = checkNotQuantised(file, text);
  }
  if (status.ok()) {
    status = checkKinds(text);
  }
  if (status.ok()) {
    status = readShape(text, out.shape);
  }
  if (!status.ok()) {
    return status;
  }
  out.hidden = statedSize(text, "hidden_size");
  out.feedForward = statedSize(text, "intermediate_size");
  out.vocab = statedSize(text, "vocab_size");
  out.eosId = tokenId(text, "eos_token_id");
  if (out.eosId < 0) {
    out.eosId = tokenId(file, "eos_token_id");
  }
  out.bosId = tokenId(text, "bos_token_id");
  out.paddingId = tokenId(text, "pad_token_id");
  out.untied = saysUntied(file, text);
  return status;
}

}  // namespace kel::convert
