#include "host/models/model_source.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

namespace zym {
namespace {

namespace fs = std::filesystem;
using kel::Status;

constexpr std::string_view kContainerEnding = ".zym";
constexpr std::string_view kGgufEnding = ".gguf";
constexpr std::string_view kWeightsEnding = ".safetensors";
constexpr const char* kConfig = "config.json";
constexpr const char* kAdapterConfig = "adapter_config.json";
constexpr std::string_view kAdapterWeights = "adapter_model.safetensors";
constexpr const char* kWhatOpens =
    "give a .zym container, a GGUF file, or a folder with config.json and safetensors";
constexpr size_t kStartBytes = 64;

bool isThere(const fs::path& path) {
  std::error_code ignored;  // what cannot be looked at is not there
  return fs::exists(path, ignored);
}

bool isFolder(const fs::path& path) {
  std::error_code ignored;
  return fs::is_directory(path, ignored);
}

Status refusal(const std::string& given, std::string_view reason) {
  return Status::invalid(fmt::format("{}: {}", given, reason));
}

Status systemRefusal(const std::string& given, int reason) {
  return refusal(given, std::system_category().message(reason) + "; check the path");
}

Status adapterRefusal(const std::string& given) {
  return refusal(given,
                 "is an adapter (LoRA), not a whole model; merge it into the model that it was "
                 "made for, and give that");
}

Status readFile(const fs::path& folder, const std::string& name, SourceFile& out) {
  const fs::path path = folder / name;
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) {
    return systemRefusal(path.string(), errno);
  }
  out.name = name;
  out.bytes = static_cast<uint64_t>(info.st_size);
  out.modified = int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec;
  std::error_code ignored;
  if (fs::is_symlink(path, ignored)) {
    out.target = fs::canonical(path, ignored).string();
  }
  return Status::success();
}

Status readFiles(const fs::path& folder, const std::vector<std::string>& names,
                 std::vector<SourceFile>& out) {
  for (const std::string& name : names) {
    Status status = readFile(folder, name, out.emplace_back());
    if (!status.ok()) {
      return status;
    }
  }
  return Status::success();
}

// Names in a folder that end in one of these, in order. A folder that cannot be read has none.
std::vector<std::string> namesEndingIn(const fs::path& folder,
                                       std::initializer_list<std::string_view> endings) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    const bool wanted = std::any_of(endings.begin(), endings.end(), [&](std::string_view ending) {
      return name.ends_with(ending);
    });
    if (wanted && !isFolder(entry->path())) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

Status refuseFolder(const std::string& given) {
  if (isThere(fs::path(given) / kAdapterConfig)) {
    return adapterRefusal(given);
  }
  const std::vector<std::string> models = namesEndingIn(given, {kContainerEnding, kGgufEnding});
  if (!models.empty()) {
    return refusal(given, fmt::format("is a folder without a config.json; give a file in it, {}",
                                      (fs::path(given) / models.front()).string()));
  }
  return refusal(given, fmt::format("is a folder without a config.json; {}", kWhatOpens));
}

Status recogniseFolder(const std::string& given, ModelSource& out) {
  if (!isThere(fs::path(given) / kConfig)) {
    return refuseFolder(given);
  }
  const std::vector<std::string> weights = namesEndingIn(given, {kWeightsEnding});
  if (weights.empty()) {
    return refusal(given,
                   "has a config.json but no safetensors; weights in other forms cannot be "
                   "read");
  }
  if (weights.size() == 1 && weights.front() == kAdapterWeights) {
    return adapterRefusal(given);
  }
  out.form = ModelForm::Checkpoint;
  out.path = modelPath(given);
  out.stem = fs::path(out.path).filename().string();
  return readFiles(
      out.path, namesEndingIn(given, {kWeightsEnding, ".json", ".jinja", "merges.txt"}), out.files);
}

// The name of one file of several: STEM-00001-of-00003.gguf.
struct PartName {
  std::string stem;
  unsigned part = 0;
  unsigned parts = 0;

  std::string of(unsigned number) const {
    return fmt::format("{}-{:05}-of-{:05}{}", stem, number, parts, kGgufEnding);
  }
};

std::optional<unsigned> fiveDigits(std::string_view text) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return value;
}

std::optional<PartName> partName(std::string_view name) {
  constexpr size_t kNumbers = std::string_view("-00001-of-00003").size();
  if (!name.ends_with(kGgufEnding)) {
    return std::nullopt;
  }
  name.remove_suffix(kGgufEnding.size());
  if (name.size() <= kNumbers) {
    return std::nullopt;
  }
  const std::string_view numbers = name.substr(name.size() - kNumbers);
  const auto part = fiveDigits(numbers.substr(1, 5));
  const auto parts = fiveDigits(numbers.substr(10, 5));
  if (numbers[0] != '-' || numbers.substr(6, 4) != "-of-" || !part || !parts || *part == 0 ||
      *part > *parts) {
    return std::nullopt;
  }
  name.remove_suffix(kNumbers);
  return PartName{std::string(name), *part, *parts};
}

