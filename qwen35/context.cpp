#include "qwen35/context.h"

#include <omp.h>

#include <algorithm>

#include "qwen35/elementwise.h"
#include "qwen35/weights.h"

namespace qwen35 {

namespace {

constexpr size_t kLineFloats = 16;  // a cache line

constexpr size_t roundUp(size_t n, size_t multiple) {
  return (n + multiple - 1) / multiple * multiple;
}

size_t openMpThreads() {
  return static_cast<size_t>(omp_get_max_threads());
}

size_t widestFfn(const Model& m) {
  size_t widest = 0;
  for (const Layer& layer : m.layers) {
    widest = std::max(widest, layer.ffnGate == nullptr ? 0 : rowCount(*layer.ffnGate));
  }
  return widest;
}

Model modelOfWidth(size_t nEmbd) {
  Model m;
  m.nEmbd = nEmbd;
  m.nHead = m.nHeadKv = m.ssmGroups = m.ssmHeads = m.ssmInner = m.ssmDState = m.ropeDim = 0;
  return m;
}

}  // namespace

Context::Context(const Model& m, const ContextOptions& options)
    : table(options.kernels == nullptr ? &qwen35::kernels() : options.kernels),
      tokens(options.maxTokens),
      positions(m.maxCtx),
      workers(options.threads == 0 ? openMpThreads() : options.threads) {
  layOut(m, widestFfn(m));
}

Context::Context(size_t nEmbd, size_t ffnWidth)
    : table(&qwen35::kernels()), tokens(1), workers(openMpThreads()) {
  layOut(modelOfWidth(nEmbd), ffnWidth);
}

// Twice over the same list: to add up the sizes, then to hand out the addresses.
void Context::layOut(const Model& m, size_t ffnWidth) {
  const size_t heads = m.nHead * m.headDim;
  const size_t kvHeads = m.nHeadKv * m.headDim;
  const size_t widest = roundUp(std::max({m.nEmbd, heads, m.ssmInner, ffnWidth}), kChunk);
  const size_t groups = quantisedGroups(widest);
  const size_t groupFloats = sizeof(QuantisedInput) / sizeof(float);
  const size_t partFloats = kMaxPieceRows * tokens * kLanes;
  perThread.resize(workers.maxThreads());

  size_t used = 0;
  const auto place = [&](float*& to, size_t nFloats) {
    to = memory.empty() ? nullptr : memory.data() + used;
    used += roundUp(nFloats, kLineFloats);
  };
  const auto placeAll = [&] {
    used = 0;
    place(at.x, tokens * m.nEmbd);
    place(at.residual, tokens * m.nEmbd);
    place(at.normed, tokens * m.nEmbd);
    place(at.blockOut, tokens * m.nEmbd);
    place(at.query, tokens * 2 * heads);
    place(at.key, tokens * kvHeads);
    place(at.value, tokens * kvHeads);
    place(at.headQuery, tokens * heads);
    place(at.headOut, tokens * heads);
    place(at.scores, std::min(tokens, kAttentionTokens) * m.nHead * positions);
    place(at.inverseSums, kAttentionTokens * m.nHead);
    place(at.qkv, tokens * m.convChannels());
    place(at.z, tokens * m.ssmInner);
    place(at.beta, tokens * m.ssmHeads);
    place(at.decay, tokens * m.ssmHeads);
    place(at.conv, tokens * m.convChannels());
    place(at.unitKeys, tokens * 2 * m.ssmGroups * m.ssmDState);
    place(at.ssmOut, tokens * m.ssmInner);
    place(at.gate, tokens * ffnWidth);
    place(at.up, tokens * ffnWidth);
    place(forms.packed, tokens * widest);
    float* raw;
    place(raw, tokens * (m.ropeDim / 2) * sizeof(RopeAngle) / sizeof(float));
    at.angles = reinterpret_cast<RopeAngle*>(raw);
    place(raw, tokens * groups * groupFloats);
    forms.quantised = reinterpret_cast<QuantisedInput*>(raw);
    place(raw, tokens * groups);  // a quarter would do
    forms.finite = reinterpret_cast<uint8_t*>(raw);
    place(raw, tokens * widest / kChunk * sizeof(InputWords) / sizeof(float));
    forms.words = reinterpret_cast<InputWords*>(raw);
    for (MatmulScratch& s : perThread) {
      place(s.rows, std::max(kTileRows * kChunk, widest));
      place(s.parts, partFloats);
      place(s.totals, partFloats);
      place(s.sums, kMaxPieceRows * tokens);
    }
  };
  placeAll();
  memory = StateBuffer(used);
  placeAll();
}

const float* ResidualSum::add(size_t token, size_t nEmbd) const {
  const float* first = a + token * nEmbd;
  if (b == nullptr) {
    return first;
  }
  const float* second = b + token * nEmbd;
  float* out = sum + token * nEmbd;
  for (size_t i = 0; i < nEmbd; ++i) {
    out[i] = first[i] + second[i];
  }
  return out;
}

void skipBlock(const Work& w, const ResidualSum& residual, float* out) {
  const size_t n = w.m.nEmbd;
  w.member.forEach(w.count, [&](size_t token) {
    residual.add(token, n);
    std::fill_n(out + token * n, n, 0.0f);
  });
}

void normStep(const Work& w, const ResidualSum& residual, const kel::TensorView* weights,
              float* normed, const MatmulInput& in) {
  const size_t n = w.m.nEmbd;
  w.member.forEach(w.count, [&](size_t token) {
    const float* row = residual.add(token, n);
    rmsNorm(row, floats(weights), normed + token * n, n, w.m.normEps);
    prepareInput(w.kernels(), in, token, 0, n);
  });
}

void Work::prepare(const MatmulInput& in) const {
  if (in.packed == nullptr && in.quantised == nullptr) {
    return;
  }
  const size_t runs = (in.cols + kGroupLen - 1) / kGroupLen;
  member.forEach(in.count * runs, [&](size_t piece) {
    const size_t begin = piece % runs * kGroupLen;
    prepareInput(kernels(), in, piece / runs, begin, std::min(kGroupLen, in.cols - begin));
  });
}

}  // namespace qwen35
