#include "qwen35/run_check.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "quant/blocks.h"
#include "qwen35/full_attention.h"

namespace qwen35 {

namespace {

using kel::QuantType;
using kel::TensorView;

constexpr uint64_t kMaxVocab = std::numeric_limits<int32_t>::max();  // ids are 32-bit, signed

enum class Kind { Matrix, Vector, ConvTaps };

// A tensor and the shape that the forward pass takes it to have.
struct Expectation {
  const char* name;
  const TensorView* tensor;
  Kind kind;
  uint64_t rows;
  uint64_t cols;  // of a vector: elements; of convolution taps: at least
};

Expectation matrix(const char* name, const TensorView* t, uint64_t rows, uint64_t cols) {
  return {name, t, Kind::Matrix, rows, cols};
}

Expectation vector(const char* name, const TensorView* t, uint64_t elements) {
  return {name, t, Kind::Vector, 1, elements};
}

std::optional<uint64_t> product(const uint64_t* factors, size_t n) {
  uint64_t result = 1;
  for (size_t i = 0; i < n; ++i) {
    if (__builtin_mul_overflow(result, factors[i], &result)) {
      return std::nullopt;
    }
  }
  return result;
}

std::optional<uint64_t> rowsOf(const TensorView& t) {
  return t.rank < 2 ? 1 : product(t.dims + 1, std::min<size_t>(t.rank, 4) - 1);
}

struct BlockFormat {
  uint64_t elements;
  uint64_t bytes;
};

// The formats that have a product; zeros for any other type.
BlockFormat blockFormat(QuantType type) {
  using namespace kel::quant;
  switch (type) {
    case QuantType::F32:
      return {1, sizeof(float)};
    case QuantType::BF16:
      return {1, sizeof(uint16_t)};
    case QuantType::Q8_0:
      return {kBlockLen, kQ80Bytes};
    case QuantType::Q4_K:
      return {kSuperBlockLen, kQ4KBytes};
    case QuantType::Q5_K:
      return {kSuperBlockLen, kQ5KBytes};
    default:
      return {0, 0};
  }
}

std::string hasNeeds(uint64_t has, uint64_t needs, const char* unit) {
  return "has " + std::to_string(has) + " " + unit + ", needs " + std::to_string(needs);
}

// An empty string stands for "no fault" throughout.
class Checker {
 public:
  explicit Checker(const kel::ZYM2Reader& reader)
      : sectionStart(address(reader.sectionData(kel::zym2::SectionType::WeightData))),
        sectionBytes(reader.sectionSize(kel::zym2::SectionType::WeightData)) {}

  std::string firstFault(const std::string& prefix, const std::vector<Expectation>& all) const {
    for (const Expectation& expected : all) {
      const std::string fault = faultOf(expected);
      if (!fault.empty()) {
        return std::string(prefix).append(expected.name).append(": ").append(fault);
      }
    }
    return {};
  }

 private:
  static uintptr_t address(const void* p) { return reinterpret_cast<uintptr_t>(p); }

  std::string faultOf(const Expectation& expected) const {
    if (expected.tensor == nullptr) {
      return "is missing";
    }
    const TensorView& t = *expected.tensor;
    const BlockFormat format = blockFormat(t.type);
    if (expected.kind != Kind::Matrix && t.type != QuantType::F32) {
      return std::string("is ") + kel::quantTypeName(t.type) + ", needs F32";
    }
    if (format.elements == 0) {
      return std::string("is ") + kel::quantTypeName(t.type) + ", which has no product";
    }
    const std::optional<uint64_t> rows = rowsOf(t);
    const std::optional<uint64_t> elements = product(t.dims, std::min<size_t>(t.rank, 4));
    if (!rows || !elements) {
      return "has a shape that overflows";
    }
    const std::string fault = expected.kind == Kind::Vector ? lengthFault(*elements, expected.cols)
                                                            : shapeFault(t, *rows, expected);
    return fault.empty() ? dataFault(t, *elements, format) : fault;
  }

  static std::string lengthFault(uint64_t elements, uint64_t needed) {
    return elements >= needed ? std::string() : hasNeeds(elements, needed, "elements");
  }

  static std::string shapeFault(const TensorView& t, uint64_t rows, const Expectation& expected) {
    const uint64_t cols = t.dims[0];
    const bool colsFit =
        expected.kind == Kind::ConvTaps ? cols >= expected.cols : cols == expected.cols;
    if (!colsFit) {
      return hasNeeds(cols, expected.cols, "columns");
    }
    return rows == expected.rows ? std::string() : hasNeeds(rows, expected.rows, "rows");
  }

