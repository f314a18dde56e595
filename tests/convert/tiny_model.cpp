#include "tests/convert/tiny_model.h"

#include <cmath>
#include <sstream>
#include <stdexcept>

namespace kel::test {

namespace {

// Multiples of 1/256 in [-1/4, 1/4]: exact in every float type.
std::vector<float> noise(const std::string& name, size_t n) {
  uint64_t state = 1469598103934665603U;
  for (const char c : name) {
    state = (state ^ static_cast<uint8_t>(c)) * 1099511628211U;
  }
  std::vector<float> values(n);
  for (float& value : values) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    value = static_cast<float>(static_cast<int>(state >> 40) % 65) / 256.0F;
    if ((state >> 39 & 1) != 0) {
      value = -value;
    }
  }
  return values;
}

// Checkpoint order -> runtime order of value heads of `unit` values, from index `first` on: with r
// value heads a key head, the checkpoint's head r g + j is the runtime's head (key heads) j + g.
std::vector<float> tiled(const std::vector<float>& grouped, const TinyShape& shape, size_t first,
                         size_t unit) {
  std::vector<float> out = grouped;
  const size_t perKeyHead = shape.valueHeads / shape.keyHeads;
  for (size_t g = 0; g < shape.keyHeads; ++g) {
    for (size_t j = 0; j < perKeyHead; ++j) {
      for (size_t i = 0; i < unit; ++i) {
        out[first + (shape.keyHeads * j + g) * unit + i] =
            grouped[first + (perKeyHead * g + j) * unit + i];
      }
    }
  }
  return out;
}

std::vector<float> tiledColumns(const std::vector<float>& grouped, const TinyShape& shape) {
  std::vector<float> out;
  const size_t cols = shape.valueHeads * shape.valueDim;
  for (size_t row = 0; row < grouped.size() / cols; ++row) {
    const auto begin = grouped.begin() + static_cast<std::ptrdiff_t>(row * cols);
    const std::vector<float> one =
        tiled({begin, begin + static_cast<std::ptrdiff_t>(cols)}, shape, 0, shape.valueDim);
    out.insert(out.end(), one.begin(), one.end());
  }
  return out;
}

class Maker {
 public:
  explicit Maker(bool values) : withValues(values) {}

  // toRuntime: from checkpoint values to runtime values; null where they are the same.
  void add(const std::string& name, const std::string& checkpointName, std::vector<uint64_t> dims,
           bool matrix,
           const std::function<std::vector<float>(const std::vector<float>&)>& toRuntime = {}) {
    TinyTensor tensor{
        prefix + name, checkpointPrefix + checkpointName, std::move(dims), matrix, {}, {}};
    if (withValues) {
      size_t n = 1;
      for (const uint64_t dim : tensor.dims) {
        n *= dim;
      }
      tensor.checkpoint = noise(tensor.name, n);
      tensor.runtime = toRuntime ? toRuntime(tensor.checkpoint) : tensor.checkpoint;
    }
    model.push_back(std::move(tensor));
  }

