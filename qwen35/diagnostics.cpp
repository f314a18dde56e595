#include "qwen35/diagnostics.h"

#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "qwen35/weights.h"

namespace qwen35 {

static_assert(std::endian::native == std::endian::little, "dump records are written as they lie");

namespace {

double dot(std::span<const float> a, std::span<const float> b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  }
  return sum;
}

}  // namespace

Diagnostics Diagnostics::fromEnvironment() {
  const auto isSet = [](const char* variable) { return std::getenv(variable) != nullptr; };
  const char* const kept = std::getenv("QWEN35_ABLATE");
  return {.layerNorms = isSet("QWEN35_DBG"),
          .linearStep = isSet("QWEN35_DBG2"),
          .scores = isSet("QWEN35_DBG3"),
          .linearState = isSet("QWEN35_DBG4"),
          .timing = isSet("QWEN35_TIMING"),
          .ablation = kept != nullptr,
          .skipsLinear = kept != nullptr && std::strcmp(kept, "full") == 0,
          .skipsFull = kept != nullptr && std::strcmp(kept, "lin") == 0,
          .noDecay = isSet("QWEN35_NODECAY"),
          .dump = std::getenv("QWEN35_HID_DUMP")};
}

bool Diagnostics::any() const {
  return layerNorms || linearStep || scores || linearState || timing || ablation || noDecay ||
         dump != nullptr;
}

double l2Norm(std::span<const float> v) {
  return std::sqrt(dot(v, v));
}

void printLayerNorms(size_t layer, bool isLinear, std::span<const float> x,
                     std::span<const float> attn) {
  std::fprintf(stderr, "  L%02zu %s |x|=%7.3f |attn|=%.3e |xnorm|=%7.3f\n", layer,
               isLinear ? "lin" : "ful", l2Norm(x), l2Norm(attn), 0.0);
}

void printFfnNorm(std::span<const float> ffn) {
  std::fprintf(stderr, "        |ffn|=%.3e\n", l2Norm(ffn));
}

void printPassNorms(std::span<const float> embedding, std::span<const float> x) {
  const double original = l2Norm(embedding);
  const double current = l2Norm(x);
  std::fprintf(stderr, "  final |orig|=%.3f |cur|=%.3f cos(orig,cur)=%.4f\n", original, current,
               dot(embedding, x) / (original * current));
}

void printLinearStep(const LinearStepView& step) {
  const kel::TensorView& conv1d = step.convWeights;
  std::fprintf(stderr,
               "    lin: |qkv|=%.3e |z|=%.3e |conv|=%.3e bv0=%.4f av0=%.4f |oTpre|=%.3e "
               "|oT|=%.3e |out|=%.3e conv1d dtype=%u ndim=%u cc=%zu kk=%zu\n",
               l2Norm(step.qkv), l2Norm(step.z), l2Norm(step.conv), static_cast<double>(step.beta0),
               static_cast<double>(step.g0), l2Norm(step.ungated), l2Norm(step.o), l2Norm(step.out),
               static_cast<unsigned>(conv1d.type), static_cast<unsigned>(conv1d.rank),
               rowCount(conv1d), static_cast<size_t>(conv1d.dims[0]));
  const auto* weights = static_cast<const float*>(conv1d.data);
  for (size_t r = 0; r < 4; ++r) {
    const float* w = weights + 4 * r;
    std::fprintf(stderr, "      wr[%zu][0..3] = %.6e %.6e %.6e %.6e\n", r,
                 static_cast<double>(w[0]), static_cast<double>(w[1]), static_cast<double>(w[2]),
                 static_cast<double>(w[3]));
  }
}

void printLinearState(const LinearStepView& step, size_t pos) {
  std::fprintf(stderr, "LIN S-pos=%zu |S|tot %.4e head0 %.4e |oT| %.3e av0 %.4f bv0 %.4f\n", pos,
               l2Norm(step.state), l2Norm(step.state.first(step.headState)), l2Norm(step.o),
               static_cast<double>(step.g0), static_cast<double>(step.beta0));
}

void printScoreStatistics(const float* scores, size_t cached, float highest) {
  const auto top = static_cast<double>(highest);
  double sum = 0;
  for (size_t p = 0; p <= cached; ++p) {
    sum += std::exp(static_cast<double>(scores[p]) - top);
  }
  std::fprintf(stderr, "FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n", cached, top,
               std::log(sum) + top + 1e-9, cached + 1);
}

void printHiddenTiming(size_t pos, double milliseconds) {
  std::fprintf(stderr, "[timing] hidden fwd pos=%zu %.1f ms\n", pos, milliseconds);
}

HiddenDump::HiddenDump(const char* path) {
  if (path != nullptr) {
    file = std::fopen(path, "ab");
  }
}

HiddenDump::~HiddenDump() {
  if (file != nullptr) {
    std::fclose(file);
  }
}

void HiddenDump::layerRecord(size_t pos, size_t layer, const char* what,
                             std::span<const float> values) {
  if (file == nullptr) {
    return;
  }
  char name[64];
  std::snprintf(name, sizeof name, "S%zu.%s", layer, what);
  record(pos, name, values);
}

// A dump that cannot be written, on a full disk say, is cut short in silence: a diagnostic does not
// fail the pass it watches.
void HiddenDump::record(size_t pos, const char* name, std::span<const float> values) {
  if (file == nullptr) {
    return;
  }
  const auto position = static_cast<uint32_t>(pos);
  const auto nameLength = static_cast<uint32_t>(std::strlen(name));
  const uint64_t count = values.size();
  std::fwrite(&position, sizeof position, 1, file);
  std::fwrite(&nameLength, sizeof nameLength, 1, file);
  std::fwrite(name, 1, nameLength, file);
  std::fwrite(&count, sizeof count, 1, file);
  std::fwrite(values.data(), sizeof(float), values.size(), file);
}

}  // namespace qwen35
