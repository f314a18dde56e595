#include "convert/tensor_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "convert/errors.h"
#include "convert/storage_choice.h"
#include "convert/storage_plan.h"
#include "quant/blocks.h"

namespace kel::convert {

namespace {

std::string embeddingName() {
  return tensorName(tensorOf(TensorRole::Embedding));
}

std::string shapeText(const std::vector<uint64_t>& dims) {
  return fmt::format("[{}]", fmt::join(dims, ", "));
}

Status checkStated(const StatedSize& stated, uint64_t actual, std::string_view tensor) {
  if (!stated.value || *stated.value == actual) {
    return Status::success();
  }
  return unsupported("{} is {}, but {} has {}", stated.field, *stated.value, tensor, actual);
}

Status missing(std::string_view name) {
  return unsupported("{} is missing; the runtime needs it", name);
}

// The sizes come from two tensors, which the others are then held against.
Status readSizes(const SourceModel& source, ModelSizes& sizes) {
  const std::string gateName = tensorName(tensorOf(TensorRole::FfnGate), 0);
  const auto embedding = source.tensors.find(embeddingName());
  const auto gate = source.tensors.find(gateName);
  if (embedding == source.tensors.end()) {
    return missing(embeddingName());
  }
  if (gate == source.tensors.end()) {
    return missing(gateName);
  }
  for (const auto* tensor : {&embedding->second, &gate->second}) {
    if (tensor->dims.size() != 2 || tensor->dims[0] == 0 || tensor->dims[1] == 0) {
      return unsupported("the shape of {} is {}; the runtime needs a matrix", tensor->name,
                         shapeText(tensor->dims));
    }
  }
  sizes = {embedding->second.dims[0], gate->second.dims[1], embedding->second.dims[1]};
  Status status = checkStated(source.hidden, sizes.hidden, "a row of the embedding");
  if (status.ok()) {
    status = checkStated(source.vocab, sizes.vocab, "the embedding");
  }
  if (status.ok()) {
    status = checkStated(source.feedForward, sizes.feedForward, "the feed-forward gate");
  }
  return status;
}

// Dimensions of 1 at the end say nothing.
bool sameShape(std::vector<uint64_t> dims, const std::vector<uint64_t>& wanted) {
  while (dims.size() > wanted.size() && dims.back() == 1) {
    dims.pop_back();
  }
  return dims == wanted;
}

// A vector of one element a head cannot be put into another order block by block.
Status checkVectorType(const SourceTensor& tensor, const TensorSpec& spec, bool groupedHeads) {
  const bool isReordered = groupedHeads && spec.heads.kind == HeadAxis::Kind::Rows;
  if (spec.dims.size() != 1 || !isReordered || sourceTypeInfo(*tensor.type).block.elements == 1) {
    return Status::success();
  }
  return unsupported(
      "{} has the element type {}; a vector in grouped head order must be F32, F16 or BF16",
      tensor.name, tensor.typeName);
}

Status checkTensor(const SourceTensor& tensor, const TensorSpec& spec, bool groupedHeads) {
  if (!sameShape(tensor.dims, spec.dims)) {
    return misfit(fmt::format("the shape of {}", tensor.name), shapeText(tensor.dims),
                  shapeText(spec.dims));
  }
  if (tensor.type) {
    return checkVectorType(tensor, spec, groupedHeads);
  }
  return unsupported("{} {}", tensor.name, cannotDecode(tensor.typeName));
}

void decideStorage(const SourceModel& source, const StorageChoice& choice, PlannedTensor& plan) {
  const SourceTypeInfo& from = sourceTypeInfo(*plan.source->type);
  if (plan.spec.tensor->kind == TensorKind::Matrix) {
    const HeadAxis& heads = plan.spec.heads;
    const bool blocksSplit = source.groupedHeads && heads.kind == HeadAxis::Kind::Columns &&
                             heads.unit % from.block.elements != 0;
    const Storage storage = chooseStorage(
        {plan.spec.tensor->role, *plan.source->type, plan.spec.dims[0], blocksSplit}, choice);
    plan.stored = storage.type;
    plan.reason = storage.reason;
    plan.copied = from.kept == storage.type && !blocksSplit;
  } else {
    // The runtime reads these as plain floats and looks at no type.
    plan.stored = QuantType::F32;
    plan.reason = from.kept == QuantType::F32 ? "" : "vectors are stored as F32";
  }
  uint64_t rows = 1;
  for (size_t i = 1; i < plan.spec.dims.size(); ++i) {
    rows *= plan.spec.dims[i];
  }
  plan.storedBytes = rows * quant::quantizedBytes(plan.stored, plan.spec.dims[0]);
}

// The runtime asks for the query's bias, and uses all three or none.
Status checkBiases(const SourceModel& source) {
  constexpr TensorRole kBiases[] = {TensorRole::AttnQBias, TensorRole::AttnKBias,
                                    TensorRole::AttnVBias};
  for (uint32_t layer = 0; layer < source.shape.layers + source.predictionLayers; ++layer) {
    const auto has = [&](TensorRole role) {
      return source.tensors.contains(tensorName(tensorOf(role), layer));
    };
    if (std::none_of(std::begin(kBiases), std::end(kBiases), has)) {
      continue;
    }
    for (const TensorRole role : kBiases) {
      if (!has(role)) {
        return unsupported("{} is missing; the runtime needs the biases of query, key and value",
                           tensorName(tensorOf(role), layer));
      }
    }
  }
  return Status::success();
}

Status checkNoOthers(const SourceModel& source, const std::set<std::string>& used) {
  for (const auto& [name, tensor] : source.tensors) {
    if (!used.contains(name)) {
      return unsupported("{} has no place in a model of {} layers of this family", tensor.name,
                         source.shape.layers);
    }
  }
  return Status::success();
}

// The choice for one matrix: by the first rule of a plan that matches it, or by the rest.
StorageChoice choiceFor(const std::string& tensor, const StorageChoice& storage,
                        std::vector<bool>& usedRules) {
  const size_t rule = findRule(storage.plan, tensor);
  StorageChoice choice;
  if (rule < storage.plan.size()) {
    usedRules[rule] = true;
    choice.type = storage.plan[rule].type;
  } else {
    choice.type = storage.type;
    choice.preset = storage.preset;
    choice.embeddingType = storage.embeddingType;
  }
  return choice;
}

void remarkUnusedRules(const StorageChoice& storage, const std::vector<bool>& used,
                       TensorPlan& out) {
  for (size_t i = 0; i < used.size(); ++i) {
    if (!used[i]) {
      out.remarks.push_back(fmt::format(
          "no matrix is stored by the plan's \"{} {}\": nothing matches it, or lines before it do",
          printable(storage.plan[i].pattern), storage.plan[i].typeName));
    }
  }
}

}  // namespace

Status planTensors(const SourceModel& source, const StorageChoice& storage, TensorPlan& out) {
  Status status = readSizes(source, out.sizes);
  if (!status.ok()) {
    return status;
  }
  std::set<std::string> used;
  std::vector<bool> usedRules(storage.plan.size());
  for (TensorSpec& spec : modelTensors(source.shape, out.sizes, source.predictionLayers)) {
    const auto found = source.tensors.find(spec.name);
    if (found == source.tensors.end()) {
      if (spec.tensor->required) {
        return missing(spec.name);
      }
      continue;
    }
    status = checkTensor(found->second, spec, source.groupedHeads);
    if (!status.ok()) {
      return status;
    }
    used.insert(spec.name);
    PlannedTensor& plan = out.tensors.emplace_back();
    plan.spec = std::move(spec);
    plan.source = &found->second;
    const bool isMatrix = plan.spec.tensor->kind == TensorKind::Matrix;
    decideStorage(source, isMatrix ? choiceFor(plan.spec.name, storage, usedRules) : storage, plan);
  }
  remarkUnusedRules(storage, usedRules, out);
  status = checkBiases(source);
  return status.ok() ? checkNoOthers(source, used) : status;
}

}  // namespace kel::convert