  bool withValues;
  std::string prefix;
  std::string checkpointPrefix = "model.";
  std::vector<TinyTensor> model;
};

std::vector<float> plusOne(const std::vector<float>& w) {
  std::vector<float> out;
  for (const float value : w) {
    out.push_back(1.0F + value);
  }
  return out;
}

std::vector<float> decay(const std::vector<float>& logs, const TinyShape& shape) {
  std::vector<float> out;
  for (const float value : tiled(logs, shape, 0, 1)) {
    out.push_back(-std::exp(value));
  }
  return out;
}

void addLinear(Maker& make, const TinyShape& s) {
  const uint64_t h = s.hidden;
  const uint64_t keys = 2 * s.keyHeads * s.keyDim;
  const uint64_t values = s.valueHeads * s.valueDim;
  using Values = const std::vector<float>&;
  make.add("attn_qkv.weight", "linear_attn.in_proj_qkv.weight", {h, s.channels()}, true,
           [&](Values v) { return tiled(v, s, keys * h, s.valueDim * h); });
  make.add("attn_gate.weight", "linear_attn.in_proj_z.weight", {h, values}, true,
           [&](Values v) { return tiled(v, s, 0, s.valueDim * h); });
  make.add("ssm_beta.weight", "linear_attn.in_proj_b.weight", {h, s.valueHeads}, true,
           [&](Values v) { return tiled(v, s, 0, h); });
  make.add("ssm_alpha.weight", "linear_attn.in_proj_a.weight", {h, s.valueHeads}, true,
           [&](Values v) { return tiled(v, s, 0, h); });
  make.add("ssm_a", "linear_attn.A_log", {s.valueHeads}, false,
           [&](Values v) { return decay(v, s); });
  make.add("ssm_dt.bias", "linear_attn.dt_bias", {s.valueHeads}, false,
           [&](Values v) { return tiled(v, s, 0, 1); });
  make.add("ssm_conv1d.weight", "linear_attn.conv1d.weight", {4, s.channels()}, false,
           [&](Values v) { return tiled(v, s, keys * 4, s.valueDim * 4); });
  make.add("ssm_norm.weight", "linear_attn.norm.weight", {s.valueDim}, false);
  make.add("ssm_out.weight", "linear_attn.out_proj.weight", {values, h}, true,
           [&](Values v) { return tiledColumns(v, s); });
}

void addFull(Maker& make, const TinyShape& s) {
  const uint64_t width = s.queryHeads * s.headDim;
  make.add("attn_q.weight", "self_attn.q_proj.weight", {s.hidden, 2 * width}, true);
  make.add("attn_k.weight", "self_attn.k_proj.weight", {s.hidden, s.kvHeads * s.headDim}, true);
  make.add("attn_v.weight", "self_attn.v_proj.weight", {s.hidden, s.kvHeads * s.headDim}, true);
  make.add("attn_output.weight", "self_attn.o_proj.weight", {width, s.hidden}, true);
  make.add("attn_q_norm.weight", "self_attn.q_norm.weight", {s.headDim}, false, plusOne);
  make.add("attn_k_norm.weight", "self_attn.k_norm.weight", {s.headDim}, false, plusOne);
}

void addCommon(Maker& make, const TinyShape& s) {
  make.add("attn_norm.weight", "input_layernorm.weight", {s.hidden}, false, plusOne);
  make.add("post_attention_norm.weight", "post_attention_layernorm.weight", {s.hidden}, false,
           plusOne);
  make.add("ffn_gate.weight", "mlp.gate_proj.weight", {s.hidden, s.feedForward}, true);
  make.add("ffn_up.weight", "mlp.up_proj.weight", {s.hidden, s.feedForward}, true);
  make.add("ffn_down.weight", "mlp.down_proj.weight", {s.feedForward, s.hidden}, true);
}

// A layer of full attention behind the others, with something in front of it.
void addPrediction(Maker& make, const TinyShape& s) {
  make.prefix = "blk." + std::to_string(s.layers) + ".";
  make.checkpointPrefix = "mtp.";
  make.add("nextn.eh_proj.weight", "fc.weight", {2 * s.hidden, s.hidden}, true);
  make.add("nextn.enorm.weight", "pre_fc_norm_embedding.weight", {s.hidden}, false, plusOne);
  make.add("nextn.hnorm.weight", "pre_fc_norm_hidden.weight", {s.hidden}, false, plusOne);
  make.add("nextn.shared_head_norm.weight", "norm.weight", {s.hidden}, false, plusOne);
  make.checkpointPrefix = "mtp.layers.0.";
  addCommon(make, s);
  addFull(make, s);
}

uint64_t elementBytes(uint32_t type) {
  return type == 0 ? 4 : 2;
}

uint64_t elements(const std::vector<uint64_t>& dims) {
  uint64_t n = 1;
  for (const uint64_t dim : dims) {
    n *= dim;
  }
  return n;
}

template <typename Builder>
auto& named(Builder& file, const std::string& name) {
  for (auto& tensor : file.tensors) {
    if (tensor.name == name) {
      return tensor;
    }
  }
  throw std::out_of_range(name);
}

}  // namespace

std::vector<TinyTensor> tinyModel(bool withValues, const TinyShape& shape) {
  Maker make(withValues);
  make.add("token_embd.weight", "embed_tokens.weight", {shape.hidden, kTinyVocab}, true);
  make.add("output_norm.weight", "norm.weight", {shape.hidden}, false, plusOne);
  if (shape.ownOutput) {
    make.checkpointPrefix.clear();
    make.add("output.weight", "lm_head.weight", {shape.hidden, kTinyVocab}, true);
  }
  for (uint64_t layer = 0; layer < shape.layers; ++layer) {
    const std::string number = std::to_string(layer) + ".";
    make.prefix = "blk." + number;
    make.checkpointPrefix = "model.layers." + number;
    addCommon(make, shape);
    if ((layer + 1) % shape.interval == 0) {
      addFull(make, shape);
    } else {
      addLinear(make, shape);
    }
  }
  if (shape.prediction) {
    addPrediction(make, shape);
  }
  return make.model;
}

