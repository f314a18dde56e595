#include "convert/gguf_parts.h"

#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>

#include "convert/errors.h"
#include "convert/gguf_model.h"
#include "convert/gguf_reader.h"

namespace kel::convert {

namespace {

namespace fs = std::filesystem;

constexpr int64_t kMostParts = 99999;  // as the names can count

// "model-00001-of-00003.gguf" -> "model"; none for another name.
std::optional<std::string> nameStem(const std::string& path, int64_t no, int64_t count) {
  const std::string ending = fmt::format("-{:05}-of-{:05}.gguf", no + 1, count);
  if (!path.ends_with(ending)) {
    return std::nullopt;
  }
  return path.substr(0, path.size() - ending.size());
}

std::string partName(const std::string& stem, int64_t no, int64_t count) {
  return fmt::format("{}-{:05}-of-{:05}.gguf", stem, no + 1, count);
}

// Leaves out as it is where the key is absent.
Status readCount(const GgufFile& file, std::string_view key, std::optional<int64_t>& out) {
  const GgufValue* value = file.find(key);
  if (value == nullptr) {
    return Status::success();
  }
  out = value->asInteger();
  if (!out || *out < 0) {
    return malformed("GGUF: {} is not a number of {}", key,
                     key == "split.tensors.count" ? "tensors" : "parts");
  }
  return Status::success();
}

struct Place {
  int64_t no = 0;
  int64_t count = 1;
};

Status readPlace(const GgufFile& file, Place& out) {
  std::optional<int64_t> no;
  std::optional<int64_t> count;
  Status status = readCount(file, "split.no", no);
  if (status.ok()) {
    status = readCount(file, "split.count", count);
  }
  if (!status.ok()) {
    return status;
  }
  out = {no.value_or(0), std::max<int64_t>(count.value_or(1), 1)};
  if (out.count > kMostParts || out.no >= out.count) {
    return malformed("GGUF: split.no is {} and split.count {}", out.no, count.value_or(1));
  }
  return Status::success();
}

Status addPart(const std::string& stem, const Place& place, GgufFile& whole, SourceModel& out) {
  const std::string path = partName(stem, place.no, place.count);
  std::error_code ignored;  // what cannot be looked at is named on opening
  if (!fs::exists(path, ignored)) {
    return malformed("{} is missing: the model is split into {} files, and all are needed", path,
                     place.count);
  }
  MappedFile& file = out.files.emplace_back();
  Status status = file.open(path);
  if (!status.ok()) {
    return status;
  }
  GgufFile part;
  Place stated;
  status = part.parse(file.data(), file.size());
  if (status.ok()) {
    status = readPlace(part, stated);
  }
  if (status.ok() && (stated.no != place.no || stated.count != place.count)) {
    status = malformed("it says that it is part {} of {}", stated.no + 1, stated.count);
  }
  if (status.ok()) {
    status = whole.takeTensors(std::move(part));
  }
  out.fileNames.push_back(fs::path(path).filename().string());
  return status.ok() ? status : Status{status.code, fmt::format("{}: {}", path, status.message)};
}

Status addOtherParts(const std::string& path, const Place& place, GgufFile& whole,
                     SourceModel& out) {
  const std::optional<std::string> stem = nameStem(path, place.no, place.count);
  if (place.no != 0) {
    return unsupported(
        "{} is part {} of {}: give the first, {}", path, place.no + 1, place.count,
        stem ? fs::path(partName(*stem, 0, place.count)).filename().string() : "split.no 0");
  }
  if (!stem) {
    return unsupported(
        "{} is the first of {} parts, but its name does not end in -00001-of-{:05}.gguf, by which "
        "the others are found",
        path, place.count, place.count);
  }
  for (int64_t no = 1; no < place.count; ++no) {
    Status status = addPart(*stem, {no, place.count}, whole, out);
    if (!status.ok()) {
      return status;
    }
  }
  std::optional<int64_t> tensors;
  Status status = readCount(whole, "split.tensors.count", tensors);
  if (status.ok() && tensors && static_cast<uint64_t>(*tensors) != whole.tensors().size()) {
    return malformed("GGUF: split.tensors.count is {}, but the {} parts have {}", *tensors,
                     place.count, whole.tensors().size());
  }
  return status;
}

}  // namespace

Status readGgufParts(const std::string& path, MappedFile first, SourceModel& out) {
  out.files.push_back(std::move(first));
  out.fileNames.push_back(fs::path(path).filename().string());
  GgufFile whole;
  Status status = whole.parse(out.files.front().data(), out.files.front().size());
  Place place;
  if (status.ok()) {
    status = readPlace(whole, place);
  }
  if (status.ok() && place.count > 1) {
    status = addOtherParts(path, place, whole, out);
  }
  return status.ok() ? readGgufModel(whole, out) : status;
}

}  // namespace kel::convert
