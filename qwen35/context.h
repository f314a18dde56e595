// What forward passes work with beside the model: scratch, threads, kernels, diagnostics.
//
//   Context context(model, {.maxTokens = kBatchTokens});
//   forward(context, model, {...});                       // qwen35/forward.h
//
// Sized once, for one model: a pass allocates nothing (but for the file that QWEN35_HID_DUMP
// names). Memory is mapped and taken as it is first
// touched, so room for a batch costs nothing until one comes. One pass at a time; two contexts are
// independent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "qwen35/diagnostics.h"
#include "qwen35/matmul.h"
#include "qwen35/model.h"
#include "qwen35/replay.h"
#include "qwen35/simd/dispatch.h"
#include "qwen35/snapshot.h"
#include "qwen35/state_buffer.h"
#include "qwen35/team.h"

namespace qwen35 {

// Tokens of a batch: enough to make the cost of decoding weights small, few enough for a chunk of
// all inputs to stay in L2.
constexpr size_t kBatchTokens = 128;

// Tokens whose scores are held at a time.
constexpr size_t kAttentionTokens = 8;

// Cosine and sine of one rotary angle.
struct RopeAngle {
  float cosine;
  float sine;
};

struct ContextOptions {
  size_t maxTokens = 1;                  // of one pass
  size_t threads = 0;                    // at most; 0: as many as OpenMP would take
  const KernelTable* kernels = nullptr;  // null: kernels() of qwen35/simd/dispatch.h
};

// Where the values of a pass lie. Rows of a token follow one another: [tokens][width].
struct PassBuffers {
  float* x;            // [nEmbd] the residual stream
  float* residual;     // [nEmbd] after the attention block
  float* normed;       // [nEmbd] input of the block's products
  float* blockOut;     // [nEmbd] of the attention or the feed-forward block
  float* query;        // [nHead][query headDim, gate headDim] as projected
  float* key;          // [nHeadKv][headDim] as projected
  float* value;        // [nHeadKv][headDim]
  float* headQuery;    // [nHead][headDim] normalised and rotated
  float* headOut;      // [nHead][headDim] gated outputs of the heads
  RopeAngle* angles;   // [ropeDim / 2]
  float* scores;       // [kAttentionTokens][nHead][maxPositions()], exponentials in place
  float* inverseSums;  // [kAttentionTokens][nHead]
  float* qkv;          // [convChannels] queries, keys, values as projected
  float* z;            // [ssmInner] output gate
  float* beta;         // [ssmHeads] write strength
  float* decay;        // [ssmHeads] logarithm of the decay
  float* conv;         // [convChannels]; the value part becomes the heads' output
  float* unitKeys;     // [2][ssmGroups][ssmDState] queries and keys of unit length
  float* ssmOut;       // [ssmInner] outputs of the heads, normalised and gated
  float* gate;         // [feed-forward width]; becomes silu(gate) * up
  float* up;           // [feed-forward width]
};

class Context {
 public:
  // For passes over m, and over layers by themselves whose shape is m's. Throws std::bad_alloc.
  explicit Context(const Model& m, const ContextOptions& options = {});

  // For the feed-forward block alone.
  Context(size_t nEmbd, size_t ffnWidth);

  const KernelTable& kernels() const { return *table; }
  Team& team() { return workers; }
  size_t maxTokens() const { return tokens; }
  // Of a model that passes may go over: maxCtx of the one that the context was made for.
  size_t maxPositions() const { return positions; }
  const PassBuffers& buffers() const { return at; }
  const MatmulBuffers& matmulBuffers() const { return forms; }
  const MatmulScratch& scratch(size_t thread) const { return perThread[thread]; }

  // The switches as the environment had them when the pass began.
  Diagnostics diagnostics;

 private:
  void layOut(const Model& m, size_t ffnWidth);

  const KernelTable* table;
  size_t tokens;
  size_t positions = 0;
  StateBuffer memory;
  PassBuffers at{};
  MatmulBuffers forms{};
  std::vector<MatmulScratch> perThread;
  Team workers;  // last: aligned to cache lines, it would leave gaps between the others
};

// The residual stream as the next block finds it: a + b, to be stored in sum, row by row of nEmbd
// floats; or a alone, which sum then is, where b is null.
struct ResidualSum {
  const float* a;
  const float* b;
  float* sum;

  // Forms the row of one token; returns it.
  const float* add(size_t token, size_t nEmbd) const;
};

// Tokens of a pass that follow one another in one conversation.
struct Sequence {
  Model* model = nullptr;      // whose caches and state are the conversation's
  size_t first = 0;            // token of the pass
  size_t count = 1;            // tokens
  size_t pos = 0;              // of the first
  Snapshot* before = nullptr;  // receives the recurrent state as it was; may be null
  Replay* replay = nullptr;    // receives what keepTokens() needs; with `before`; may be null
};

// What one member of the team works with in the course of a pass. Weights are those of m; what
// belongs to a conversation is reached through its sequence.
struct Work {
  Context& context;
  Team::Member& member;
  const Model& m;
  size_t count;  // tokens
  Arithmetic arithmetic;
  std::span<const Sequence> sequences{};  // the tokens of all, in their order

  const PassBuffers& at() const { return context.buffers(); }
  const KernelTable& kernels() const { return context.kernels(); }
  const Diagnostics& diagnostics() const { return context.diagnostics; }

  size_t pos() const { return sequences.front().pos; }  // of the first token

  const Sequence& sequenceOf(size_t token) const {
    size_t s = 0;
    while (token - sequences[s].first >= sequences[s].count) {
      ++s;
    }
    return sequences[s];
  }
  // The layer with a sequence's caches and state; `layer` is that of the first sequence.
  Layer& layerOf(const Sequence& sequence, Layer& layer, size_t layerIdx) const {
    return &sequence == &sequences.front() ? layer : sequence.model->layers[layerIdx];
  }

  MatmulInput input(const float* x, size_t cols, std::span<const Matmul> users) const {
    return matmulInput(x, count, cols, arithmetic, users, context.matmulBuffers());
  }
  void multiply(const MatmulInput& in, std::span<const Matmul> products) const {
    qwen35::multiply(member, kernels(), in, products, context.scratch(member.thread()));
  }
  // A step: fills the forms of an input whose floats are ready.
  void prepare(const MatmulInput& in) const;
};

// A step in place of a block that adds nothing: forms the residual sum of every token; out, [count]
// [nEmbd], is zero.
void skipBlock(const Work& w, const ResidualSum& residual, float* out);

// A step: forms the residual sum of every token, norms it with an F32 vector of weights into
// normed, [count][nEmbd], and fills the other forms of `in`, whose floats those are.
void normStep(const Work& w, const ResidualSum& residual, const kel::TensorView* weights,
              float* normed, const MatmulInput& in);

}  // namespace qwen35
