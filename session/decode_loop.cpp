#include "session/decode_loop.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>

#include "qwen35/forward.h"
#include "session/sampler.h"

namespace session {

namespace {

constexpr size_t kLogitTestStride = 4096;
constexpr size_t kMaxTextBytes = 1073741824;  // of one buffered reply, with the slack below
constexpr size_t kTextSlack = 64;

// False for infinities and NaN.
bool isFinite(float value) {
  return std::fabs(value) <= std::numeric_limits<float>::max();
}

// Runs one forward pass at the session's position; counts and times it (the pass alone).
template <typename Pass>
void timedPass(Qwen35Session& session, Pass&& pass) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  pass();
  const std::chrono::nanoseconds elapsed = Clock::now() - start;
  ++session.position;
  session.lastDecodeMs = static_cast<double>(elapsed.count()) / 1e6;
  session.decodeMsTotal += session.lastDecodeMs;
}

// A vocabulary may be larger than the matrix, and a file may name any id as its beginning or
// unknown token.
bool hasEmbeddingRow(const Qwen35Session& session, int token) {
  return token >= 0 && static_cast<uint64_t>(token) < session.model.nVocab;
}

}  // namespace

bool contextIsFull(const Qwen35Session& session) {
  return session.position >= session.model.maxCtx;
}

bool sampledLogitsAreFinite(const std::vector<float>& logits) {
  for (size_t i = 0; i < logits.size(); i += kLogitTestStride) {
    if (!isFinite(logits[i])) return false;
  }
  return true;
}

void feedToken(Qwen35Session* session, int token, std::vector<float>& hidden,
               std::vector<float>& logits) {
  qwen35::embedRow(session->model, static_cast<size_t>(token), hidden.data());
  timedPass(*session, [&] {
    qwen35::forwardToken(session->model, hidden.data(), session->position, logits.data());
  });
}

bool prefill(Qwen35Session* session, const std::vector<int>& tokens, std::vector<float>& hidden,
             std::vector<float>& logits) {
  if (!session->unfitReason.empty()) return false;
  if (tokens.empty()) return true;

  std::vector<float> scratch(session->model.nEmbd);
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (contextIsFull(*session) || !hasEmbeddingRow(*session, tokens[i])) return false;
    if (i + 1 == tokens.size()) {
      feedToken(session, tokens[i], hidden, logits);
      return sampledLogitsAreFinite(logits);
    }
    qwen35::embedRow(session->model, static_cast<size_t>(tokens[i]), hidden.data());
    timedPass(*session, [&] {
      qwen35::forwardTokenHidden(session->model, hidden.data(), session->position, scratch.data());
    });
    if (!std::all_of(scratch.begin(), scratch.end(), isFinite)) return false;
  }
  return true;
}

bool decodeLoop(Qwen35Session* session, std::vector<float>& hidden, std::vector<float>& logits,
                int stopToken, const PieceSink& sink) {
  std::string piece;
  for (size_t emitted = 0;;) {
    const int id = sampleNext(logits.data(), logits.size(), session->temperature, session->topK,
                              session->topP, session->rng);
    ++session->sampledTokens;
    if (id < 0 || id == session->tokenizer->eosId || id == stopToken) return true;
    if (!session->tokenizer->decode({id}, piece).ok()) return true;
    if (!sink(piece)) return true;
    if (++emitted == kMaxNewTokens || contextIsFull(*session)) return true;
    feedToken(session, id, hidden, logits);
    if (!sampledLogitsAreFinite(logits)) return false;
  }
}

std::string generate(Qwen35Session* session, std::vector<float>& hidden, std::vector<float>& logits,
                     int stopToken, bool& ok) {
  std::string text;
  ok = decodeLoop(session, hidden, logits, stopToken, [&text](const std::string& piece) {
    text += piece;
    return text.size() + kTextSlack <= kMaxTextBytes;
  });
  return text;
}

}  // namespace session
