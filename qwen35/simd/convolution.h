// The causal convolution, channel by channel, in the instructions of the including file.
#pragma once

#include <cstddef>

namespace qwen35 {

namespace {

constexpr size_t kFamilyTaps = 4;

// The compiler unrolls kTaps; 0 stands for nTaps.
template <size_t kTaps>
void convolveChannels(const float* taps, size_t stride, [[maybe_unused]] size_t nTaps,
                      float* history, const float* in, float* out, size_t channels) {
  const size_t earlier = (kTaps == 0 ? nTaps : kTaps) - 1;
  for (size_t c = 0; c < channels; ++c) {
    const float* tap = taps + c * stride;
    float* past = history + c * earlier;
    const float newest = in[c];
    float sum = 0.0f;
    for (size_t i = 0; i < earlier; ++i) {
      sum = __builtin_fmaf(tap[i], past[i], sum);
    }
    out[c] = __builtin_fmaf(tap[earlier], newest, sum);
    for (size_t i = 0; i + 1 < earlier; ++i) {
      past[i] = past[i + 1];
    }
    if (earlier > 0) {
      past[earlier - 1] = newest;
    }
  }
}

inline void convolve(const float* taps, size_t stride, size_t nTaps, float* history,
                     const float* in, float* out, size_t channels) {
  if (nTaps == kFamilyTaps) {
    convolveChannels<kFamilyTaps>(taps, stride, nTaps, history, in, out, channels);
  } else {
    convolveChannels<0>(taps, stride, nTaps, history, in, out, channels);
  }
}

}  // namespace

}  // namespace qwen35
