// Feeding a prompt and generating from it: the routines behind every generating operation.
//
// They advance the session's position and timing and leave every fed position in the model's
// caches; none resets anything. hidden holds nEmbd floats and logits nVocab floats, owned by the
// caller and reused for every position. One thread per session.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "session/session.h"

namespace session {

// Pieces that one generating call emits at most.
constexpr size_t kMaxNewTokens = 96;

// Feeds the tokens of a prompt in the batch arithmetic, in batches unless a diagnostic is set; the
// last one leaves its logits. So a prompt leaves the same bits behind whether it comes in one call
// or in several. An empty list feeds nothing and leaves logits untouched. False when the context is
// full (what fits has been fed), a hidden value or one of the tested logits is not finite (what
// came before has been fed), a token has no embedding row, or the model cannot be run safely.
// hidden is not touched: batches have room of their own.
bool prefill(Qwen35Session* session, const std::vector<int>& tokens, std::vector<float>& hidden,
             std::vector<float>& logits);

// Receives each decoded piece; false ends the generation normally.
using PieceSink = std::function<bool(const std::string& piece)>;

// Samples, decodes and feeds tokens until a stop rule fires: end of sequence, stopToken, a token
// that does not decode, the sink's wish, kMaxNewTokens pieces, or a full context. A stop token is
// neither decoded nor fed, and the token of the last piece is not fed either. False when logits
// that were just computed are not finite; pieces already handed over stand.
bool decodeLoop(Qwen35Session* session, std::vector<float>& hidden, std::vector<float>& logits,
                int stopToken, const PieceSink& sink);

// decodeLoop into one text. ok receives false on a numeric failure; the partial text is returned.
std::string generate(Qwen35Session* session, std::vector<float>& hidden, std::vector<float>& logits,
                     int stopToken, bool& ok);

// Embeds token at the session's position and runs it through the model to logits; counts and times
// the pass. The caller has checked that the context has room and the token a row.
void feedToken(Qwen35Session* session, int token, std::vector<float>& hidden,
               std::vector<float>& logits);

// True when no position is left in the model's caches.
bool contextIsFull(const Qwen35Session& session);

// Tests every 4096th logit, from index 0. A sample, not a scan: a numeric failure spreads over all
// logits, and reading a quarter of a million values per token would cost more than it tells.
bool sampledLogitsAreFinite(const std::vector<float>& logits);

}  // namespace session
