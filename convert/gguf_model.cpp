#include "convert/gguf_model.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "convert/errors.h"
#include "convert/gguf_metadata.h"
#include "convert/gguf_shape.h"

namespace kel::convert {

namespace {

// Tensors that text generation does without: kind and what their names begin with.
constexpr std::pair<std::string_view, const char*> kSkipped[] = {
    {"mtp.", kPredictionKind},
    {"v.", "vision"},
    {"mm.", "vision"},
};

const char* skippedKind(std::string_view name) {
  for (const auto& [prefix, kind] : kSkipped) {
    if (name.starts_with(prefix)) {
      return kind;
    }
  }
  return nullptr;
}

// Factors by which frequencies of the rotation are divided: of no use where all are 1.
Status checkRopeFactors(const GgufTensor& tensor) {
  if (tensor.type) {
    const SourceTypeInfo& type = sourceTypeInfo(*tensor.type);
    std::vector<float> factors(tensor.nBytes / type.block.bytes * type.block.elements);
    type.decode(tensor.data, factors.data(), factors.size());
    if (std::all_of(factors.begin(), factors.end(), [](float f) { return f == 1.0F; })) {
      return Status::success();
    }
  }
  return unsupported("{} scales the rotation; the runtime needs it as it is",
                     printable(tensor.name));
}

// Some writers leave the ".bias" off this one name.
std::string containerName(std::string_view name) {
  return std::string(name) + (name.ends_with(".ssm_dt") ? ".bias" : "");
}

SourceTensor sourceTensor(const GgufTensor& tensor) {
  return {
      printable(tensor.name), std::string(tensor.typeName), tensor.type, tensor.dims, tensor.data,
      tensor.nBytes};
}

Status readTensors(const GgufFile& file, SourceModel& out) {
  // The block behind the last layer.
  const std::string prediction = fmt::format("blk.{}.", out.shape.layers);
  for (const GgufTensor& tensor : file.tensors()) {
    if (const char* kind = skippedKind(tensor.name); kind != nullptr) {
      ++out.skipped[kind];
    } else if (tensor.name.starts_with(prediction)) {
      out.predictionTensors.emplace(tensor.name, sourceTensor(tensor));
    } else if (tensor.name == "rope_freqs.weight") {
      Status status = checkRopeFactors(tensor);
      if (!status.ok()) {
        return status;
      }
      ++out.skipped["rotation"];
    } else if (tensor.name == "output.weight") {
      out.outputHead = sourceTensor(tensor);
    } else if (!out.tensors.emplace(containerName(tensor.name), sourceTensor(tensor)).second) {
      return malformed("GGUF: {} occurs with and without \".bias\"", printable(tensor.name));
    }
  }
  return checkIsWhole(out, "this file");
}

const std::vector<std::string_view>* findStrings(const GgufFile& file, std::string_view key) {
  const GgufValue* value = file.find(key);
  if (value == nullptr || value->type != GgufType::Array ||
      value->elementType != GgufType::String) {
    return nullptr;
  }
  return &value->strings;
}

// An id, -1 where the key is absent.
Status readId(const GgufFile& file, std::string_view key, int32_t& id) {
  const GgufValue* value = file.find(key);
  if (value == nullptr) {
    return Status::success();
  }
  const std::optional<int64_t> stored = value->asInteger();
  if (!stored || *stored < -1 || *stored > INT32_MAX) {
    return malformed("GGUF: {} is not a token id", key);
  }
  id = static_cast<int32_t>(*stored);
  return Status::success();
}

Status readTokenTypes(const GgufFile& file, Vocabulary& out) {
  const GgufValue* types = file.find("tokenizer.ggml.token_type");
  if (types == nullptr || types->type != GgufType::Array || types->elementType != GgufType::I32 ||
      types->count != out.tokens.size()) {
    return malformed("GGUF: tokenizer.ggml.token_type is not a list of {} 32-bit integers",
                     out.tokens.size());
  }
  out.types.reserve(types->count);
  for (uint64_t i = 0; i < types->count; ++i) {
    out.types.push_back(static_cast<int32_t>(types->integerAt(i).value_or(kNormalToken)));
  }
  return Status::success();
}

Status readMerges(const GgufFile& file, Vocabulary& out) {
  const auto* merges = findStrings(file, "tokenizer.ggml.merges");
  if (merges == nullptr) {
    return malformed("GGUF: tokenizer.ggml.merges is missing");
  }
  for (const std::string_view rule : *merges) {
    if (std::count(rule.begin(), rule.end(), ' ') != 1) {
      return malformed("GGUF: merge rule {} is not a pair", out.merges.size());
    }
    out.merges.emplace_back(rule);
  }
  return Status::success();
}

// The name of how text is cut before merging. That of earlier models of the makers differs at
// combining marks alone, and so does what files say that name none.
Status checkTextCutting(const GgufFile& file, std::vector<std::string>& remarks) {
  constexpr std::string_view kKey = "tokenizer.ggml.pre";
  const GgufValue* name = file.find(kKey);
  if (name == nullptr || name->text == "qwen35") {
    return Status::success();
  }
  if (name->text == "qwen2" || name->text == "default") {
    remarks.push_back(
        fmt::format("{} is \"{}\"; text is cut as for \"qwen35\", which differs at combining marks",
                    kKey, name->text));
    return Status::success();
  }
  return misfit(kKey, fmt::format("\"{}\"", printable(name->text)), "\"qwen35\"");
}

// Empty where the key is absent or holds no text.
std::string textOf(const GgufFile& file, std::string_view key) {
  const GgufValue* value = file.find(key);
  return value == nullptr || value->type != GgufType::String ? "" : std::string(value->text);
}

void readSampling(const GgufFile& file, SourceModel& out) {
  for (const char* name :
       {"temp", "top_k", "top_p", "min_p", "penalty_present", "penalty_repeat"}) {
    const GgufValue* value = file.find(std::string("general.sampling.") + name);
    const std::optional<double> number = value == nullptr ? std::nullopt : value->asNumber();
    if (number && std::isfinite(*number)) {
      out.sampling.emplace_back(name, *number);
    }
  }
}

void readFacts(const GgufFile& file, SourceModel& out) {
  out.format = fmt::format("GGUF {}", file.version());
  out.name = printable(textOf(file, "general.name"));
  out.license = printable(textOf(file, "general.license"));
  out.chatTemplate = textOf(file, "tokenizer.chat_template");
  const GgufValue* padding = file.find("tokenizer.ggml.padding_token_id");
  out.paddingId = padding == nullptr ? -1 : padding->asInteger().value_or(-1);
  readSampling(file, out);
}

Status readVocabulary(const GgufFile& file, Vocabulary& out) {
  const GgufValue* model = file.find("tokenizer.ggml.model");
  if (model == nullptr) {
    return malformed("GGUF: tokenizer.ggml.model is missing");
  }
  if (model->text != "gpt2") {
    return misfit("tokenizer.ggml.model", fmt::format("\"{}\"", printable(model->text)),
                  "\"gpt2\"");
  }
  const auto* tokens = findStrings(file, "tokenizer.ggml.tokens");
  if (tokens == nullptr) {
    return malformed("GGUF: tokenizer.ggml.tokens is missing");
  }
  out.tokens.assign(tokens->begin(), tokens->end());
  Status status = readTokenTypes(file, out);
  if (status.ok()) {
    status = readMerges(file, out);
  }
  if (status.ok()) {
    status = readId(file, "tokenizer.ggml.eos_token_id", out.eosId);
  }
  if (status.ok()) {
    status = readId(file, "tokenizer.ggml.bos_token_id", out.bosId);
  }
  const GgufValue* addBos = file.find("tokenizer.ggml.add_bos_token");
  out.addBos = addBos != nullptr && addBos->asBool().value_or(false);
  out.chat = file.find("tokenizer.chat_template") != nullptr;
  return status;
}

// Value heads are tiled unless the file says otherwise.
Status readHeadOrder(const GgufFile& file, bool& grouped) {
  for (const std::string_view key : {"qwen35.ssm.v_head_reordered", "ssm.v_head_reordered"}) {
    const GgufValue* value = file.find(key);
    if (value == nullptr) {
      continue;
    }
    if (!value->asBool()) {
      return malformed("GGUF: {} is not a bool", key);
    }
    grouped = !*value->asBool();
    return Status::success();
  }
  return Status::success();
}

Status readSize(const GgufFile& file, std::string_view key, StatedSize& out) {
  out.field = key;
  const GgufValue* value = file.find(key);
  if (value == nullptr) {
    return Status::success();
  }
  const std::optional<int64_t> stored = value->asInteger();
  if (!stored || *stored < 0) {
    return malformed("GGUF: {} is not a size", key);
  }
  out.value = static_cast<uint64_t>(*stored);
  return Status::success();
}

}  // namespace

Status readGgufModel(const GgufFile& file, SourceModel& out) {
  Status status = checkGgufMetadata(file);
  if (status.ok()) {
    status = readGgufShape(file, out.shape);
  }
  if (status.ok()) {
    status = readTensors(file, out);
  }
  if (status.ok()) {
    status = readVocabulary(file, out.vocabulary);
  }
  if (status.ok()) {
    status = checkTextCutting(file, out.remarks);
  }
  if (status.ok()) {
    status = readHeadOrder(file, out.groupedHeads);
  }
  if (status.ok()) {
    status = readSize(file, "qwen35.embedding_length", out.hidden);
  }
  if (status.ok()) {
    status = readSize(file, "qwen35.feed_forward_length", out.feedForward);
  }
  if (!status.ok()) {
    return status;
  }
  readFacts(file, out);
  return status;
}

}  // namespace kel::convert
