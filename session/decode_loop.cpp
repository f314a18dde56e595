#include "session/decode_loop.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <limits>
#include <span>

#include "qwen35/diagnostics.h"
#include "qwen35/forward.h"
#include "qwen35/forward_block.h"
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

// Runs forward passes. One that runs out of memory leaves the layers at different tokens: no token
// can follow, and the session starts over.
template <typename Pass>
void runWhole(Qwen35Session& session, Pass&& pass) {
  try {
    pass();
  } catch (...) {
    session.startOver();
    throw;
  }
}

// Runs one forward pass at the session's position; counts and times it (the pass alone).
template <typename Pass>
void timedPass(Qwen35Session& session, Pass&& pass) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  runWhole(session, pass);
  const std::chrono::nanoseconds elapsed = Clock::now() - start;
  ++session.position;
  session.lastDecodeMs = static_cast<double>(elapsed.count()) / 1e6;
  session.decodeMsTotal += session.lastDecodeMs;
}

bool allFinite(const float* values, size_t n) {
  return std::all_of(values, values + n, isFinite);
}

// A vocabulary may be larger than the matrix, and a file may name any id as its beginning or
// unknown token.
bool hasEmbeddingRow(const Qwen35Session& session, int token) {
  return token >= 0 && static_cast<uint64_t>(token) < session.model.nVocab;
}

// Token by token, as the diagnostics want to see it. False as prefill.
bool feedHiddenOneByOne(Qwen35Session& session, std::span<const int> tokens,
                        std::vector<float>& hidden) {
  std::vector<float> out(session.model.nEmbd);
  for (const int token : tokens) {
    if (contextIsFull(session) || !hasEmbeddingRow(session, token)) {
      return false;
    }
    qwen35::embedRow(session.model, static_cast<size_t>(token), hidden.data());
    timedPass(session, [&] {
      qwen35::forwardTokenHidden(session.model, hidden.data(), session.position, out.data());
    });
    if (!allFinite(out.data(), out.size())) {
      return false;
    }
  }
  return true;
}

// How many of the tokens can be fed before one has no room or no embedding row.
size_t feedableTokens(const Qwen35Session& session, std::span<const int> tokens) {
  const size_t room = session.model.maxCtx - std::min(session.position, session.model.maxCtx);
  const auto end = tokens.begin() + static_cast<std::ptrdiff_t>(std::min(room, tokens.size()));
  const auto unfit = std::find_if_not(tokens.begin(), end,
                                      [&](int token) { return hasEmbeddingRow(session, token); });
  return static_cast<size_t>(unfit - tokens.begin());
}

// Buffers of a prompt that is fed in blocks: [block tokens][nEmbd].
struct BlockBuffers {
  std::vector<float> embeddings;
  std::vector<float> hidden;
};

// Runs a block of tokens at the session's position; counts and times it like as many passes.
void timedBlock(Qwen35Session& session, size_t count, BlockBuffers& b) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  runWhole(session, [&] {
    qwen35::forwardBlock(session.model, b.embeddings.data(), count, session.position,
                         b.hidden.data());
  });
  const std::chrono::nanoseconds elapsed = Clock::now() - start;
  session.position += count;
  session.lastDecodeMs = static_cast<double>(elapsed.count()) / 1e6 / static_cast<double>(count);
  session.decodeMsTotal += static_cast<double>(elapsed.count()) / 1e6;
}

// False when a hidden vector is not finite: the state is then as after the first such token.
bool feedBlock(Qwen35Session& session, std::span<const int> tokens, BlockBuffers& b) {
  const size_t n = session.model.nEmbd;
  for (size_t i = 0; i < tokens.size(); ++i) {
    qwen35::embedRow(session.model, static_cast<size_t>(tokens[i]), b.embeddings.data() + i * n);
  }
  if (tokens.size() > 1) {
    session.beforeBlock.save(session.model);
  }
  const double msBefore = session.decodeMsTotal;
  timedBlock(session, tokens.size(), b);
  for (size_t i = 0; i < tokens.size(); ++i) {
    if (allFinite(b.hidden.data() + i * n, n)) {
      continue;
    }
    if (i + 1 < tokens.size()) {
      session.beforeBlock.restore(session.model);
      session.position -= tokens.size();
      session.decodeMsTotal = msBefore;
      timedBlock(session, i + 1, b);
    }
    return false;
  }
  return true;
}

// Feeds tokens whose logits nobody reads. False as prefill.
bool feedHidden(Qwen35Session& session, std::span<const int> tokens, std::vector<float>& hidden) {
  if (qwen35::anyDiagnosticSet()) {
    return feedHiddenOneByOne(session, tokens, hidden);
  }
  const size_t feedable = feedableTokens(session, tokens);
  BlockBuffers b;
  const size_t longest = std::min(feedable, qwen35::kBlockTokens);
  b.embeddings.resize(longest * session.model.nEmbd);
  b.hidden.resize(longest * session.model.nEmbd);
  for (size_t at = 0; at < feedable; at += qwen35::kBlockTokens) {
    const size_t count = std::min(qwen35::kBlockTokens, feedable - at);
    if (!feedBlock(session, tokens.subspan(at, count), b)) {
      return false;
    }
  }
  return feedable == tokens.size();
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
  qwen35::embedRow(session->model, static_cast<size_t>(token), hidden.data());
  timedPass(*session, [&] {
    qwen35::forwardToken(session->model, hidden.data(), session->position, logits.data());
  });
}

bool prefill(Qwen35Session* session, const std::vector<int>& tokens, std::vector<float>& hidden,
             std::vector<float>& logits) {
  if (!session->canRun()) {
    return false;
  }
  if (tokens.empty()) {
    return true;
  }

  const size_t last = tokens.size() - 1;
  if (!feedHidden(*session, std::span(tokens).first(last), hidden)) {
    return false;
  }
  if (contextIsFull(*session) || !hasEmbeddingRow(*session, tokens[last])) {
    return false;
  }
  feedToken(session, tokens[last], hidden, logits);
  return sampledLogitsAreFinite(logits);
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
