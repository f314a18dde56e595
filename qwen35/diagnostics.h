// Diagnostic output of the forward pass, off unless an environment variable asks for it:
//
//   QWEN35_DBG       norms per layer at position 0, and how far the pass moved the embedding
//   QWEN35_DBG2      one linear-attention step in layer 0, every token
//   QWEN35_DBG3      attention scores of head 0 in layer 3, every eighth position
//   QWEN35_DBG4      recurrent state of layer 0, every eighth position
//   QWEN35_TIMING    duration of each forwardTokenHidden
//   QWEN35_ABLATE    "full" or "lin": the only kind of attention block that runs
//   QWEN35_NODECAY   the recurrent state is not decayed
//   QWEN35_HID_DUMP  file to which forwardToken appends every intermediate vector
//
// The variables are read on every call, so that a running host can be looked into. Lines go to
// standard error; their formats are read by scripts and stay as they are. But for QWEN35_ABLATE and
// QWEN35_NODECAY, nothing here changes a result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "container/tensor_view.h"

namespace qwen35 {

// True when the environment has the variable, whatever its value.
bool diagnosticSet(const char* variable);

// True when the environment has any of the variables above.
bool anyDiagnosticSet();

// True when QWEN35_ABLATE names the other kind of attention block.
bool isAblated(bool isLinear);

// Euclidean norm, summed in double.
double l2Norm(std::span<const float> v);

// QWEN35_DBG, from forwardToken. The third number of a layer's line is the residual sum, which is
// not formed when the line is printed: always 0, and kept because scripts count the columns.
void printLayerNorms(size_t layer, bool isLinear, std::span<const float> x,
                     std::span<const float> attn);
void printFfnNorm(std::span<const float> ffn);
void printPassNorms(std::span<const float> embedding, std::span<const float> x);

// QWEN35_DBG2 and QWEN35_DBG4, from linearAttnStep.
struct LinearStepView {
  std::span<const float> qkv;
  std::span<const float> z;
  std::span<const float> conv;     // its value part holds the heads' outputs by then
  std::span<const float> ungated;  // the heads' outputs; QWEN35_DBG2 only
  std::span<const float> o;        // the same, normalised and gated
  std::span<const float> out;
  std::span<const float> state;
  size_t headState;  // floats of one head's state
  float beta0;       // of head 0
  float g0;
  const kel::TensorView& convWeights;  // F32, at least 16 floats
};
bool linearReportWanted(size_t layerIdx);
void printLinearStep(const LinearStepView& step);
bool stateReportWanted(size_t pos, size_t layerIdx);
void printLinearState(const LinearStepView& step, size_t pos);

// QWEN35_DBG3, from fullAttnStep. scores: `cached` + 1 of them, `highest` their maximum.
bool scoreReportWanted(size_t pos, size_t layerIdx);
void printScoreStatistics(const float* scores, size_t cached, float highest);

// QWEN35_TIMING, from forwardTokenHidden.
void printHiddenTiming(size_t pos, double milliseconds);

// QWEN35_HID_DUMP: the named file, open for appending from construction to destruction; nothing is
// written when the variable is not set or the file cannot be opened. A record is, little-endian and
// without padding: u32 position, u32 name length, name, u64 count, count floats.
class HiddenDump {
 public:
  HiddenDump();
  ~HiddenDump();
  HiddenDump(const HiddenDump&) = delete;
  HiddenDump& operator=(const HiddenDump&) = delete;

  // Appends "S<layer>.<what>".
  void layerRecord(size_t pos, size_t layer, const char* what, std::span<const float> values);
  void record(size_t pos, const char* name, std::span<const float> values);

 private:
  std::FILE* file = nullptr;
};

}  // namespace qwen35
