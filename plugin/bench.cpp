#include <algorithm>
#include <chrono>
#include <vector>

#include "plugin/boundary.h"
#include "plugin/operations.h"
#include "session/decode_loop.h"
#include "session/sampler.h"

namespace plugin {

using session::Qwen35Session;

namespace {

constexpr const char* kBenchPrompt = "Hi";
constexpr int32_t kDefaultGenTokens = 64;
constexpr int32_t kDefaultExtraTokens = 8;
constexpr int64_t kMaxBenchSteps = 4096;

int32_t atLeastOneOr(int32_t value, int32_t fallback) {
  return value >= 1 ? value : fallback;
}

// Greedy decoding for at most maxSteps - 1 forward passes; ends early at the end of sequence, on a
// full context, or when logits are not finite.
void decodeGreedily(Qwen35Session& session, std::vector<float>& hidden, std::vector<float>& logits,
                    int64_t maxSteps) {
  for (int64_t step = 1;; ++step) {
    const int token = session::largestLogit(logits.data(), logits.size());
    if (token == session.tokenizer->eosId) {
      return;
    }
    if (step >= maxSteps || step == kMaxBenchSteps || contextIsFull(session)) {
      return;
    }
    feedToken(&session, token, hidden, logits);
    if (!session::sampledLogitsAreFinite(logits)) {
      return;
    }
  }
}

uint32_t measure(Qwen35Session& session, int32_t genTokens, int32_t extraTokens,
                 ZYMBenchResult& result) {
  std::vector<int> ids;
  if (!session.tokenizer->encode(kBenchPrompt, ids, true).ok()) {
    return ZYM_STATUS_FAILED;
  }
  session.endChat();
  const float temperature = session.temperature;
  const int32_t topK = session.topK;
  session.temperature = 0;
  session.topK = 1;
  // Deliberate: a bench that fails from here on leaves the session greedy.
  if (!session.canRun()) {
    return ZYM_STATUS_FAILED;
  }
  std::vector<float> hidden(session.model.nEmbd);
  std::vector<float> logits(session.model.nVocab);
  if (!prefill(&session, ids, hidden, logits)) {
    return ZYM_STATUS_FAILED;
  }

  using Clock = std::chrono::steady_clock;
  const Clock::time_point start = Clock::now();
  decodeGreedily(session, hidden, logits, static_cast<int64_t>(genTokens) + extraTokens);
  const std::chrono::nanoseconds elapsed = Clock::now() - start;

  // Deliberate: every step counts into the time, genTokens alone divides it, also after an early
  // end of sequence. Earlier measurements were made that way and stay comparable.
  result.structSize = sizeof(ZYMBenchResult);
  result.msPerToken = static_cast<double>(elapsed.count()) / 1e6 / genTokens;
  result.tokensPerSecond = 1000.0 / result.msPerToken;
  result.genTokens = genTokens;

  session.temperature = temperature;
  session.topK = topK;
  session.clearContext();
  return ZYM_STATUS_OK;
}

}  // namespace

uint32_t qwen35V2Bench(ZYMRuntimeHandle* handle, const ZYMBenchParams* params,
                       ZYMBenchResult* result) {
  if (!isLoaded(handle) || result == nullptr) {
    return ZYM_STATUS_INVALID_ARGUMENT;
  }
  const ZYMBenchParams asked = params == nullptr ? ZYMBenchParams{} : *params;
  return guarded([&] {
    return measure(*sessionOf(handle), atLeastOneOr(asked.genTokens, kDefaultGenTokens),
                   atLeastOneOr(asked.extraTokens, kDefaultExtraTokens), *result);
  });
}

}  // namespace plugin
