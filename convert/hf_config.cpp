#include "convert/hf_config.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>

#include "convert/errors.h"
#include "convert/json_reader.h"
#include "convert/model_layout.h"

namespace kel::convert {

namespace {

using nlohmann::json;

// Parts of the wrapper's and of the text-only models' names.
constexpr std::string_view kModelTypes[] = {"qwen3_5", "qwen3_5_text"};
constexpr double kRelativeTolerance = 1e-5;

struct NumberField {
  const char* name;
  double needed;
};

constexpr double kRotaryFactor =
    static_cast<double>(kFixedShape.ropeDim) / static_cast<double>(kFixedShape.headDim);

constexpr NumberField kNumberFields[] = {
    {"num_hidden_layers", kFixedShape.layers},
    {"num_attention_heads", kFixedShape.queryHeads},
    {"num_key_value_heads", kFixedShape.kvHeads},
    {"head_dim", kFixedShape.headDim},
    {"linear_num_key_heads", kFixedShape.linearKeyHeads},
    {"linear_num_value_heads", kFixedShape.linearValueHeads},
    {"linear_key_head_dim", kFixedShape.linearKeyDim},
    {"linear_value_head_dim", kFixedShape.linearValueDim},
    {"linear_conv_kernel_dim", kFixedShape.convTaps},
    {"full_attention_interval", static_cast<double>(kFixedShape.fullInterval())},
    {"rms_norm_eps", kFixedShape.normEps},
    {"rope_theta", kFixedShape.ropeBase},
    {"partial_rotary_factor", kRotaryFactor},
};

std::string shown(const json& value) {
  return printable(value.dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string field(std::string_view name) {
  return fmt::format("config.json: {}", name);
}

Status checkNumber(const json& section, std::string_view prefix, const NumberField& wanted) {
  const json* value = jsonMember(section, wanted.name);
  if (value == nullptr || value->is_null()) {
    return Status::success();
  }
  const bool fits = value->is_number() && std::abs(value->get<double>() - wanted.needed) <=
                                              kRelativeTolerance * wanted.needed;
  if (fits) {
    return Status::success();
  }
  return misfit(field(fmt::format("{}{}", prefix, wanted.name)), shown(*value), wanted.needed);
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

Status checkLayerTypes(const json& text) {
  const json* types = jsonMember(text, "layer_types");
  if (types == nullptr || types->is_null()) {
    return Status::success();
  }
  if (!types->is_array() || types->size() != kFixedShape.layers) {
    return misfit(field("the length of layer_types"), types->size(), kFixedShape.layers);
  }
  for (uint32_t layer = 0; layer < kFixedShape.layers; ++layer) {
    const char* needed = kFixedShape.isFull(layer) ? "full_attention" : "linear_attention";
    const json& type = (*types)[layer];
    if (type != needed) {
      return misfit(field(fmt::format("layer_types[{}]", layer)), shown(type),
                    fmt::format("\"{}\"", needed));
    }
  }
  return Status::success();
}

Status checkRope(const json& text) {
  for (const char* name : {"rope_parameters", "rope_scaling"}) {
    const json* rope = jsonMember(text, name);
    if (rope == nullptr || rope->is_null()) {
      continue;
    }
    const std::string prefix = std::string(name) + ".";
    Status status = checkNumber(*rope, prefix, {"rope_theta", kFixedShape.ropeBase});
    if (status.ok()) {
      status = checkNumber(*rope, prefix, {"partial_rotary_factor", kRotaryFactor});
    }
    if (status.ok()) {
      status = checkText(*rope, "rope_type", "default");
    }
    if (!status.ok()) {
      return status;
    }
  }
  return Status::success();
}

Status checkFields(const json& text) {
  for (const NumberField& wanted : kNumberFields) {
    Status status = checkNumber(text, "", wanted);
    if (!status.ok()) {
      return status;
    }
  }
  Status status = checkText(text, "hidden_act", "silu");
  if (status.ok()) {
    status = checkLayerTypes(text);
  }
  if (status.ok()) {
    status = checkRope(text);
  }
  const json* gate = jsonMember(text, "attn_output_gate");
  if (status.ok() && gate != nullptr && *gate != true) {
    return misfit(field("attn_output_gate"), shown(*gate), true);
  }
  return status;
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
    status = checkFields(text);
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
  out.untied = saysUntied(file, text);
  return status;
}

}  // namespace kel::convert
