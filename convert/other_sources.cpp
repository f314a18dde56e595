#include "convert/other_sources.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <vector>

#include "convert/errors.h"

namespace kel::convert {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPickledEndings[] = {".bin", ".pt", ".pth"};

bool isPickled(std::string_view name) {
  return std::any_of(std::begin(kPickledEndings), std::end(kPickledEndings),
                     [&](std::string_view ending) { return name.ends_with(ending); });
}

// Sorted, so that messages do not depend on the file system.
std::vector<std::string> filesOf(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;  // a folder that cannot be listed tells nothing
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    names.push_back(at->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

bool isAdapter(std::string_view name) {
  return name == "adapter_config.json" || name.starts_with("adapter_model.");
}

Status adapter(const std::string& path) {
  return unsupported(
      "{} holds an adapter (LoRA), which is no model by itself: merge it into its model first, and "
      "convert the result",
      path);
}

Status pickled(const std::string& path) {
  return unsupported(
      "{} holds pickled weights; the importer reads safetensors: save the model in that format, or "
      "download it so",
      path);
}

template <typename Predicate>
const std::string* findName(const std::vector<std::string>& names, Predicate matches) {
  const auto found = std::find_if(names.begin(), names.end(), matches);
  return found == names.end() ? nullptr : &*found;
}

}  // namespace

Status refuseFile(const std::string& path) {
  const std::string name = fs::path(path).filename().string();
  if (isAdapter(name)) {
    return adapter(path);
  }
  if (name.ends_with(".safetensors")) {
    return unsupported("{} is one file of a checkpoint: give the directory that holds it", path);
  }
  if (isPickled(name)) {
    return pickled(path);
  }
  return malformed("{} is neither a GGUF file nor a directory with a config.json", path);
}

Status refuseFolder(const std::string& path) {
  const std::vector<std::string> names = filesOf(path);
  if (findName(names, isAdapter) != nullptr) {
    return adapter(path);
  }
  const std::string* gguf =
      findName(names, [](std::string_view name) { return name.ends_with(".gguf"); });
  if (gguf != nullptr) {
    return unsupported("{} is a directory of GGUF files: give one of them, {}", path,
                       printable(*gguf));
  }
  return malformed("{} is a directory without a config.json", path);
}

Status refuseFolderWithoutWeights(const std::string& path) {
  const std::vector<std::string> names = filesOf(path);
  if (findName(names, isAdapter) != nullptr) {
    return adapter(path);
  }
  const auto parts = std::count_if(names.begin(), names.end(), [](std::string_view name) {
    return name.ends_with(".safetensors");
  });
  if (parts > 0) {
    return unsupported(
        "{} has {} safetensors file{}, but no model.safetensors.index.json that says what is in "
        "{}: is the download complete?",
        path, parts, parts == 1 ? "" : "s", parts == 1 ? "it" : "them");
  }
  if (const std::string* file = findName(names, isPickled); file != nullptr) {
    return pickled((fs::path(path) / *file).string());
  }
  return Status::success();
}

}  // namespace kel::convert
