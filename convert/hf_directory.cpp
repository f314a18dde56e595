#include "convert/hf_directory.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <utility>

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

// tokenizer, generation: the settings of either, null where the directory has no such file.
Status readVocabulary(const std::string& folder, const HfConfig& config, const json& tokenizer,
                      const json& generation, SourceModel& out) {
  Vocabulary& vocabulary = out.vocabulary;
  MappedFile file;
  Status status = file.open(folder + "/tokenizer.json");
  if (status.ok()) {
    status = parseTokenizerJson(file.text(), vocabulary, out.normalizer.emplace());
  }
  if (!status.ok()) {
    return status;
  }
  vocabulary.eosId = endToken(generation, tokenizer, config, vocabulary);
  vocabulary.bosId = config.bosId;
  const json* addBos = jsonMember(tokenizer, "add_bos_token");
  vocabulary.addBos = addBos != nullptr && *addBos == true;
  return status;
}

// Of several templates the one by the name of default.
std::string templateText(const json& stated) {
  if (stated.is_string()) {
    return stated.get<std::string>();
  }
  if (stated.is_array()) {
    for (const json& named : stated) {
      const json* name = jsonMember(named, "name");
      const json* text = jsonMember(named, "template");
      if (name != nullptr && *name == "default" && text != nullptr && text->is_string()) {
        return text->get<std::string>();
      }
    }
  }
  return {};
}

// A file of its own goes before the settings.
std::string chatTemplate(const std::string& folder, const json& tokenizer) {
  const std::string path = folder + "/chat_template.jinja";
  MappedFile file;
  if (exists(path) && file.open(path).ok()) {
    return std::string(file.text());
  }
  const json* stated = jsonMember(tokenizer, "chat_template");
  return stated == nullptr ? std::string() : templateText(*stated);
}

// The license of the model card: a line of the block between two lines of "---" at its start.
std::string license(const std::string& folder) {
  constexpr std::string_view kKey = "license:";
  constexpr std::string_view kBlanks = " \t\r\"'";
  MappedFile card;
  if (!exists(folder + "/README.md") || !card.open(folder + "/README.md").ok()) {
    return {};
  }
  std::string_view text = card.text();
  for (bool isFirst = true; !text.empty(); isFirst = false) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.starts_with("---") != isFirst) {
      return {};
    }
    if (line.starts_with(kKey)) {
      line.remove_prefix(kKey.size());
      const size_t first = line.find_first_not_of(kBlanks);
      const size_t last = line.find_last_not_of(kBlanks);
      return first == std::string_view::npos ? "" : printable(line.substr(first, last - first + 1));
    }
  }
  return {};
}

void readSampling(const json& generation, SourceModel& out) {
  constexpr std::pair<const char*, const char*> kNames[] = {
      {"temperature", "temp"},
      {"top_k", "top_k"},
      {"top_p", "top_p"},
      {"min_p", "min_p"},
      {"presence_penalty", "penalty_present"},
      {"repetition_penalty", "penalty_repeat"},
  };
  for (const auto& [name, key] : kNames) {
    const json* value = jsonMember(generation, name);
    if (value != nullptr && value->is_number()) {
      out.sampling.emplace_back(key, value->get<double>());
    }
  }
}

int64_t paddingToken(const json& tokenizer, const HfConfig& config, const Vocabulary& vocabulary) {
  const json* token = jsonMember(tokenizer, "pad_token");
  const int32_t id = token == nullptr ? -1 : idOfToken(vocabulary, *token);
  return id >= 0 ? id : config.paddingId;
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
    out.shape = config.shape;
    status = readHfWeights(path, out);
  }
  json tokenizer;
  json generation;
  if (status.ok()) {
    status = readOptionalJson(path + "/tokenizer_config.json", tokenizer);
  }
  if (status.ok()) {
    status = readOptionalJson(path + "/generation_config.json", generation);
  }
  if (status.ok()) {
    status = readVocabulary(path, config, tokenizer, generation, out);
  }
  if (!status.ok()) {
    return status;
  }
  out.statesOwnOutput = config.untied;
  out.tiedField = "config.json: tie_word_embeddings";
  out.hidden = config.hidden;
  out.feedForward = config.feedForward;
  out.vocab = config.vocab;
  out.normsLessOne = true;
  out.decaysAsLogs = true;
  out.groupedHeads = true;
  out.format = "safetensors";
  out.chatTemplate = chatTemplate(path, tokenizer);
  out.vocabulary.chat = !out.chatTemplate.empty();
  out.paddingId = paddingToken(tokenizer, config, out.vocabulary);
  out.license = license(path);
  readSampling(generation, out);
  return status;
}

}  // namespace kel::convert
