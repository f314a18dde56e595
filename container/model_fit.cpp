#include "container/model_fit.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <utility>

#include "container/model_tensors.h"
#include "quant/block_sizes.h"

namespace kel {

namespace {

constexpr uint64_t kMaxVocab = std::numeric_limits<int32_t>::max();  // ids are 32-bit, signed

uintptr_t address(const void* p) {
  return reinterpret_cast<uintptr_t>(p);
}

size_t rankOf(const TensorView& t) {
  return std::min<size_t>(t.rank, std::size(t.dims));
}

std::optional<uint64_t> rowsOf(const TensorView& t) {
  return t.rank < 2 ? 1 : elementCount(t.dims + 1, rankOf(t) - 1);
}

std::string hasNeeds(uint64_t has, uint64_t needs, const char* unit) {
  return "has " + std::to_string(has) + " " + unit + ", needs " + std::to_string(needs);
}

// A tensor and the extent that the forward pass takes it to have.
struct Expectation {
  TensorKind kind;
  uint64_t rows;
  uint64_t cols;
};

// An empty string stands for "no fault" throughout.

std::string rowLengthFault(const TensorView& t, const Expectation& expected) {
  const uint64_t cols = t.dims[0];
  const bool isFit =
      expected.kind == TensorKind::ConvTaps ? cols >= expected.cols : cols == expected.cols;
  return isFit ? std::string() : hasNeeds(cols, expected.cols, "columns");
}

std::string shapeFault(const TensorView& t, const Expectation& expected) {
  if (expected.kind == TensorKind::Matrix && !hasMatmul(t.type)) {
    return std::string("is ") + quantTypeName(t.type) + ", a type without matmul";
  }
  const std::optional<uint64_t> rows = rowsOf(t);
  const std::optional<uint64_t> elements = elementCount(t.dims, rankOf(t));
  if (!rows || !elements) {
    return "has a shape that overflows";
  }
  if (expected.kind == TensorKind::Vector) {
    return *elements >= expected.cols ? std::string()
                                      : hasNeeds(*elements, expected.cols, "elements");
  }
  std::string fault = rowLengthFault(t, expected);
  if (!fault.empty()) {
    return fault;
  }
  if (*rows != expected.rows) {
    return hasNeeds(*rows, expected.rows, "rows");
  }
  const bool endsInsideABlock =
      expected.kind == TensorKind::Matrix && t.dims[0] % quant::blockFormat(t.type).elements != 0;
  return endsInsideABlock ? "has rows that end inside a block" : std::string();
}

// Bytes that are read of a tensor whose shape fits; none when their number overflows.
std::optional<uint64_t> bytesRead(const TensorView& t, const Expectation& expected) {
  const bool isMatrix = expected.kind == TensorKind::Matrix;
  const quant::BlockFormat format = quant::blockFormat(isMatrix ? t.type : QuantType::F32);
  const uint64_t elements =
      expected.kind == TensorKind::Vector ? expected.cols : expected.rows * t.dims[0];
  uint64_t bytes = 0;
  if (__builtin_mul_overflow(elements / format.elements, format.bytes, &bytes)) {
    return std::nullopt;
  }
  return bytes;
}

class Checker {
 public:
  Checker(const ZYMLoader& modelFile, const ModelShape& modelShape)
      : loader(modelFile),
        shape(modelShape),
        embedding(loader.findTensor(tensorName(tensorOf(TensorRole::Embedding)))),
        sectionStart(address(loader.reader.sectionData(zym2::SectionType::WeightData))),
        sectionBytes(loader.reader.sectionSize(zym2::SectionType::WeightData)) {}

  std::vector<ModelFault> findAll() {
    if (embedding != nullptr) {
      sizes.hidden = embedding->dims[0];
      sizes.vocab = embedding->dims[1];
      if (sizes.hidden == 0 || sizes.vocab == 0 || sizes.vocab > kMaxVocab) {
        return {{embedding->name, "is no table of 1 to " + std::to_string(kMaxVocab) + " rows"}};
      }
    }
    checkGroup(TensorGroup::Model, 0);
    for (uint32_t layer = 0; layer < shape.layers; ++layer) {
      checkLayer(layer);
    }
    return std::move(faults);
  }

 private:
  const TensorView* find(TensorRole role, uint32_t layer) const {
    return loader.findTensor(tensorName(tensorOf(role), layer));
  }

  void checkLayer(uint32_t layer) {
    const TensorView* gate = find(TensorRole::FfnGate, layer);
    // At least 1, so that a gate without rows is itself at fault; any overflow is found there too.
    sizes.feedForward = gate == nullptr ? 1 : std::max<uint64_t>(rowsOf(*gate).value_or(1), 1);
    hasBiases = find(TensorRole::AttnQBias, layer) != nullptr;
    checkGroup(TensorGroup::Common, layer);
    const bool isLinear = find(TensorRole::SsmOut, layer) != nullptr;
    checkGroup(isLinear ? TensorGroup::Linear : TensorGroup::Full, layer);
  }

  void checkGroup(TensorGroup group, uint32_t layer) {
    for (const ModelTensor& tensor : tensorsOf(group)) {
      const bool isAsked = tensor.role == TensorRole::Output ? shape.ownOutput : hasBiases;
      if (tensor.required || isAsked) {
        check(tensor, tensorName(tensor, layer));
      }
    }
  }

  void check(const ModelTensor& tensor, const std::string& name) {
    const TensorView* view = loader.findTensor(name);
    if (view == nullptr) {
      faults.push_back({name, "is missing"});
      return;
    }
    if (embedding == nullptr) {
      return;
    }
    const Expectation expected{tensor.kind, tensor.rows(shape, sizes),
                               tensor.columns(shape, sizes)};
    if (std::string fault = shapeFault(*view, expected); !fault.empty()) {
      faults.push_back({name, std::move(fault)});
    } else if (fault = boundsFault(*view, expected); !fault.empty()) {
      faults.push_back({name, std::move(fault), true});
    }
  }

  std::string boundsFault(const TensorView& t, const Expectation& expected) const {
    const std::optional<uint64_t> needed = bytesRead(t, expected);
    if (!needed) {
      return "has a shape that overflows";
    }
    const bool isMatrix = expected.kind == TensorKind::Matrix;
    if (isMatrix && t.byteSize < *needed) {
      return hasNeeds(t.byteSize, *needed, "bytes");
    }
    // An offset from the file may wrap the address; the subtraction undoes that.
    const uint64_t offset = address(t.data) - sectionStart;
    const uint64_t claimed = isMatrix ? t.byteSize : *needed;
    const bool isInside = offset <= sectionBytes && claimed <= sectionBytes - offset;
    return isInside ? std::string() : "leaves the weight section";
  }

  const ZYMLoader& loader;
  const ModelShape& shape;
  const TensorView* embedding;
  uintptr_t sectionStart;
  uint64_t sectionBytes;
  ModelSizes sizes;        // feedForward: of the layer that is looked at
  bool hasBiases = false;  // likewise
  std::vector<ModelFault> faults;
};

}  // namespace

std::vector<ModelFault> findModelFaults(const ZYMLoader& loader, const ModelShape& shape) {
  return Checker(loader, shape).findAll();
}

std::optional<uint64_t> elementCount(const uint64_t* dims, size_t rank) {
  uint64_t count = 1;
  for (size_t i = 0; i < rank; ++i) {
    if (__builtin_mul_overflow(count, dims[i], &count)) {
      return std::nullopt;
    }
  }
  return count;
}

}  // namespace kel
