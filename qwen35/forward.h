// The forward pass: one or several tokens through the whole model, layers of attention and
// feed-forward with residual connections, the final norm, and the output head: a matrix of its own
// or the token embeddings.
//
// The model must have passed findUnfitTensor (qwen35/run_check.h). Positions are consecutive from 0
// after resetModel; the tokens of a pass fit below m.maxCtx (beyond, attention adds nothing and
// stores nothing). Two models may run on two host threads at once. The diagnostics are listed in
// qwen35/diagnostics.h.
#pragma once

#include <cstddef>
#include <span>

#include "qwen35/context.h"
#include "qwen35/model.h"
#include "qwen35/snapshot.h"

namespace qwen35 {

struct PassRequest {
  const float* embeddings = nullptr;  // [count][nEmbd], rows of embedRow
  size_t count = 1;                   // tokens, 1 to the context's maxTokens()
  size_t pos = 0;                     // of the first token
  Arithmetic arithmetic = Arithmetic::SingleToken;
  float* hidden = nullptr;     // [count][nEmbd] receives the final normalised states; may be null
  float* logits = nullptr;     // [nVocab] of the last token; may be null: the head is then left out
  Snapshot* before = nullptr;  // receives the recurrent state as it was; may be null
  Replay* replay = nullptr;    // receives what keepTokens() needs; with `before`; may be null
  bool allLogits = false;      // logits is [count][nVocab], for every token
  const volatile int* cancel = nullptr;  // looked at before each layer; may be null
};

// Whether a cancel flag says so. Nothing is published with it.
inline bool isCancelled(const volatile int* flag) {
  return flag != nullptr && __atomic_load_n(flag, __ATOMIC_RELAXED) != 0;
}

// Advances every layer by request.count tokens. A token's results depend on the tokens before it
// and on the arithmetic that each of them took, and on nothing else: not on how they were divided
// into passes, on threads or on the instruction set. Allocates nothing, throws nothing.
//
// QWEN35_ABLATE and QWEN35_NODECAY apply to every pass; the printing diagnostics watch passes of
// one token.
//
// False when *cancel was not 0, as another thread or a signal handler may have stored meanwhile:
// some layers are then advanced and others are not, and hidden and logits are unspecified. `before`
// takes the model back.
bool forward(Context& context, Model& m, const PassRequest& request);

struct SharedPassRequest {
  // Of models over one file, bound to as many positions as the context was made for or fewer: each
  // model once, the tokens of one sequence behind those of the one before.
  std::span<const Sequence> sequences;
  const float* embeddings = nullptr;  // [tokens][nEmbd], rows of embedRow
  Arithmetic arithmetic = Arithmetic::SingleToken;
  float* hidden = nullptr;  // [tokens][nEmbd] receives the final normalised states; may be null
  float* logits = nullptr;  // [tokens][nVocab]; may be null: the head is then left out
};

// One pass over tokens of several conversations, 1 to the context's maxTokens() in all: each weight
// is read once for all of them, as it is for the tokens of one. The tokens have room in the caches.
// Each model is left, and each token's results are, as by a forward() of its own.
void forwardShared(Context& context, const SharedPassRequest& request);

// The blocks of a pass beside attention, called by all members of the team. normed: their input,
// [count][nEmbd]; out: [count][nEmbd]; logits: [count][nVocab].
void feedForward(const Work& w, const Layer& layer, const float* normed, float* out);
void head(const Work& w, const float* normed, float* logits);

// One token in the single-token arithmetic, with a context of its own for the call.

// SwiGLU feed-forward block: down * (silu(gate * xn) . (up * xn)). "GLU Variants Improve
// Transformer" (2020). xn, out: nEmbd floats; out is overwritten and is not xn.
void ffnStep(size_t nEmbd, Layer& layer, const float* xn, float* out);

// Advances every layer by one token and computes its next-token logits. emb: the token's embedding
// row, nEmbd floats; pos: its position; logits: nVocab floats.
void forwardToken(Model& m, const float* emb, size_t pos, float* logits);

// The same without the output head, for a token whose logits nobody reads: it leaves the bits of
// forwardToken behind. out: the final normalised hidden state, nEmbd floats.
void forwardTokenHidden(Model& m, const float* emb, size_t pos, float* out);

}  // namespace qwen35
