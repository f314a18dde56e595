#include "host/serve/served_model.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "engine/chat_tokens.h"
#include "engine/recommended_sampling.h"
#include "tokenizer/vocab_text.h"
#include "tokenizer/whitespace.h"

namespace zym {

namespace {

engine::SamplerSettings recommended(const engine::Model& model, engine::SamplingMode mode) {
  return engine::recommendedSampling(mode, model.file().reader);
}

}  // namespace

ServedModel::ServedModel(ApiServices apiServices) : services(std::move(apiServices)) {
  const kel::Tokenizer& tokenizer = model().tokenizer();
  thinkEnd = tokenizer.tokenToId(engine::kThinkEnd);
  callBegin = tokenizer.tokenToId(engine::kCallBegin);
  callEnd = tokenizer.tokenToId(engine::kCallEnd);
  canThink = engine::canThink(model());
  thinksByDefault = engine::thinksByDefault(model());
  knowsTools = engine::chatStyleOf(model()) == engine::ChatStyle::Family;
  thinkingSampling = recommended(model(), engine::SamplingMode::Thinking);
  plainSampling = recommended(model(), engine::SamplingMode::WithoutThinking);
}

bool ServedModel::hasName(std::string_view name) const {
  return std::find(services.names.begin(), services.names.end(), name) != services.names.end();
}

std::string ServedModel::newId(std::string_view prefix) const {
  const uint64_t first = services.random();
  return fmt::format("{}{:016x}{:08x}", prefix, first, services.random() >> 32U);
}

bool ServedModel::isSpecial(int32_t id) const {
  const std::vector<int32_t>& types = model().tokenizer().tokenTypes;
  const auto at = static_cast<size_t>(id);
  return id >= 0 && at < types.size() && kel::isSpecialTokenType(types[at]);
}

std::string ServedModel::tokenBytes(int32_t id) const {
  const kel::Tokenizer& tokenizer = model().tokenizer();
  const auto at = static_cast<size_t>(id);
  if (id < 0 || at >= tokenizer.tokens.size()) {
    return {};
  }
  const std::string& token = tokenizer.tokens[at];
  if (isSpecial(id)) {
    return token;
  }
  std::string bytes;
  if (tokenizer.byteLevel) {
    kel::appendTokenBytes(kel::vocabTextOf(tokenizer.label), token, bytes);
  } else {
    kel::appendUnescaped(token, bytes);
  }
  return bytes;
}

}  // namespace zym