Bytes floatBytes(const std::vector<float>& values, const std::string& dtype) {
  const bool whole = dtype == "F32";
  const bool upper = dtype == "BF16";
  Bytes bytes(values.size() * (whole ? 4 : 2));
  uint8_t* out = bytes.data();
  for (const float value : values) {
    uint32_t bits = 0;
    std::memcpy(&bits, &value, sizeof(bits));
    if (!whole && !upper) {  // normal halves and zeros only: exponent less 112, ten bits after it
      const uint32_t sign = (bits >> 16) & 0x8000;
      const uint32_t rest = (((bits >> 23) & 0xFF) - 112) << 10 | ((bits >> 13) & 0x3FF);
      bits = (value == 0 ? sign : sign | rest) << 16;
    }
    const uint32_t stored = whole ? bits : bits >> 16;
    std::memcpy(out, &stored, whole ? 4 : 2);
    out += whole ? 4 : 2;
  }
  return bytes;
}

void addTinyMetadata(GgufBuilder& file, const std::string& omit, const TinyShape& shape) {
  const auto u32 = [&](const std::string& key, uint64_t value) {
    if (key != omit) {
      file.u32(key, static_cast<uint32_t>(value));
    }
  };
  if (omit != "general.architecture") {
    file.text("general.architecture", "qwen35");
  }
  if (omit != "general.name") {
    file.text("general.name", "Tiny");
  }
  u32("qwen35.block_count", shape.layers + (shape.prediction ? 1 : 0));
  if (shape.prediction) {
    u32("qwen35.nextn_predict_layers", 1);
  }
  u32("qwen35.context_length", 262144);
  u32("qwen35.embedding_length", shape.hidden);
  u32("qwen35.feed_forward_length", shape.feedForward);
  u32("qwen35.attention.head_count", shape.queryHeads);
  u32("qwen35.attention.head_count_kv", shape.kvHeads);
  u32("qwen35.attention.key_length", shape.headDim);
  u32("qwen35.attention.value_length", shape.headDim);
  if (omit != "qwen35.attention.layer_norm_rms_epsilon") {
    file.f32("qwen35.attention.layer_norm_rms_epsilon", 1e-6F);
  }
  u32("qwen35.full_attention_interval", shape.interval);
  if (omit != "qwen35.rope.freq_base") {
    file.f32("qwen35.rope.freq_base", 1e7F);
  }
  u32("qwen35.rope.dimension_count", shape.ropeDim);
  file.array<int32_t>("qwen35.rope.dimension_sections", 5, {11, 11, 10, 0});
  u32("qwen35.ssm.conv_kernel", 4);
  u32("qwen35.ssm.state_size", shape.keyDim);
  u32("qwen35.ssm.group_count", shape.keyHeads);
  u32("qwen35.ssm.time_step_rank", shape.valueHeads);
  u32("qwen35.ssm.inner_size", shape.valueHeads * shape.valueDim);
  if (omit != "tokenizer.ggml.model") {
    file.text("tokenizer.ggml.model", "gpt2");
  }
  if (omit != "tokenizer.ggml.pre") {
    file.text("tokenizer.ggml.pre", "qwen35");
  }
  if (omit != "tokenizer.ggml.tokens") {
    file.texts("tokenizer.ggml.tokens", {"a", "b", "ab", "\u0120", "\u0120a", "\u010A",
                                         "<|im_start|>", "<|im_end|>", "<think>", "[PAD9]"});
  }
  if (omit != "tokenizer.ggml.token_type") {
    file.array<int32_t>("tokenizer.ggml.token_type", 5, {1, 1, 1, 1, 1, 1, 3, 3, 4, 5});
  }
  if (omit != "tokenizer.ggml.merges") {
    file.texts("tokenizer.ggml.merges", {"\u0120 a", "a b"});
  }
  u32("tokenizer.ggml.eos_token_id", 7);
  file.text("tokenizer.chat_template", "x");
}

GgufBuilder tinyGguf(const std::vector<TinyTensor>& model, uint32_t type, const TinyShape& shape) {
  GgufBuilder file;
  addTinyMetadata(file, "", shape);
  const std::string dtype = type == 0 ? "F32" : type == 1 ? "F16" : "BF16";
  for (const TinyTensor& tensor : model) {
    const uint32_t stored = tensor.matrix ? type : 0;
    GgufBuilder::Tensor& added = file.tensors.emplace_back();
    added.name = tensor.name;
    added.ne = tensor.dims;
    added.type = stored;
    if (tensor.runtime.empty()) {
      added.holeBytes = elements(tensor.dims) * elementBytes(stored);
    } else {
      added.data = floatBytes(tensor.runtime, tensor.matrix ? dtype : "F32");
    }
  }
  return file;
}

GgufBuilder::Tensor& tensorNamed(GgufBuilder& file, const std::string& name) {
  return named(file, name);
}

SafetensorsBuilder::Tensor& tensorNamed(SafetensorsBuilder& file, const std::string& name) {
  return named(file, name);
}

