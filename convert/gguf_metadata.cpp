#include "convert/gguf_metadata.h"

#include <string>

#include "convert/errors.h"

namespace kel::convert {

namespace {

constexpr std::string_view kArchitecture = "qwen35";

// Files that go with a model and are none.
Status checkKind(const GgufFile& file) {
  const auto text = [&](std::string_view key) {
    const GgufValue* value = file.find(key);
    return value == nullptr ? std::string_view() : value->text;
  };
  const std::string_view kind = text("general.type");
  if (kind == "adapter") {
    return unsupported(
        "general.type is \"adapter\" (LoRA), which is no model by itself: merge it into its model "
        "first, and convert the result");
  }
  if (kind == "mmproj" || text("general.architecture") == "clip") {
    return unsupported(
        "this is the vision part of a model: give the file of the language model instead");
  }
  if (kind == "imatrix" || kind == "vocab") {
    return unsupported("general.type is \"{}\": this file holds no model", kind);
  }
  return Status::success();
}

Status checkArchitecture(const GgufFile& file) {
  const GgufValue* value = file.find("general.architecture");
  if (value == nullptr || value->type != GgufType::String) {
    return malformed("GGUF: general.architecture is missing: is this a language model?");
  }
  if (value->text == kArchitecture) {
    return Status::success();
  }
  const bool mixture = value->text == "qwen35moe";
  return unsupported("general.architecture is \"{}\"{}; the runtime needs \"{}\"",
                     printable(value->text), mixture ? " (mixture of experts)" : "", kArchitecture);
}

// Frequencies that are scaled give other results at every position, not at distant ones alone.
Status checkRopeScaling(const GgufFile& file) {
  constexpr std::string_view kTypeKey = "qwen35.rope.scaling.type";
  const GgufValue* type = file.find(kTypeKey);
  if (type != nullptr) {
    return type->type == GgufType::String && type->text == "none"
               ? Status::success()
               : misfit(kTypeKey, fmt::format("\"{}\"", printable(type->text)), "\"none\"");
  }
  for (const std::string_view key : {"qwen35.rope.scaling.factor", "qwen35.rope.scale_linear"}) {
    const GgufValue* factor = file.find(key);
    if (factor != nullptr && factor->asNumber() != 1.0) {
      return misfit(key, factor->asNumber().value_or(0), "1, or none");
    }
  }
  return Status::success();
}

}  // namespace

Status checkGgufMetadata(const GgufFile& file) {
  for (const auto& check : {checkKind, checkArchitecture, checkRopeScaling}) {
    Status status = check(file);
    if (!status.ok()) {
      return status;
    }
  }
  return Status::success();
}

}  // namespace kel::convert
