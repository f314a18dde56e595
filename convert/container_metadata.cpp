#include "convert/container_metadata.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <string_view>
#include <utility>

#include "container/shape_metadata.h"
#include "convert/storage_plan.h"

namespace kel::convert {

namespace {

// Marks that programs put around turns, thoughts and calls.
constexpr std::pair<std::string_view, const char*> kMarks[] = {
    {"<|im_start|>", "zym.token.im_start"},
    {"<|im_end|>", "zym.token.im_end"},
    {"<|endoftext|>", "zym.token.endoftext"},
    {"<think>", "zym.token.think"},
    {"</think>", "zym.token.think_end"},
    {"<tool_call>", "zym.token.tool_call"},
    {"</tool_call>", "zym.token.tool_call_end"},
    {"<tool_response>", "zym.token.tool_response"},
    {"</tool_response>", "zym.token.tool_response_end"},
};

void addText(ZYM2Writer& writer, const char* key, const std::string& text) {
  if (!text.empty()) {
    writer.addMetaStr(key, text);
  }
}

void addId(ZYM2Writer& writer, const char* key, int64_t id) {
  if (id >= 0) {
    writer.addMetaU32(key, static_cast<uint32_t>(id));
  }
}

int64_t idOfMark(const TokenizerData& tokenizer, std::string_view mark) {
  for (size_t id = 0; id < tokenizer.tokens.size(); ++id) {
    if (tokenizer.tokenTypes[id] == kControlToken && tokenizer.tokens[id] == mark) {
      return static_cast<int64_t>(id);
    }
  }
  return -1;
}

void addTokens(const SourceModel& source, const TokenizerData& tokenizer, ZYM2Writer& writer) {
  addId(writer, "tokenizer.ggml.bos_token_id", tokenizer.bosId);
  addId(writer, "tokenizer.ggml.eos_token_id", tokenizer.eosId);
  const bool isPaddingToken =
      source.paddingId < static_cast<int64_t>(tokenizer.tokens.size());  // files may state any
  addId(writer, "tokenizer.ggml.padding_token_id", isPaddingToken ? source.paddingId : -1);
  for (const auto& [mark, key] : kMarks) {
    addId(writer, key, idOfMark(tokenizer, mark));
  }
  addText(writer, "tokenizer.chat_template", source.chatTemplate);
  if (source.normalizer) {
    writer.addMetaStr("tokenizer.normalizer", *source.normalizer);
  }
}

void addSampling(const SourceModel& source, ZYM2Writer& writer) {
  for (const auto& [name, value] : source.sampling) {
    writer.addMetaF32("general.sampling." + name, static_cast<float>(value));
  }
}

// "4 ffn_down.weight: Q6_K to Q8_0", a line for each group that was not kept.
std::string reencodedText(const ConvertSummary& summary) {
  std::string text;
  for (const TensorGroup& group : summary.groups) {
    if (!group.reason.empty()) {
      text += fmt::format("{}{} {}: {} to {}", text.empty() ? "" : "\n", group.count, group.name,
                          group.sourceType, quantTypeName(group.storedType));
    }
  }
  return text;
}

void addStorage(const StorageChoice& storage, ZYM2Writer& writer) {
  if (!storage.plan.empty()) {
    writer.addMetaStr("zym.convert.plan", planText(storage.plan));
  }
  if (storage.preset) {
    writer.addMetaStr("zym.convert.preset", presetName(*storage.preset));
  } else {
    writer.addMetaStr("zym.convert.type", storage.type ? quantTypeName(*storage.type) : "keep");
  }
  if (storage.embeddingType) {
    writer.addMetaStr("zym.convert.embedding_type", quantTypeName(*storage.embeddingType));
  }
}

}  // namespace

void addMetadata(const SourceModel& source, const TensorPlan& plan, const TokenizerData& tokenizer,
                 const ConvertOptions& options, const ConvertSummary& summary, ZYM2Writer& writer) {
  writer.addMetaStr("general.architecture", "qwen35");
  writer.addMetaStr("general.name", summary.modelName);
  addText(writer, "general.license", source.license);
  writeShape(writer, source.shape, plan.sizes, source.predictionLayers);
  addTokens(source, tokenizer, writer);
  addSampling(source, writer);
  addText(writer, "zym.source.name", source.name);
  writer.addMetaStr("zym.source.format", source.format);
  writer.addMetaStr("zym.source.files", fmt::format("{}", fmt::join(source.fileNames, "\n")));
  addStorage(options.storage, writer);
  addText(writer, "zym.convert.reencoded", reencodedText(summary));
  for (const auto& [key, value] : options.notes) {
    writer.addMetaStr(key, value);
  }
}

}  // namespace kel::convert
