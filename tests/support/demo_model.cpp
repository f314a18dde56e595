#include "tests/support/demo_model.h"

#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "container/zym2_writer.h"
#include "quant/blocks.h"
#include "tests/support/file_contents.h"
#include "tests/support/json_text.h"

namespace kel::test {

namespace {

using nlohmann::json;

constexpr size_t kHeads = 32;     // value heads
constexpr size_t kKeyHeads = 16;  // key heads; the checkpoint groups value heads under them
constexpr size_t kHeadDim = 128;

std::string readFile(const std::string& name) {
  std::string contents = contentsOf(std::string(ZYM_DEMO_FOLDER) + "/" + name);
  if (contents.empty()) {
    throw std::runtime_error("cannot read " + name);
  }
  return contents;
}

// One tensor in float, rows outermost.
struct Matrix {
  std::vector<uint64_t> shape;  // outermost first
  std::vector<float> values;
};

class Checkpoint {
 public:
  Checkpoint() : bytes(readFile("model.safetensors")) {
    uint64_t headerBytes = 0;
    std::memcpy(&headerBytes, bytes.data(), sizeof(headerBytes));
    header = parseJson(bytes.substr(8, headerBytes));
    dataStart = 8 + headerBytes;
  }

  Matrix read(const std::string& name) const {
    const json& entry = header.at(name);
    Matrix matrix{entry["shape"].get<std::vector<uint64_t>>(), {}};
    const size_t begin = dataStart + entry["data_offsets"][0].get<size_t>();
    const size_t end = dataStart + entry["data_offsets"][1].get<size_t>();
    if (entry["dtype"] == "F32") {
      matrix.values.resize((end - begin) / 4);
      std::memcpy(matrix.values.data(), bytes.data() + begin, end - begin);
      return matrix;
    }
    for (size_t at = begin; at < end; at += 2) {
      uint16_t half = 0;
      std::memcpy(&half, bytes.data() + at, 2);
      const uint32_t bits = uint32_t{half} << 16;
      float value = 0;
      std::memcpy(&value, &bits, 4);
      matrix.values.push_back(value);
    }
    return matrix;
  }

 private:
  std::string bytes;
  json header;
  size_t dataStart = 0;
};

// Stored value head of the runtime's head h: the checkpoint groups heads under their key head, the
// runtime cycles over the key heads.
size_t storedHead(size_t h) {
  return h % kKeyHeads * 2 + h / kKeyHeads;
}

// Reorders units of `unit` values from `first` on, one unit per value head.
void reorderHeads(std::vector<float>& values, size_t first, size_t unit) {
  const std::vector<float> stored = values;
  for (size_t h = 0; h < kHeads; ++h) {
    for (size_t i = 0; i < unit; ++i) {
      values[first + h * unit + i] = stored[first + storedHead(h) * unit + i];
    }
  }
}

class DemoWriter {
 public:
  DemoWriter(const std::string& path, kel::QuantType matrices) : matrixType(matrices) {
    check(writer.create(path));
    writer.addMetaStr("general.architecture", "qwen35");
  }

  void vector(const std::string& name, const std::vector<float>& values) {
    check(writer.addTensor(name, kel::QuantType::F32, {values.size()}, values.data(),
                           values.size() * sizeof(float)));
  }

  void convolution(const std::string& name, const std::vector<float>& taps) {
    check(writer.addTensor(name, kel::QuantType::F32, {4, taps.size() / 4}, taps.data(),
                           taps.size() * sizeof(float)));
  }

  void matrix(const std::string& name, const Matrix& m) {
    const size_t n = m.values.size();
    std::vector<uint8_t> stored(kel::quant::quantizedBytes(matrixType, n));
    if (matrixType == kel::QuantType::Q8_0) {
      kel::quant::quantQ80(m.values.data(), stored.data(), n);
    } else {
      for (size_t i = 0; i < n; ++i) {  // exact: the values were read from bfloat16
        std::memcpy(stored.data() + 2 * i,
                    reinterpret_cast<const uint8_t*>(m.values.data() + i) + 2, 2);
      }
    }
    check(
        writer.addTensor(name, matrixType, {m.shape[1], m.shape[0]}, stored.data(), stored.size()));
  }

  void finish(kel::TokenizerData tables) {
    writer.setTokenizer(std::move(tables));
    check(writer.finish());
  }

 private:
  static void check(const kel::Status& status) {
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
  }

