#include "host/serve/answer_tokens.h"

#include <fmt/core.h>

#include <algorithm>
#include <utility>

#include "engine/utf8_text.h"

namespace zym {

namespace {

using Kind = engine::ReplyEvent::Kind;
using Tokens = std::vector<engine::LogProbabilities>;

// What the interfaces say of a token that has no probability: JSON has no infinity.
constexpr double kLeast = -9999;

double written(double logProbability) {
  return std::max(logProbability, kLeast);
}

std::string validText(const std::string& bytes) {
  std::string text;
  engine::appendValid(bytes, text);
  return text;
}

Json tokenObject(const ServedModel& served, const engine::TokenLogProbability& token) {
  const std::string text = served.tokenBytes(token.id);
  Json bytes = Json::array();
  for (const char c : text) {
    bytes.push_back(static_cast<unsigned char>(c));
  }
  return {{"token", validText(text)},
          {"logprob", written(token.logProbability)},
          {"bytes", std::move(bytes)}};
}

// A token that is no whole characters by itself shows its bytes.
std::string completionToken(const std::string& bytes) {
  if (engine::isValid(bytes)) {
    return bytes;
  }
  std::string text = "bytes:";
  for (const char c : bytes) {
    text += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  }
  return text;
}

size_t charactersOf(const std::string& bytes) {
  return static_cast<size_t>(std::count_if(bytes.begin(), bytes.end(), [](char c) {
    constexpr unsigned kContinuation = 0x80;
    constexpr unsigned kTopBits = 0xC0;
    return (static_cast<unsigned char>(c) & kTopBits) != kContinuation;
  }));
}

}  // namespace

void AnswerTokens::add(const engine::LogProbabilities& token) {
  const int32_t id = token.chosen.id;
  if (inReasoning) {
    inReasoning = id != served.thinkEnd;
    return;
  }
  const bool isFraming =
      atFront && served.tokenBytes(id).find_first_not_of('\n') == std::string::npos;
  if (!isFraming) {
    atFront = false;
    pending.push_back(token);
  }
}

Tokens AnswerTokens::take(const engine::ReplyEvent& event) {
  if (event.kind == Kind::Answer) {
    return std::exchange(pending, {});
  }
  // Until a call is complete its text may yet be answer.
  if (event.kind == Kind::Reasoning || event.kind == Kind::CallComplete ||
      event.kind == Kind::CallIncomplete) {
    pending.clear();
  }
  return {};
}

Json chatLogProbabilities(const ServedModel& served, const Tokens& tokens) {
  Json out = Json::array();
  for (const engine::LogProbabilities& token : tokens) {
    Json object = tokenObject(served, token.chosen);
    Json best = Json::array();
    for (const engine::TokenLogProbability& other : token.best) {
      best.push_back(tokenObject(served, other));
    }
    object["top_logprobs"] = std::move(best);
    out.push_back(std::move(object));
  }
  return out;
}

Json completionLogProbabilities(const ServedModel& served, const Tokens& tokens,
                                size_t& textOffset) {
  Json names = Json::array();
  Json values = Json::array();
  Json best = Json::array();
  Json offsets = Json::array();
  for (const engine::LogProbabilities& token : tokens) {
    const std::string bytes = served.tokenBytes(token.chosen.id);
    names.push_back(completionToken(bytes));
    values.push_back(written(token.chosen.logProbability));
    Json others = Json::object();
    for (const engine::TokenLogProbability& other : token.best) {
      others[completionToken(served.tokenBytes(other.id))] = written(other.logProbability);
    }
    best.push_back(std::move(others));
    offsets.push_back(textOffset);
    textOffset += charactersOf(bytes);
  }
  return {{"tokens", std::move(names)},
          {"token_logprobs", std::move(values)},
          {"top_logprobs", std::move(best)},
          {"text_offset", std::move(offsets)}};
}

}  // namespace zym
