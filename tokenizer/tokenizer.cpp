#include "tokenizer/tokenizer.h"

#include <utility>

#include "tokenizer/whitespace.h"

namespace kel {
namespace {

// Only the first rule decides. Vocabularies in use name their marker there, and rules further down
// may hold either marker as ordinary text.
bool isByteLevelRule(std::string_view rule) {
  return rule.find(kByteLevelSpace) != std::string_view::npos &&
         rule.find(kEscapedSpace) == std::string_view::npos;
}

}  // namespace

Status Tokenizer::load(TokenizerData data) {
  if (data.tokens.empty()) {
    return Status::invalid("tokenizer: empty token list");
  }
  if (data.tokenTypes.size() != data.tokens.size()) {
    data.tokenTypes.clear();
  }
  tokens = std::move(data.tokens);
  auxValues = std::move(data.auxValues);
  tokenTypes = std::move(data.tokenTypes);
  merges = std::move(data.merges);
  bosId = data.bosId;
  eosId = data.eosId;
  unkId = data.unkId;
  extraId = data.extraId;
  flag = data.flag;
  label = std::move(data.label);
  return buildIndexes();
}

Status Tokenizer::buildIndexes() {
  byteLevel = !merges.empty() && isByteLevelRule(merges.front());
  tokenIndex.build(tokens);
  mergeRanks.build(merges);
  specialTokens = specialTokensOf(tokens, tokenTypes);
  specialTokenFinder.build(specialTokens);
  return Status::success();
}

bool Tokenizer::isSpecial(size_t id) const {
  return id < tokenTypes.size() && isSpecialTokenType(tokenTypes[id]);
}

int32_t Tokenizer::tokenToId(std::string_view token) const {
  return tokenIndex.find(token);
}

Status Tokenizer::tokenToString(int id, std::string& out) const {
  if (id < 0 || static_cast<size_t>(id) >= tokens.size()) {
    return Status::invalid("tokenizer: token id out of range");
  }
  out = tokens[static_cast<size_t>(id)];
  return Status::success();
}

std::string_view Tokenizer::spaceMarker() const {
  return byteLevel ? kByteLevelSpace : kEscapedSpace;
}

void Tokenizer::escapeWhitespace(std::string& s) const {
  std::string escaped;
  escaped.reserve(s.size());
  appendEscaped(s, spaceMarker(), escaped);
  s = std::move(escaped);
}

void Tokenizer::unescapeWhitespace(std::string& s) const {
  kel::unescapeWhitespace(s);
}

}  // namespace kel