  kel::ZYM2Writer writer;
  kel::QuantType matrixType;
};

std::vector<float> plusOne(Matrix m) {
  for (float& value : m.values) {
    value += 1;
  }
  return m.values;
}

void writeLinearLayer(const Checkpoint& from, const std::string& layer, const std::string& block,
                      DemoWriter& to) {
  const size_t values = 2 * kKeyHeads * kHeadDim;  // first value row of the mixed projection
  Matrix qkv = from.read(layer + "in_proj_qkv.weight");
  const size_t cols = qkv.shape[1];
  reorderHeads(qkv.values, values * cols, kHeadDim * cols);
  to.matrix(block + "attn_qkv.weight", qkv);

  Matrix conv = from.read(layer + "conv1d.weight");
  reorderHeads(conv.values, values * 4, kHeadDim * 4);
  to.convolution(block + "ssm_conv1d.weight", conv.values);

  Matrix gate = from.read(layer + "in_proj_z.weight");
  reorderHeads(gate.values, 0, kHeadDim * cols);
  to.matrix(block + "attn_gate.weight", gate);

  for (const auto& [stored, name] : {std::pair{"in_proj_b.weight", "ssm_beta.weight"},
                                     std::pair{"in_proj_a.weight", "ssm_alpha.weight"}}) {
    Matrix rows = from.read(layer + stored);
    reorderHeads(rows.values, 0, cols);
    to.matrix(block + name, rows);
  }

  Matrix decay = from.read(layer + "A_log");
  reorderHeads(decay.values, 0, 1);
  for (float& value : decay.values) {
    value = -std::exp(value);
  }
  to.vector(block + "ssm_a", decay.values);

  Matrix bias = from.read(layer + "dt_bias");
  reorderHeads(bias.values, 0, 1);
  to.vector(block + "ssm_dt.bias", bias.values);

  to.vector(block + "ssm_norm.weight", from.read(layer + "norm.weight").values);

  Matrix out = from.read(layer + "out_proj.weight");
  const size_t width = out.shape[1];
  for (size_t row = 0; row < out.shape[0]; ++row) {
    std::vector<float> columns(out.values.begin() + static_cast<std::ptrdiff_t>(row * width),
                               out.values.begin() + static_cast<std::ptrdiff_t>((row + 1) * width));
    reorderHeads(columns, 0, kHeadDim);
    std::copy(columns.begin(), columns.end(),
              out.values.begin() + static_cast<std::ptrdiff_t>(row * width));
  }
  to.matrix(block + "ssm_out.weight", out);
}

void writeFullLayer(const Checkpoint& from, const std::string& layer, const std::string& block,
                    DemoWriter& to) {
  to.matrix(block + "attn_q.weight", from.read(layer + "q_proj.weight"));
  to.matrix(block + "attn_k.weight", from.read(layer + "k_proj.weight"));
  to.matrix(block + "attn_v.weight", from.read(layer + "v_proj.weight"));
  to.matrix(block + "attn_output.weight", from.read(layer + "o_proj.weight"));
  to.vector(block + "attn_q_norm.weight", plusOne(from.read(layer + "q_norm.weight")));
  to.vector(block + "attn_k_norm.weight", plusOne(from.read(layer + "k_norm.weight")));
}

kel::TokenizerData tokenizerTables() {
  const json file = parseJson(readFile("tokenizer.json"));
  const json& model = file["model"];
  kel::TokenizerData tables;
  tables.tokens.resize(model["vocab"].size() + file["added_tokens"].size());
  tables.tokenTypes.assign(tables.tokens.size(), 1);
  for (const auto& [text, id] : model["vocab"].items()) {
    tables.tokens.at(id.get<size_t>()) = text == "\u010A" ? "\n" : text;
  }
  for (const json& added : file["added_tokens"]) {
    tables.tokens.at(added["id"].get<size_t>()) = added["content"];
    tables.tokenTypes.at(added["id"].get<size_t>()) = 3;
  }
  for (const json& rule : model["merges"]) {
    tables.merges.push_back(rule);
  }
  tables.eosId = parseJson(readFile("expected.json"))["eos_token_id"];
  return tables;
}

}  // namespace

void writeDemoModel(const std::string& path, kel::QuantType matrices) {
  const Checkpoint from;
  DemoWriter to(path, matrices);
  to.matrix("token_embd.weight", from.read("model.embed_tokens.weight"));
  to.vector("output_norm.weight", plusOne(from.read("model.norm.weight")));
  for (size_t i = 0; i < 32; ++i) {
    const std::string layer = "model.layers." + std::to_string(i) + ".";
    const std::string block = "blk." + std::to_string(i) + ".";
    to.vector(block + "attn_norm.weight", plusOne(from.read(layer + "input_layernorm.weight")));
    to.vector(block + "post_attention_norm.weight",
              plusOne(from.read(layer + "post_attention_layernorm.weight")));
    to.matrix(block + "ffn_gate.weight", from.read(layer + "mlp.gate_proj.weight"));
    to.matrix(block + "ffn_up.weight", from.read(layer + "mlp.up_proj.weight"));
    to.matrix(block + "ffn_down.weight", from.read(layer + "mlp.down_proj.weight"));
    if ((i + 1) % 4 == 0) {
      writeFullLayer(from, layer + "self_attn.", block, to);
    } else {
      writeLinearLayer(from, layer + "linear_attn.", block, to);
    }
  }
  to.finish(tokenizerTables());
}

DemoExpectations demoExpectations() {
  const json file = parseJson(readFile("expected.json"));
  DemoExpectations expected;
  for (const json& chat : file["chats"]) {
    std::vector<DemoTurn>& turns = expected.chats.emplace_back();
    for (const json& turn : chat["turns"]) {
      turns.push_back({turn["user"], turn["expected_reply"]});
    }
  }
  for (const json& entry : file["logits"]) {
    DemoLogits logits{entry["prompt_ids"], entry["matrices"], {}};
    for (const json& top : entry["top10"]) {
      logits.largest.emplace_back(top["id"], top["logit"]);
    }
    expected.logits.push_back(std::move(logits));
  }
  return expected;
}

std::string plainSpaces(const std::string& text) {
  constexpr std::string_view kMarker = "\u0120";
  std::string plain;
  for (size_t at = 0; at < text.size();) {
    const bool isMarker = text.compare(at, kMarker.size(), kMarker) == 0;
    plain += isMarker ? ' ' : text[at];
    at += isMarker ? kMarker.size() : 1;
  }
  return plain;
}

}  // namespace kel::test
