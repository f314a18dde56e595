// Diagnostic output of the forward pass, off unless an environment variable asks for it:
//
//   QWEN35_DBG       norms per layer at position 0, in passes with logits, and how far the pass
//                    moved the embedding
//   QWEN35_DBG2      the linear-attention block of layer 0, every token
//   QWEN35_DBG3      attention scores of head 0 in layer 3, every eighth position
//   QWEN35_DBG4      recurrent state of layer 0, every eighth position
//   QWEN35_TIMING    duration of each pass without logits
//   QWEN35_ABLATE    "full" or "lin": the only kind of attention block that runs
//   QWEN35_NODECAY   the recurrent state is not decayed
//   QWEN35_HID_DUMP  file to which passes with logits append every intermediate vector
//
// All watch passes of one token; a prompt is therefore fed token by token while any is set.
//
// The variables are read at the start of every pass, so that a running host can be looked into.
// Lines go to standard error; their formats are read by scripts and stay as they are. But for
// QWEN35_ABLATE and QWEN35_NODECAY, nothing here changes a result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

#include "container/tensor_view.h"

namespace qwen35 {

// Which switches are on.
struct Diagnostics {
  // What the environment says.
  static Diagnostics fromEnvironment();

  bool any() const;

  bool layerNorms = false;     // QWEN35_DBG
  bool linearStep = false;     // QWEN35_DBG2
  bool scores = false;         // QWEN35_DBG3
  bool linearState = false;    // QWEN35_DBG4
  bool timing = false;         // QWEN35_TIMING
  bool ablation = false;       // QWEN35_ABLATE is set, to whatever value
  bool skipsLinear = false;    // it says "full"
  bool skipsFull = false;      // it says "lin"
  bool noDecay = false;        // QWEN35_NODECAY
  const char* dump = nullptr;  // QWEN35_HID_DUMP

  bool skips(bool isLinear) const { return isLinear ? skipsLinear : skipsFull; }
  bool reportsLinearStep(size_t layerIdx) const { return linearStep && layerIdx == 0; }
  bool reportsLinearState(size_t pos, size_t layerIdx) const {
    return linearState && layerIdx == 0 && pos % kReportPeriod == 0;
  }
  bool reportsScores(size_t pos, size_t layerIdx) const {
    return scores && layerIdx == 3 && pos % kReportPeriod == 0;
  }

  // The periodic reports look at one position in eight.
  static constexpr size_t kReportPeriod = 8;
};

// Euclidean norm, summed in double.
double l2Norm(std::span<const float> v);

// QWEN35_DBG. The third number of a layer's line is the residual sum, which is
// not formed when the line is printed: always 0, and kept because scripts count the columns.
void printLayerNorms(size_t layer, bool isLinear, std::span<const float> x,
                     std::span<const float> attn);
void printFfnNorm(std::span<const float> ffn);
void printPassNorms(std::span<const float> embedding, std::span<const float> x);

// QWEN35_DBG2 and QWEN35_DBG4.
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
void printLinearStep(const LinearStepView& step);
void printLinearState(const LinearStepView& step, size_t pos);

// QWEN35_DBG3. scores: `cached` + 1 of them, `highest` their maximum.
void printScoreStatistics(const float* scores, size_t cached, float highest);

// QWEN35_TIMING.
void printHiddenTiming(size_t pos, double milliseconds);

// QWEN35_HID_DUMP: the named file, open for appending from construction to destruction; nothing is
// written when path is null or the file cannot be opened. A record is, little-endian and
// without padding: u32 position, u32 name length, name, u64 count, count floats.
class HiddenDump {
 public:
  explicit HiddenDump(const char* path);
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
