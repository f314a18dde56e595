#include "container/shape_metadata.h"

#include <algorithm>
#include <cmath>
#include <string_view>
#include <utility>

#include "container/shape_keys.h"

namespace kel {

using namespace shape_keys;

namespace {

constexpr uint64_t kMostExtent = uint64_t{1} << 14;  // of heads, dimensions, taps
constexpr uint64_t kMostContext = uint64_t{1} << 31;

bool isShapeKey(std::string_view key) {
  const auto isKey = [key](const auto& known) { return key == known.name; };
  return std::any_of(std::begin(kRequired), std::end(kRequired), isKey) ||
         std::any_of(std::begin(kOptional), std::end(kOptional), isKey) ||
         std::any_of(std::begin(kFractions), std::end(kFractions), isKey) ||
         key == kRecurrentLayers;
}

bool statesShape(const ZYM2Reader& reader) {
  ZYM2Reader::MetaEntryView entry;
  for (size_t i = 0; reader.metaAt(i, entry); ++i) {
    if (isShapeKey(entry.key)) {
      return true;
    }
  }
  return false;
}

Status fault(std::string text) {
  return Status::invalid(std::move(text));
}

std::string number(uint64_t value) {
  return std::to_string(value);
}

Status readNumbers(const ZYM2Reader& reader, Numbers& out) {
  for (const Key<uint32_t>& key : kRequired) {
    if (!reader.getMetaU32(key.name, out.*key.field)) {
      return fault(std::string(key.name) + " is missing from the metadata, or is no u32");
    }
  }
  for (const Key<uint32_t>& key : kOptional) {
    reader.getMetaU32(key.name, out.*key.field);
  }
  for (const Key<float>& key : kFractions) {
    if (!reader.getMetaF32(key.name, out.*key.field)) {
      return fault(std::string(key.name) + " is missing from the metadata, or is no f32");
    }
  }
  return Status::success();
}

// By the list where there is one, otherwise by the interval.
Status readLayerKinds(const ZYM2Reader& reader, const Numbers& numbers, ModelShape& shape) {
  const uint32_t* recurrent = nullptr;
  size_t count = 0;
  if (!reader.getMetaU32Array(kRecurrentLayers, recurrent, count)) {
    if (numbers.interval == 0 || numbers.interval > LayerSet::kCapacity) {
      return fault(std::string(kInterval) + " is " + number(numbers.interval) +
                   ", and there is no " + kRecurrentLayers);
    }
    shape.fullLayers = LayerSet::every(numbers.interval, shape.layers);
    return Status::success();
  }
  if (count != shape.layers && count != numbers.blocks) {
    return fault(std::string(kRecurrentLayers) + " has " + number(count) +
                 " entries, but there are " + number(shape.layers) + " layers");
  }
  shape.fullLayers = {};
  for (uint32_t layer = 0; layer < shape.layers; ++layer) {
    if (recurrent[layer] == 0) {
      shape.fullLayers.add(layer);
    }
  }
  if (numbers.interval != 0 && shape.fullInterval() != numbers.interval) {
    return fault(std::string(kInterval) + " is " + number(numbers.interval) + ", but " +
                 kRecurrentLayers + " says otherwise");
  }
  return Status::success();
}

Status toShape(const ZYM2Reader& reader, const Numbers& n, StatedShape& out) {
  if (n.predictionLayers >= n.blocks || n.blocks - n.predictionLayers > LayerSet::kCapacity) {
    return fault(std::string(kBlocks) + " is " + number(n.blocks) + " with " +
                 number(n.predictionLayers) + " prediction layers; 1 to " +
                 number(LayerSet::kCapacity) + " layers besides those can be");
  }
  if (n.keyLength != n.valueLength) {
    return fault("qwen35.attention.value_length is " + number(n.valueLength) +
                 ", but the length of keys is " + number(n.keyLength));
  }
  if (n.timeSteps == 0 || n.innerSize % n.timeSteps != 0) {
    return fault("qwen35.ssm.inner_size is " + number(n.innerSize) +
                 ", which is no multiple of the " + number(n.timeSteps) + " value heads");
  }
  ModelShape shape{.layers = n.blocks - n.predictionLayers,
                   .fullLayers = {},
                   .queryHeads = n.queryHeads,
                   .kvHeads = n.kvHeads,
                   .headDim = n.keyLength,
                   .ropeDim = n.ropeDim,
                   .ropeBase = n.ropeBase,
                   .linearKeyHeads = n.groups,
                   .linearValueHeads = n.timeSteps,
                   .linearKeyDim = n.stateSize,
                   .linearValueDim = n.innerSize / n.timeSteps,
                   .convTaps = n.convTaps,
                   .normEps = n.normEps,
                   .contextLength = n.context};
  Status status = readLayerKinds(reader, n, shape);
  if (!status.ok()) {
    return status;
  }
  if (std::string why = shapeFault(shape); !why.empty()) {
    return fault(std::move(why));
  }
  shape.ownOutput = reader.findTensor(tensorName(tensorOf(TensorRole::Output)).c_str()) != nullptr;
  out = {shape, {n.hidden, n.feedForward, 0}, n.predictionLayers, true};
  return Status::success();
}

std::string hasRows(const char* key, uint64_t stated, const TensorView& tensor, const char* what,
                    uint64_t actual) {
  return std::string(key) + " is " + number(stated) + ", but " + tensor.name + " has " + what +
         number(actual);
}

}  // namespace

std::string shapeFault(const ModelShape& shape) {
  const std::pair<const char*, uint64_t> extents[] = {
      {"query heads", shape.queryHeads},
      {"key/value heads", shape.kvHeads},
      {"dimensions of a head", shape.headDim},
      {"key heads of linear attention", shape.linearKeyHeads},
      {"value heads of linear attention", shape.linearValueHeads},
      {"key dimensions of linear attention", shape.linearKeyDim},
      {"value dimensions of linear attention", shape.linearValueDim},
      {"taps of the convolution", shape.convTaps},
  };
  for (const auto& [what, extent] : extents) {
    if (extent == 0 || extent > kMostExtent) {
      return number(extent) + " " + what + "; 1 to " + number(kMostExtent) + " can be";
    }
  }
  if (shape.layers == 0 || shape.layers > LayerSet::kCapacity) {
    return number(shape.layers) + " layers; 1 to " + number(LayerSet::kCapacity) + " can be";
  }
  if (shape.queryHeads % shape.kvHeads != 0) {
    return number(shape.queryHeads) + " query heads cannot share " + number(shape.kvHeads) +
           " key/value heads evenly";
  }
  if (shape.linearValueHeads % shape.linearKeyHeads != 0) {
    return number(shape.linearValueHeads) + " value heads cannot share " +
           number(shape.linearKeyHeads) + " key heads evenly";
  }
  if (shape.ropeDim % 2 != 0 || shape.ropeDim > shape.headDim) {
    return number(shape.ropeDim) + " rotated dimensions; an even number up to the " +
           number(shape.headDim) + " of a head can be";
  }
  // A negated comparison is false for what is not a number.
  if (!(shape.ropeBase > 0) || !std::isfinite(shape.ropeBase)) {
    return "the rotary base is " + std::to_string(shape.ropeBase) + "; a positive number can be";
  }
  if (!(shape.normEps >= 0) || !std::isfinite(shape.normEps)) {
    return "the epsilon of norms is " + std::to_string(shape.normEps) +
           "; zero or a positive number can be";
  }
  if (shape.contextLength == 0 || shape.contextLength > kMostContext) {
    return "a context of " + number(shape.contextLength) + " positions; 1 to " +
           number(kMostContext) + " can be";
  }
  return {};
}

Status readShape(const ZYM2Reader& reader, StatedShape& out) {
  out = {};
  if (!statesShape(reader)) {
    return Status::success();
  }
  Numbers numbers;
  Status status = readNumbers(reader, numbers);
  return status.ok() ? toShape(reader, numbers, out) : status;
}

std::vector<std::string> findContradictions(const ZYMLoader& loader, const StatedShape& stated) {
  std::vector<std::string> found;
  if (!stated.isStated) {
    return found;
  }
  const auto find = [&](TensorRole role, uint32_t layer) {
    return loader.findTensor(tensorName(tensorOf(role), layer));
  };
  const TensorView* embedding = find(TensorRole::Embedding, 0);
  if (embedding != nullptr && embedding->dims[0] != stated.sizes.hidden) {
    found.push_back(
        hasRows(kHidden, stated.sizes.hidden, *embedding, "rows of ", embedding->dims[0]));
  }
  for (uint32_t layer = 0; layer < stated.shape.layers; ++layer) {
    const TensorView* gate = find(TensorRole::FfnGate, layer);
    if (gate != nullptr && gate->dims[1] != stated.sizes.feedForward) {
      found.push_back(
          hasRows(kFeedForward, stated.sizes.feedForward, *gate, "a row count of ", gate->dims[1]));
    }
    const bool isLinear = find(TensorRole::SsmOut, layer) != nullptr;
    if (isLinear == stated.shape.isFull(layer)) {
      found.push_back("layer " + number(layer) + " is of " + (isLinear ? "linear" : "full") +
                      " attention by its tensors, but not by the metadata");
    }
  }
  const uint32_t behind = stated.shape.layers + stated.predictionLayers;
  if (find(TensorRole::AttnNorm, behind) != nullptr) {
    found.push_back(std::string(kBlocks) + " is " + number(behind) + ", but there is a blk." +
                    number(behind));
  }
  return found;
}

}  // namespace kel