  std::string dataFault(const TensorView& t, uint64_t elements, BlockFormat format) const {
    if (t.dims[0] % format.elements != 0) {
      return "has rows that end inside a block";
    }
    uint64_t needed = 0;
    if (__builtin_mul_overflow(elements / format.elements, format.bytes, &needed)) {
      return "has a shape that overflows";
    }
    if (t.byteSize < needed) {
      return hasNeeds(t.byteSize, needed, "bytes");
    }
    // An offset from the file may wrap the address; the subtraction undoes that.
    const uint64_t offset = address(t.data) - sectionStart;
    if (offset > sectionBytes || t.byteSize > sectionBytes - offset) {
      return "leaves the weight section";
    }
    if (format.elements == 1 && address(t.data) % format.bytes != 0) {
      return "is not aligned to its elements";
    }
    return {};
  }

  uintptr_t sectionStart;
  uint64_t sectionBytes;
};

std::vector<Expectation> modelExpectations(const Model& m) {
  return {
      matrix("token_embd.weight", m.tokEmbd, m.nVocab, m.nEmbd),
      vector("output_norm.weight", m.outputNorm, m.nEmbd),
  };
}

std::vector<Expectation> commonExpectations(const Model& m, const Layer& layer) {
  // At least 1, so that a gate without rows is itself at fault; any overflow is found there too.
  const uint64_t width =
      layer.ffnGate == nullptr ? 1 : std::max<uint64_t>(rowsOf(*layer.ffnGate).value_or(1), 1);
  return {
      vector("attn_norm.weight", layer.attnNorm, m.nEmbd),
      vector("post_attention_norm.weight", layer.postAttnNorm, m.nEmbd),
      matrix("ffn_gate.weight", layer.ffnGate, width, m.nEmbd),
      matrix("ffn_up.weight", layer.ffnUp, width, m.nEmbd),
      matrix("ffn_down.weight", layer.ffnDown, m.nEmbd, width),
  };
}

std::vector<Expectation> linearExpectations(const Model& m, const Layer& layer) {
  return {
      matrix("attn_qkv.weight", layer.attnQkv, m.convChannels(), m.nEmbd),
      matrix("attn_gate.weight", layer.attnGate, m.ssmInner, m.nEmbd),
      matrix("ssm_beta.weight", layer.ssmBeta, m.ssmHeads, m.nEmbd),
      matrix("ssm_alpha.weight", layer.ssmAlpha, m.ssmHeads, m.nEmbd),
      vector("ssm_dt.bias", layer.ssmDtBias, m.ssmHeads),
      vector("ssm_a", layer.ssmA, m.ssmHeads),
      {"ssm_conv1d.weight", layer.ssmConv1d, Kind::ConvTaps, m.convChannels(), kConvTaps},
      vector("ssm_norm.weight", layer.ssmNorm, m.ssmDState),
      matrix("ssm_out.weight", layer.ssmOut, m.nEmbd, m.ssmInner),
  };
}

std::vector<Expectation> fullExpectations(const Model& m, const Layer& layer) {
  std::vector<Expectation> all = {
      matrix("attn_q.weight", layer.attnQ, 2 * m.nHead * m.headDim, m.nEmbd),
      matrix("attn_k.weight", layer.attnK, m.nHeadKv * m.headDim, m.nEmbd),
      matrix("attn_v.weight", layer.attnV, m.nHeadKv * m.headDim, m.nEmbd),
      matrix("attn_output.weight", layer.attnOutput, m.nEmbd, m.nHead * m.headDim),
      vector("attn_q_norm.weight", layer.attnQNorm, m.headDim),
      vector("attn_k_norm.weight", layer.attnKNorm, m.headDim),
  };
  if (layer.attnQBias != nullptr) {
    all.push_back(vector("attn_q.bias", layer.attnQBias, kQueryFloats));
    all.push_back(vector("attn_k.bias", layer.attnKBias, kKeyFloats));
    all.push_back(vector("attn_v.bias", layer.attnVBias, kValueFloats));
  }
  return all;
}

}  // namespace

std::string findUnfitTensor(const kel::ZYMLoader& loader, const Model& m) {
  if (m.nEmbd == 0 || m.nVocab == 0 || m.nVocab > kMaxVocab) {
    return "token_embd.weight: is no table of 1 to " + std::to_string(kMaxVocab) + " rows";
  }
  const Checker checker(loader.reader);
  std::string fault = checker.firstFault("", modelExpectations(m));
  for (size_t i = 0; i < m.layers.size() && fault.empty(); ++i) {
    const Layer& layer = m.layers[i];
    const std::string prefix = "blk." + std::to_string(i) + ".";
    fault = checker.firstFault(prefix, commonExpectations(m, layer));
    if (fault.empty()) {
      fault = checker.firstFault(
          prefix, layer.isLinear ? linearExpectations(m, layer) : fullExpectations(m, layer));
    }
  }
  return fault;
}

}  // namespace qwen35
