// One loaded model: the weights bound in place, the shape, and the state that grows or changes
// token by token.
//
//   Model m;                 // of the plugin interface's shape; Model m{.shape = ...} of another
//   if (!initLayers(loader, m, maxCtx) || !bindModel(loader, m, maxCtx)) ...
//   if (!findUnfitTensor(loader, m).empty()) ...   // qwen35/run_check.h: before the first token
//   alignVectors(m);                               // qwen35/aligned_vectors.h: likewise
//   embedRow(m, token, hidden);
//   forward(context, m, {...});                    // qwen35/forward.h
//
// Every tensor pointer is owned by the loader and reads from its file mapping, so the loader
// outlives the model; the few that alignVectors makes are the model's own. A model is used by one
// thread at a time; two models are independent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "container/model_shape.h"
#include "container/tensor_view.h"
#include "container/zym_loader.h"
#include "qwen35/state_buffer.h"

namespace qwen35 {

// A transformer block. Tensor fields are null when absent. Matrices: [output][input].
struct Layer {
  bool isLinear = false;  // linear attention; otherwise full attention
  const kel::TensorView* attnNorm = nullptr;
  const kel::TensorView* postAttnNorm = nullptr;

  // Full attention.
  const kel::TensorView* attnQ = nullptr;       // per head: headDim query rows, headDim gate rows
  const kel::TensorView* attnK = nullptr;       // [nHeadKv * headDim][nEmbd]
  const kel::TensorView* attnV = nullptr;       // [nHeadKv * headDim][nEmbd]
  const kel::TensorView* attnOutput = nullptr;  // [nEmbd][nHead * headDim]
  const kel::TensorView* attnQNorm = nullptr;   // [headDim]
  const kel::TensorView* attnKNorm = nullptr;   // [headDim]
  const kel::TensorView* attnQBias = nullptr;   // optional; decides whether any bias is added
  const kel::TensorView* attnKBias = nullptr;   // optional
  const kel::TensorView* attnVBias = nullptr;   // optional

  // Linear attention.
  const kel::TensorView* attnQkv = nullptr;    // queries, keys, values: [convChannels][nEmbd]
  const kel::TensorView* attnGate = nullptr;   // [ssmInner][nEmbd]
  const kel::TensorView* ssmBeta = nullptr;    // [ssmHeads][nEmbd]
  const kel::TensorView* ssmAlpha = nullptr;   // [ssmHeads][nEmbd]
  const kel::TensorView* ssmDtBias = nullptr;  // [ssmHeads]
  const kel::TensorView* ssmA = nullptr;       // [ssmHeads], negative
  const kel::TensorView* ssmConv1d = nullptr;  // [convChannels][taps], oldest input first
  const kel::TensorView* ssmNorm = nullptr;    // [ssmDValue]
  const kel::TensorView* ssmOut = nullptr;     // [nEmbd][ssmInner]

  const kel::TensorView* ffnGate = nullptr;  // [feed-forward width][nEmbd]
  const kel::TensorView* ffnUp = nullptr;    // [feed-forward width][nEmbd]
  const kel::TensorView* ffnDown = nullptr;  // [nEmbd][feed-forward width]

  StateBuffer ssmState;   // linear: [ssmHeads][ssmDState][ssmDValue]
  StateBuffer convState;  // linear: [convChannels][convKernel - 1], oldest first
  StateBuffer kCache;     // full: [nHeadKv][maxCtx][headDim], normalised and rotated keys
  StateBuffer vCache;  // full: the same shape, values as projected; both as Model::cacheType says
  uint64_t pos = 0;    // full: filled cache positions; stays 0 in a linear layer
};

// A vector that lies in the file at an address where no floats may lie: a copy, and its record.
struct AlignedVector {
  kel::TensorView view;
  std::unique_ptr<float[]> values;
};

// Scratch rows, one per OpenMP thread.
using ThreadRows = std::vector<std::vector<float>>;

// How the attention caches hold a number.
enum class CacheType : uint8_t {
  F32,   // as it was computed
  BF16,  // rounded to bfloat16, to nearest, two in the room of a float
};

constexpr size_t cacheElementBytes(CacheType type) {
  return type == CacheType::F32 ? sizeof(float) : sizeof(uint16_t);
}

struct Model {
  const kel::TensorView* tokEmbd = nullptr;  // [nVocab][nEmbd]
  const kel::TensorView* outputNorm = nullptr;
  const kel::TensorView* output = nullptr;  // [nVocab][nEmbd]; null: the embedding serves