GgufBuilder bundledGguf(const GgufBuilder& plain, const TinyShape& shape) {
  GgufBuilder file;
  addTinyMetadata(file, "qwen35.attention.head_count_kv", shape);
  std::vector<uint32_t> heads;
  for (uint64_t layer = 0; layer < shape.layers; ++layer) {
    const bool isFull = (layer + 1) % shape.interval == 0;
    heads.push_back(isFull ? static_cast<uint32_t>(shape.kvHeads) : 0);
  }
  file.array("qwen35.attention.head_count_kv", 4, heads);
  file.scalar<uint64_t>("general.parameter_count", 10, 15'000'000);
  file.boolean("qwen35.ssm.v_head_reordered", true);
  file.tensors = plain.tensors;
  for (GgufBuilder::Tensor& tensor : file.tensors) {
    if (tensor.name.ends_with("ssm_dt.bias")) {
      tensor.name.resize(tensor.name.size() - 5);
    }
  }
  file.tensors.push_back({"v.patch_embd.weight", {8, 8}, 1, Bytes(128)});
  file.tensors.push_back({"mm.0.weight", {8}, 0, Bytes(32)});
  file.tensors.push_back({"mtp.norm.weight", {8}, 0, Bytes(32)});
  if (!shape.prediction) {
    const std::string block = "blk." + std::to_string(shape.layers);
    file.tensors.push_back({block + ".nextn.enorm.weight", {8}, 0, Bytes(32)});
  }
  return file;
}

TinyDirectory tinyDirectory(const std::vector<TinyTensor>& model, const std::string& dtype,
                            const TinyShape& shape) {
  TinyDirectory directory;
  for (const TinyTensor& tensor : model) {
    SafetensorsBuilder::Tensor& added = directory.weights.tensors.emplace_back();
    added.name = tensor.checkpointName;
    added.dtype = tensor.matrix ? dtype : "F32";
    added.shape.assign(tensor.dims.rbegin(), tensor.dims.rend());
    if (tensor.name.ends_with("ssm_conv1d.weight")) {
      added.shape = {shape.channels(), 1, 4};
    }
    if (tensor.checkpoint.empty()) {
      added.holeBytes = elements(tensor.dims) * (added.dtype == "F32" ? 4 : 2);
    } else {
      added.data = floatBytes(tensor.checkpoint, added.dtype);
    }
  }
  std::ostringstream config;
  config << R"({
    "architectures": ["Qwen3_5ForCausalLM"], "model_type": "qwen3_5_text", "vocab_size": 40,
    "linear_conv_kernel_dim": 4, "rms_norm_eps": 1e-06, "attn_output_gate": true,
    "eos_token_id": 6, "bos_token_id": null,
    "hidden_size": )"
         << shape.hidden << R"(, "intermediate_size": )" << shape.feedForward
         << R"(, "num_hidden_layers": )" << shape.layers << R"(, "num_attention_heads": )"
         << shape.queryHeads << R"(, "num_key_value_heads": )" << shape.kvHeads
         << R"(, "head_dim": )" << shape.headDim << R"(, "linear_num_key_heads": )"
         << shape.keyHeads << R"(, "linear_num_value_heads": )" << shape.valueHeads
         << R"(, "linear_key_head_dim": )" << shape.keyDim << R"(, "linear_value_head_dim": )"
         << shape.valueDim << R"(, "full_attention_interval": )" << shape.interval
         << R"(, "tie_word_embeddings": )" << (shape.ownOutput ? "false" : "true")
         << R"(, "rope_parameters": {"rope_type": "default", "rope_theta": 10000000,
                 "partial_rotary_factor": )"
         << static_cast<double>(shape.ropeDim) / static_cast<double>(shape.headDim) << "}}";
  directory.config = config.str();
  directory.tokenizer = R"({"model": {"type": "BPE",
    "vocab": {"a": 0, "b": 1, "ab": 2, "\u0120": 3, "\u0120a": 4, "\u010a": 5},
    "merges": [["\u0120", "a"], "a b"]},
    "added_tokens": [{"id": 6, "content": "<|im_start|>", "special": true},
                     {"id": 7, "content": "<|im_end|>", "special": true},
                     {"id": 8, "content": "<think>", "special": false}]})";
  return directory;
}

void TinyDirectory::write(const std::string& folder) const {
  std::filesystem::create_directories(folder);
  const auto put = [&](const std::string& name, const std::string& text) {
    writeFile(folder + "/" + name, Bytes(text.begin(), text.end()));
  };
  put("config.json", config);
  put("tokenizer.json", tokenizer);
  put("tokenizer_config.json", tokenizerConfig);
  weights.write(folder + "/model.safetensors");
}

}  // namespace kel::test
