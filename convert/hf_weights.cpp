#include "convert/hf_weights.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "convert/errors.h"
#include "convert/json_reader.h"
#include "convert/model_layout.h"
#include "convert/other_sources.h"
#include "convert/safetensors_reader.h"

namespace kel::convert {

namespace {

using nlohmann::json;

constexpr const char* kIndexName = "model.safetensors.index.json";
constexpr const char* kSingleName = "model.safetensors";
// What checkpoint names begin with: the wrapper's, the text-only models', and what is left of both
// when the text model was saved by itself.
constexpr std::string_view kPrefixes[] = {"model.language_model.", "model.", "language_model.", ""};
constexpr std::string_view kOtherFrameworkPrefix = "language_model.model.";
constexpr std::string_view kOutputHead = "lm_head.weight";

// Of the names of vision tensors, behind any of the prefixes.
constexpr std::string_view kVisionPart = "visual.";
// Frequencies that follow from the configuration.
constexpr std::string_view kRotationEnding = "rotary_emb.inv_freq";
// Names that only quantised checkpoints have.
constexpr std::string_view kQuantisedEndings[] = {".weight_scale_inv", ".weight_scale", ".qweight",
                                                  ".qzeros", ".scales"};

struct WeightType {
  std::string_view dtype;
  SourceType type;
};

constexpr WeightType kWeightTypes[] = {
    {"F32", SourceType::F32}, {"F16", SourceType::F16}, {"BF16", SourceType::BF16}};

using TensorList = std::vector<SafetensorsEntry>;

// A shard is a file in the directory itself, whatever the index says.
Status checkFileName(const std::string& name) {
  const bool plain = !name.empty() && name != "." && name != ".." &&
                     std::none_of(name.begin(), name.end(), [](unsigned char c) {
                       return c == '/' || c == '\\' || c < 0x20;
                     });
  if (plain) {
    return Status::success();
  }
  return malformed("{}: \"{}\" is not the name of a file in this directory", kIndexName,
                   printable(name));
}

Status openWeights(const std::string& folder, const std::string& name, SourceModel& out,
                   TensorList& tensors) {
  MappedFile& file = out.files.emplace_back();
  Status status = file.open(folder + "/" + name);
  if (!status.ok()) {
    return status;
  }
  out.fileNames.push_back(name);
  return parseSafetensors(file.data(), file.size(), name, tensors);
}

Status readIndex(const std::string& folder, std::map<std::string, std::string>& fileOf) {
  json index;
  Status status = readJsonFile(folder + "/" + kIndexName, index);
  if (!status.ok()) {
    return status;
  }
  const json* weights = jsonMember(index, "weight_map");
  if (weights == nullptr || !weights->is_object()) {
    return malformed("{}: no weight_map", kIndexName);
  }
  for (const auto& [tensor, file] : weights->items()) {
    if (!file.is_string()) {
      return malformed("{}: a file name is no text", kIndexName);
    }
    status = checkFileName(file.get_ref<const std::string&>());
    if (!status.ok()) {
      return status;
    }
    fileOf[tensor] = file.get<std::string>();
  }
  return Status::success();
}

// The tensors that the index names, each from the file that it names.
Status readShards(const std::string& folder, SourceModel& out, TensorList& tensors) {
  std::map<std::string, std::string> fileOf;
  Status status = readIndex(folder, fileOf);
  if (!status.ok()) {
    return status;
  }
  std::map<std::string, std::unordered_map<std::string, SafetensorsEntry>> shards;
  for (const auto& [tensor, file] : fileOf) {
    const auto [shard, isNew] = shards.try_emplace(file);
    if (isNew) {
      TensorList entries;
      status = openWeights(folder, file, out, entries);
      if (!status.ok()) {
        return status;
      }
      for (SafetensorsEntry& entry : entries) {
        std::string name = entry.name;
        shard->second.emplace(std::move(name), std::move(entry));
      }
    }
    const auto found = shard->second.find(tensor);
    if (found == shard->second.end()) {
      return malformed("{}: {} is not in {}", kIndexName, printable(tensor), printable(file));
    }
    tensors.push_back(found->second);
  }
  return Status::success();
}

Status checkOriginal(const TensorList& tensors) {
  for (const SafetensorsEntry& entry : tensors) {
    const std::string_view name = entry.name;
    if (name.starts_with(kOtherFrameworkPrefix)) {
      return unsupported(
          "{} is a name of a directory converted for another framework, where norms are already "
          "shifted by 1; the importer needs the original checkpoint",
          printable(name));
    }
    const bool quantised =
        std::any_of(std::begin(kQuantisedEndings), std::end(kQuantisedEndings),
                    [&](std::string_view ending) { return name.ends_with(ending); });
    if (quantised) {
      return unsupported(
          "{} belongs to a quantised checkpoint; the importer needs the original in BF16, F16 or "
          "F32",
          printable(name));
    }
  }
  return Status::success();
}

std::string_view prefixOf(const TensorList& tensors) {
  for (const std::string_view prefix : kPrefixes) {
    const std::string embedding = std::string(prefix) + "embed_tokens.weight";
    if (std::any_of(tensors.begin(), tensors.end(),
                    [&](const SafetensorsEntry& e) { return e.name == embedding; })) {
      return prefix;
    }
  }
  return "model.";
}

// Checkpoint name without prefix -> container name.
std::unordered_map<std::string, std::string> nameMap(const ModelShape& shape) {
  std::unordered_map<std::string, std::string> names;
  for (TensorSpec& spec : modelTensors(shape, {}, 1)) {
    names.emplace(std::move(spec.checkpoint), std::move(spec.name));
  }
  return names;
}

// Shapes as the container writes them: innermost first, and a convolution without its middle 1.
Status dimensions(const SafetensorsEntry& entry, const ModelShape& shape,
                  std::vector<uint64_t>& dims) {
  dims.assign(entry.shape.rbegin(), entry.shape.rend());
  if (!entry.name.ends_with("conv1d.weight") || dims.size() != 3) {
    return Status::success();
  }
  if (dims[1] != 1) {
    return unsupported(
        "the shape of {} is [{}, {}, {}]; the importer needs [{}, 1, {}]: a directory converted "
        "for another framework, where norms are already shifted by 1, does not fit",
        printable(entry.name), entry.shape[0], entry.shape[1], entry.shape[2], shape.convChannels(),
        shape.convTaps);
  }
  dims.erase(dims.begin() + 1);
  return Status::success();
}

Status sourceTensor(const SafetensorsEntry& entry, const ModelShape& shape, SourceTensor& out) {
  const auto* known = std::find_if(std::begin(kWeightTypes), std::end(kWeightTypes),
                                   [&](const WeightType& t) { return t.dtype == entry.dtype; });
  out = {printable(entry.name), entry.dtype, {}, {}, entry.data, entry.nBytes};
  if (known == std::end(kWeightTypes)) {
    const bool isQuantised = entry.dtype.starts_with("F8") || entry.dtype.starts_with("F6") ||
                             entry.dtype.starts_with("F4");
    return unsupported(
        "{} has the element type {}{} BF16, F16 or F32", printable(entry.name), entry.dtype,
        isQuantised ? ": this checkpoint is quantised; the importer needs the original in"
                    : "; the importer needs");
  }
  out.type = known->type;
  return dimensions(entry, shape, out.dims);
}

// The name without any of the prefixes, where what follows begins with part; empty otherwise.
std::string_view namePart(std::string_view name, std::string_view part) {
  for (const std::string_view prefix : kPrefixes) {
    if (name.starts_with(prefix) && name.substr(prefix.size()).starts_with(part)) {
      return name.substr(prefix.size());
    }
  }
  return {};
}

const char* skippedKind(std::string_view name) {
  if (name.ends_with(kRotationEnding)) {
    return "rotation";
  }
  return namePart(name, kVisionPart).empty() ? nullptr : "vision";
}

Status nameTensors(const TensorList& tensors, SourceModel& out) {
  const std::string_view prefix = prefixOf(tensors);
  const auto names = nameMap(out.shape);
  const auto containerName = [&](std::string_view name) {
    const auto known = names.find(std::string(name));
    return known == names.end() ? std::string() : known->second;
  };
  for (const SafetensorsEntry& entry : tensors) {
    if (const char* kind = skippedKind(entry.name); kind != nullptr) {
      ++out.skipped[kind];
      continue;
    }
    const std::string_view prediction = namePart(entry.name, kPredictionPrefix);
    SourceTensor tensor;
    Status status = sourceTensor(entry, out.shape, tensor);
    if (!prediction.empty()) {
      // Of a type that cannot be decoded, it hurts only where it is kept.
      const std::string name = containerName(prediction);
      out.predictionTensors.emplace(name.empty() ? entry.name : name, std::move(tensor));
      continue;
    }
    if (!status.ok()) {
      return status;
    }
    if (entry.name == kOutputHead) {
      out.outputHead = std::move(tensor);
      continue;
    }
    // What has no place in the container keeps its own name and is refused by it later.
    const bool prefixed = entry.name.starts_with(prefix);
    const std::string name =
        prefixed ? containerName(std::string_view(entry.name).substr(prefix.size())) : "";
    out.tensors.emplace(name.empty() ? entry.name : name, std::move(tensor));
  }
  return checkIsWhole(out, "this directory");
}

}  // namespace

Status readHfWeights(const std::string& folder, SourceModel& out) {
  TensorList tensors;
  std::error_code ignored;  // an index that cannot be looked at is as good as none
  const auto exists = [&](const char* name) {
    return std::filesystem::exists(folder + "/" + name, ignored);
  };
  Status status = Status::success();
  if (exists(kIndexName)) {
    status = readShards(folder, out, tensors);
  } else {
    if (!exists(kSingleName)) {
      status = refuseFolderWithoutWeights(folder);
    }
    if (status.ok()) {
      status = openWeights(folder, kSingleName, out, tensors);
    }
  }
  if (status.ok()) {
    status = checkOriginal(tensors);
  }
  if (status.ok()) {
    status = nameTensors(tensors, out);
  }
  return status;
}

}  // namespace kel::convert
