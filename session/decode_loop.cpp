#include "session/decode_loop.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>

#include "qwen35/diagnostics.h"
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

// Feeds the tokens of one pass: counts and times it (the pass alone). A pass of several tokens
// counts as that many of equal length. The caller has checked that the context has room.
void timedPass(Qwen35Session& session, qwen35::PassRequest request) {
  using Clock = std::chrono::steady_clock;
  request.pos = session.position;
  const Clock::time_point start = Clock::now();
  forward(*session.context, session.model, request);
  const double milliseconds =
      static_cast<double>(std::chrono::nanoseconds(Clock::now() - start).count()) / 1e6;
  session.position += request.count;
  session.lastDecodeMs = milliseconds / static_cast<double>(request.count);
  session.decodeMsTotal += milliseconds;
}

bool allFinite(const float* values, size_t n) {
  return std::all_of(values, values + n, isFinite);
}

// A vocabulary may be larger than the matrix, and a file may name any id as its beginning or
// unknown token.
bool hasEmbeddingRow(const Qwen35Session& session, int token) {
  return token >= 0 && static_cast<uint64_t>(token) < session.model.nVocab;
}

// How many of the tokens can be fed before one has no room or no embedding row.
size_t feedableTokens(const Qwen35Session& session, std::span<const int> tokens) {
  const size_t room = session.model.maxCtx - std::min(session.position, session.model.maxCtx);
  const auto end = tokens.begin() + static_cast<std::ptrdiff_t>(std::min(room, tokens.size()));
  const auto unfit = std::find_if_not(tokens.begin(), end,
                                      [&](int token) { return hasEmbeddingRow(session, token); });
  return static_cast<size_t>(unfit - tokens.begin());
}

// Buffers of a prompt: [tokens of a batch][nEmbd].
struct BatchBuffers {
  std::vector<float> embeddings;
  std::vector<float> hidden;
};

// Feeds one batch of a prompt; logits, when not null, receives those of its last token, whose
// hidden state then is not looked at. False when any other hidden state is not finite: the model is
// then as after the first such token.
bool feedBatch(Qwen35Session& session, std::span<const int> tokens, BatchBuffers& b,
               float* logits) {
  const size_t n = session.model.nEmbd;
  for (size_t i = 0; i < tokens.size(); ++i) {
    embedRow(session.model, static_cast<size_t>(tokens[i]), b.embeddings.data() + i * n);
  }
  qwen35::PassRequest request{.embeddings = b.embeddings.data(),
                              .count = tokens.size(),
                              .arithmetic = qwen35::Arithmetic::Batch,
                              .hidden = b.hidden.data(),
                              .logits = logits,
                              .before = tokens.size() > 1 ? session.beforeBatch.get() : nullptr};
  const double msBefore = session.decodeMsTotal;
  timedPass(session, request);
  const size_t tested = logits == nullptr ? tokens.size() : tokens.size() - 1;
  for (size_t i = 0; i < tested; ++i) {
    if (allFinite(b.hidden.data() + i * n, n)) {
      continue;
    }
    if (i + 1 < tokens.size()) {
      session.beforeBatch->restore(session.model);
      session.position -= tokens.size();
      session.decodeMsTotal = msBefore;
      request.count = i + 1;
      request.logits = nullptr;
      request.before = nullptr;
      timedPass(session, request);
    }
    return false;
  }
  return true;
}

}  // namespace

bool contextIsFull(const Qwen35Session& session) {
  return session.position >= session.model.maxCtx;
}

bool sampledLogitsAreFinite(const std::vector<float>& logits) {
  for (size_t i = 0; i < logits.size(); i += kLogitTestStride) {
    if (!isFinite(logits[i])) {
      return false;
    }
  }
  return true;
}

void feedToken(Qwen35Session* session, int token, std::vector<float>& hidden,
               std::vector<float>& logits) {
  embedRow(session->model, static_cast<size_t>(token), hidden.data());
  timedPass(*session, {.embeddings = hidden.data(), .logits = logits.data()});
}

bool prefill(Qwen35Session* session, const std::vector<int>& tokens, std::vector<float>& /*hidden*/,
             std::vector<float>& logits) {
  if (!session->canRun()) {
    return false;
  }
  // Token by token where a diagnostic watches, which looks at passes of one token.
  const size_t longest =
      qwen35::Diagnostics::fromEnvironment().any() ? 1 : session->context->maxTokens();
  const size_t feedable = feedableTokens(*session, tokens);
  BatchBuffers b;
  b.embeddings.resize(std::min(feedable, longest) * session->model.nEmbd);
  b.hidden.resize(b.embeddings.size());
  for (size_t at = 0; at < feedable; at += longest) {
    const auto batch = std::span(tokens).subspan(at, std::min(longest, feedable - at));
    const bool isLast = at + batch.size() == tokens.size();
    if (!feedBatch(*session, batch, b, isLast ? logits.data() : nullptr)) {
      return false;
    }
  }
  if (feedable < tokens.size()) {
    return false;
  }
  return tokens.empty() || sampledLogitsAreFinite(logits);
}

bool decodeLoop(Qwen35Session* session, std::vector<float>& hidden, std::vector<float>& logits,
                int stopToken, const PieceSink& sink) {
  std::string piece;
  for (size_t emitted = 0;;) {
    const int id = sampleNext(logits.data(), logits.size(), session->temperature, session->topK,
                              session->topP, session->rng);
    ++session->sampledTokens;
    if (id < 0 || id == session->tokenizer->eosId || id == stopToken) {
      return true;
    }
    if (!session->tokenizer->decode({id}, piece).ok()) {
      return true;
    }
    if (!sink(piece)) {
      return true;
    }
    if (++emitted == kMaxNewTokens || contextIsFull(*session)) {
      return true;
    }
    feedToken(session, id, hidden, logits);
    if (!sampledLogitsAreFinite(logits)) {
      return false;
    }
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