Status recogniseGguf(const std::string& given, ModelSource& out) {
  out.form = ModelForm::Gguf;
  out.path = modelPath(given);
  const fs::path path = out.path;
  const std::optional<PartName> name = partName(path.filename().string());
  if (!name) {
    out.stem = path.stem().string();
    return readFiles(path.parent_path(), {path.filename().string()}, out.files);
  }
  out.stem = name->stem;
  if (name->part != 1) {
    return refusal(given,
                   fmt::format("is part {} of {}; give the first, {}", name->part, name->parts,
                               (fs::path(given).parent_path() / name->of(1)).string()));
  }
  std::vector<std::string> names;
  for (unsigned part = 1; part <= name->parts; ++part) {
    names.push_back(name->of(part));
    if (!isThere(path.parent_path() / names.back())) {
      return refusal(given, fmt::format("{} of its {} parts is missing, {}; fetch it too", part,
                                        name->parts, names.back()));
    }
  }
  return readFiles(path.parent_path(), names, out.files);
}

// The first bytes of a regular file.
Status readStart(const std::string& given, std::string& start) {
  const int fd = ::open(given.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    return systemRefusal(given, errno);
  }
  std::array<char, kStartBytes> bytes{};
  struct stat info {};
  const bool regular = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  const ssize_t got = regular ? ::read(fd, bytes.data(), bytes.size()) : 0;
  const int reason = errno;
  ::close(fd);
  if (!regular) {
    return refusal(given, fmt::format("is no regular file; {}", kWhatOpens));
  }
  if (got < 0) {
    return systemRefusal(given, reason);
  }
  start.assign(bytes.data(), static_cast<size_t>(got));
  return Status::success();
}

// A file that lies in a checkpoint folder and is no model by itself.
Status refusePart(const std::string& given) {
  const fs::path folder = fs::path(given).parent_path();
  const std::string shown = folder.empty() ? "." : folder.string();
  if (fs::path(given).filename() == kAdapterWeights) {
    return adapterRefusal(given);
  }
  if (isThere(folder / kConfig)) {
    return refusal(given, fmt::format("is one file of a checkpoint; give its folder, {}", shown));
  }
  return refusal(given,
                 "is one file of a checkpoint; give a folder in which config.json and "
                 "tokenizer.json lie beside it");
}

Status recogniseFile(const std::string& given, ModelSource& out) {
  std::string start;
  Status status = readStart(given, start);
  if (!status.ok()) {
    return status;
  }
  if (start.empty()) {
    return refusal(given, "is empty; fetch or make it again");
  }
  if (start.starts_with("GGUF")) {
    return recogniseGguf(given, out);
  }
  if (start.starts_with("ZYM2")) {
    return refusal(given, "is a container, but the name of one ends in .zym; rename it");
  }
  if (start.starts_with("version https://git-lfs")) {
    return refusal(given, "only points to the file in Git LFS; `git lfs pull` fetches it");
  }
  if (given.ends_with(kWeightsEnding) || given.ends_with(".json")) {
    return refusePart(given);
  }
  if (given.ends_with(kGgufEnding)) {
    return refusal(given, "is no GGUF file, whatever its name says; fetch it again");
  }
  return refusal(given, fmt::format("is nothing that can be opened; {}", kWhatOpens));
}

}  // namespace

std::string modelPath(const std::string& given) {
  std::error_code ignored;
  fs::path path = fs::absolute(given, ignored);
  if (path.filename().empty() && path.has_parent_path()) {
    path = path.parent_path();  // without the slash at the end
  }
  if (isFolder(path)) {
    return fs::canonical(path, ignored).string();
  }
  return (fs::weakly_canonical(path.parent_path(), ignored) / path.filename()).string();
}

Status recogniseModel(const std::string& given, ModelSource& out) {
  out = {};
  if (isFolder(given)) {
    return recogniseFolder(given, out);
  }
  if (::access(given.c_str(), R_OK) != 0) {
    return systemRefusal(given, errno);
  }
  if (!given.ends_with(kContainerEnding)) {
    return recogniseFile(given, out);
  }
  out.form = ModelForm::Container;
  out.path = given;
  out.stem = fs::path(given).stem().string();
  return Status::success();
}

}  // namespace zym
