#include "convert/hf_directory.h"

#include <filesystem>

#include "convert/errors.h"
#include "convert/hf_config.h"
#include "convert/hf_weights.h"
#include "convert/json_reader.h"
#include "convert/tokenizer_json.h"

namespace kel::convert {

namespace {

using nlohmann::json;

bool exists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

// Leaves out null when the directory has no such file.
Status readOptionalJson(const std::string& path, json& out) {
  return exists(path) ? readJsonFile(path, out) : Status::success();
}

int32_t idOfToken(const Vocabulary& vocabulary, const json& token) {
  // Stated as text, or as an object with the text inside.
  const json* content = token.is_object() ? jsonMember(token, "content") : &token;
  if (content == nullptr || !content->is_string()) {
    return -1;
  }
  for (size_t id = 0; id < vocabulary.tokens.size(); ++id) {
    if (vocabulary.types[id] == kControlToken && vocabulary.tokens[id] == *content) {
      return static_cast<int32_t>(id);
    }
  }
  return -1;
}

// The generation settings know best when a reply ends, then the tokenizer's, then the model's.
int32_t endToken(const json& generation, const json& tokenizer, const HfConfig& config,
                 const Vocabulary& vocabulary) {
  const json* ids = jsonMember(generation, "eos_token_id");
  if (ids != nullptr && ids->is_array() && !ids->empty()) {
    ids = &ids->front();
  }
  const auto stated = ids == nullptr ? std::nullopt : jsonUnsigned(*ids);
  if (stated && *stated <= INT32_MAX) {
    return static_cast<int32_t>(*stated);
  }
  const json* token = jsonMember(tokenizer, "eos_token");
  const int32_t id = token == nullptr ? -1 : idOfToken(vocabulary, *token);
  return id >= 0 ? id : config.eosId;
}

Status readVocabulary(const std::string& folder, const HfConfig& config, Vocabulary& out) {
  MappedFile file;
  Status status = file.open(folder + "/tokenizer.json");
  if (status.ok()) {
    status = parseTokenizerJson(file.text(), out);
  }
  json tokenizer;
  json generation;
  if (status.ok()) {
    status = readOptionalJson(folder + "/tokenizer_config.json", tokenizer);
  }
  if (status.ok()) {
    status = readOptionalJson(folder + "/generation_config.json", generation);
  }
  if (!status.ok()) {
    return status;
  }
  out.eosId = endToken(generation, tokenizer, config, out);
  out.bosId = config.bosId;
  const json* addBos = jsonMember(tokenizer, "add_bos_token");
  out.addBos = addBos != nullptr && *addBos == true;
  const json* chatTemplate = jsonMember(tokenizer, "chat_template");
  out.chat = (chatTemplate != nullptr && !chatTemplate->is_null()) ||
             exists(folder + "/chat_template.jinja");
  return status;
}

}  // namespace

Status readHfDirectory(const std::string& path, SourceModel& out) {
  json configFile;
  Status status = readJsonFile(path + "/config.json", configFile);
  HfConfig config;
  if (status.ok()) {
    status = readHfConfig(configFile, config);
  }
  if (status.ok()) {
    status = readHfWeights(path, out);
  }
  if (status.ok() && config.untied && !out.outputHead) {
    status = unsupported(
        "config.json: tie_word_embeddings is false, but there is no lm_head.weight; the runtime "
        "needs an output head that is the embedding");
  }
  if (status.ok()) {
    status = readVocabulary(path, config, out.vocabulary);
  }
  if (!status.ok()) {
    return status;
  }
  out.hidden = config.hidden;
  out.feedForward = config.feedForward;
  out.vocab = config.vocab;
  out.normsLessOne = true;
  out.decaysAsLogs = true;
  out.groupedHeads = true;
  out.format = "safetensors";
  return status;
}

}  // namespace kel::convert
