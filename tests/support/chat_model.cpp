#include "tests/support/chat_model.h"

#include <cmath>
#include <cstring>
#include <stdexcept>

namespace kel::test {

namespace {

constexpr char kFirstPrintable = ' ';
constexpr char kLastPrintable = '~';

void check(const kel::Status& status) {
  if (!status.ok()) {
    throw std::runtime_error(status.message);
  }
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.ends_with(end);
}

// Every row is `base` in its first element and noise elsewhere; the favourite's is ten times that.
std::vector<float> embedding(uint64_t hidden, size_t vocab, size_t favourite) {
  std::vector<float> values(hidden * vocab);
  for (size_t row = 0; row < vocab; ++row) {
    for (size_t i = 0; i < hidden; ++i) {
      const float noise = 0.01f * static_cast<float>((row * 31 + i * 17) % 13);
      values[row * hidden + i] = i == 0 ? (row == favourite ? 10.0f : 1.0f) : noise;
    }
  }
  return values;
}

RandomModelSpec randomChatSpec(kel::QuantType matrices, uint64_t hidden) {
  RandomModelSpec spec;
  spec.hidden = hidden;
  spec.ffn = 64;
  spec.types = {matrices};
  spec.layerKinds = ChatModel{}.layerKinds;
  spec.tokenizer = chatTables(spec.vocab);
  return spec;
}

void scaleVector(TensorPlan& vector, double factor) {
  vector.low *= static_cast<float>(factor);
  vector.high *= static_cast<float>(factor);
}

}  // namespace

kel::TokenizerData chatTables(size_t vocab) {
  kel::TokenizerData tables;
  tables.tokens.emplace_back("\n");
  for (char c = kFirstPrintable; c <= kLastPrintable; ++c) {
    tables.tokens.push_back(c == ' ' ? "\u2581" : std::string(1, c));
  }
  tables.tokenTypes.assign(vocab, 1);
  for (const char* special : {"<|im_start|>", "<|im_end|>", "<|eos|>"}) {
    tables.tokenTypes.at(tables.tokens.size()) = 3;
    tables.tokens.emplace_back(special);
  }
  tables.eosId = static_cast<int32_t>(tables.tokens.size() - 1);
  while (tables.tokens.size() < vocab) {
    const std::string number = std::to_string(tables.tokens.size());
    tables.tokens.emplace_back("<").append(number).append(">");
  }
  return tables;
}

int32_t chatId(const std::string& token) {
  const std::vector<std::string> tokens = chatTables(300).tokens;
  for (size_t id = 0; id < tokens.size(); ++id) {
    if (tokens[id] == token) {
      return static_cast<int32_t>(id);
    }
  }
  throw std::runtime_error("no such token: " + token);
}

std::vector<uint8_t> floatBytes(const std::vector<float>& values) {
  std::vector<uint8_t> bytes(values.size() * sizeof(float));
  std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

void setEmbeddingRow(std::vector<TensorPlan>& plan, size_t row, const std::vector<float>& values) {
  TensorPlan& matrix = planned(plan, "token_embd.weight");
  if (values.size() != matrix.dims[0]) {
    throw std::invalid_argument("a row has as many values as the model's hidden size");
  }
  std::memcpy(matrix.data.data() + row * values.size() * sizeof(float), values.data(),
              values.size() * sizeof(float));
}

void setEmbeddingRow(std::vector<TensorPlan>& plan, const std::string& token,
                     const std::vector<float>& values) {
  setEmbeddingRow(plan, static_cast<size_t>(chatId(token)), values);
}

void fillEmbeddingRow(std::vector<TensorPlan>& plan, size_t row, float value) {
  const uint64_t hidden = planned(plan, "token_embd.weight").dims[0];
  setEmbeddingRow(plan, row, std::vector<float>(hidden, value));
}

void writeChatModel(const std::string& path, const ChatModel& model) {
  RandomModelSpec spec;
  spec.hidden = model.hidden;
  spec.vocab = model.vocab;
  spec.layerKinds = model.layerKinds;
  spec.types = {model.matrices};
  spec.tokenizer = chatTables(model.vocab);
  if (model.editTables) {
    model.editTables(spec.tokenizer);
  }
  const auto favourite = static_cast<size_t>(chatId(model.favourite));
  spec.edit = [&](std::vector<TensorPlan>& plan) {
    for (TensorPlan& tensor : plan) {
      for (const char* output : {"ssm_out.weight", "attn_output.weight", "ffn_down.weight"}) {
        if (!endsWith(tensor.name, output)) {
          continue;
        }
        tensor.type = kel::QuantType::F32;
        tensor.data = floatBytes(std::vector<float>(tensor.dims[0] * tensor.dims[1], 0.0f));
      }
    }
    TensorPlan& rows = planned(plan, "token_embd.weight");
    rows.type = kel::QuantType::F32;
    rows.data = floatBytes(embedding(model.hidden, model.vocab, favourite));
    planned(plan, "output_norm.weight").data = floatBytes(std::vector<float>(model.hidden, 1.0f));
    if (model.editTensors) {
      model.editTensors(plan);
    }
  };
  check(writeRandomModel(path, spec));
}

void writeRandomChatModel(const std::string& path, kel::QuantType matrices, uint64_t hidden) {
  check(writeRandomModel(path, randomChatSpec(matrices, hidden)));
}

void writeSensitiveChatModel(const std::string& path, kel::QuantType matrices, uint64_t hidden) {
  RandomModelSpec spec = randomChatSpec(matrices, hidden);
  spec.edit = [&spec](std::vector<TensorPlan>& plan) {
    constexpr double kGrowth = 2;  // of a block's output from one layer to the next
    for (size_t layer = 0; layer < spec.blocks; ++layer) {
      const double gain = std::pow(kGrowth, static_cast<double>(layer));
      const std::string prefix = "blk." + std::to_string(layer);
      scaleVector(planned(plan, prefix + ".attn_norm.weight"), gain);
      scaleVector(planned(plan, prefix + ".post_attention_norm.weight"), std::sqrt(gain));
    }
  };
  check(writeRandomModel(path, spec));
}

}  // namespace kel::test