  uint64_t nEmbd = 0;   // from the file
  uint64_t nVocab = 0;  // from the file

  // No file changes it. The fields below spell it out for the forward pass.
  kel::ModelShape shape = kel::kFixedShape;
  uint64_t nHead = shape.queryHeads;
  uint64_t nHeadKv = shape.kvHeads;  // each shared by nHead / nHeadKv query heads
  uint64_t headDim = shape.headDim;
  uint64_t ropeDim = shape.ropeDim;         // leading dimensions of a head that are rotated
  uint64_t ssmDState = shape.linearKeyDim;  // of a head's key
  uint64_t ssmGroups = shape.linearKeyHeads;
  uint64_t ssmHeads = shape.linearValueHeads;  // each with a state of its own
  uint64_t ssmInner = shape.linearValueWidth();
  uint64_t convKernel = shape.convTaps;  // sizes convState; a step has shape.convTaps taps
  float normEps = static_cast<float>(shape.normEps);  // of every norm
  CacheType cacheType = CacheType::F32;               // set before initLayers

  uint64_t nLayer = 0;
  std::vector<Layer> layers{};
  uint64_t maxCtx = 0;                        // capacity of the caches, in positions
  std::vector<float> embBuf{};                // scratch row of embedRow
  ThreadRows gemvRows{};                      // of gemvRow
  ThreadRows headRows{};                      // of outputHead
  std::list<AlignedVector> alignedVectors{};  // bound in place of the file's records

  // Of a head's value.
  uint64_t ssmDValue() const { return ssmHeads == 0 ? 0 : ssmInner / ssmHeads; }

  // Channels of the convolution: queries, keys and values side by side.
  uint64_t convChannels() const { return ssmInner + 2 * ssmDState * ssmGroups; }
};

// The values of a vector or of convolution taps, where they lie. Of a model in use they are
// aligned.
inline const float* floats(const kel::TensorView* tensor) {
  return static_cast<const float*>(tensor->data);
}

// Binds the tensors of every layer of the shape by name and allocates the state of each. False on
// the first layer that lacks a required tensor; the layers bound so far stay, to be discarded with
// the model. Neither shape nor element type is looked at: see findUnfitTensor. Throws
// std::bad_alloc.
bool initLayers(const kel::ZYMLoader& loader, Model& m, size_t maxCtx);

// Binds the embedding table, the final norm and the output head where the shape has one, and takes
// nEmbd, nVocab, maxCtx and nLayer. Called after initLayers with the same maxCtx. False when a
// tensor is missing.
bool bindModel(const kel::ZYMLoader& loader, Model& m, size_t maxCtx);

// Threads that copying or clearing the recurrent state is worth: a few reach the speed of the
// memory, however many OpenMP would start.
int stateThreads();

// Empties every layer: pos 0 and all state zero, whoever wrote it. Sizes stay; the memory of filled
// cache positions goes back to the system.
void resetModel(Model& m);

// What branching takes: `to` is over the same file with caches of the same type, and may have room
// for more or fewer positions.
//
// Copies the cache rows [begin, end), which are filled in `from`.
void copyCacheRows(const Model& from, Model& to, size_t begin, size_t end);
// Copies the recurrent state, and the positions that the caches are filled to.
void copyState(const Model& from, Model& to);

// Writes the embedding row of a token: out, nEmbd floats. The token must be below nVocab.
//
// Deliberate: for an element type that has no decoder (F16, Q4_0, Q6_K, IQ4_XS) out receives
// whatever the scratch row held, zeros on first use. Such models are refused before they run.
void embedRow(Model& m, size_t token, float* out);

}  // namespace qwen35
