#include "convert/source_model.h"

#include <cstring>
#include <filesystem>
#include <string_view>

#include "convert/errors.h"
#include "convert/gguf_parts.h"
#include "convert/hf_directory.h"
#include "convert/other_sources.h"

namespace kel::convert {

namespace {

namespace fs = std::filesystem;

Status readFile(const std::string& path, SourceModel& out) {
  MappedFile file;
  Status status = file.open(path);
  if (!status.ok()) {
    return status;
  }
  const std::string_view start = file.text().substr(0, 4);
  if (start == "ZYM2") {
    return unsupported("{} is a ZYM2 container already: use it as it is", path);
  }
  if (start != "GGUF") {
    return refuseFile(path);
  }
  status = readGgufParts(path, std::move(file), out);
  if (status.ok() && out.name.empty()) {
    out.name = fs::path(path).stem().string();
    if (const size_t part = out.name.rfind("-00001-of-"); part != std::string::npos) {
      out.name.resize(part);
    }
  }
  return status;
}

Status readDirectory(const std::string& path, SourceModel& out) {
  std::error_code error;
  const fs::path folder = fs::canonical(path, error);
  if (error) {
    return ioFailure("cannot read {}: {}", path, error.message());
  }
  if (!fs::exists(folder / "config.json", error)) {
    return refuseFolder(path);
  }
  out.name = folder.filename().string();
  return readHfDirectory(folder.string(), out);
}

}  // namespace

Status checkIsWhole(const SourceModel& model, const char* what) {
  const size_t predictions = model.predictionTensors.empty() ? 0 : 1;
  if (!model.tensors.empty() || model.skipped.size() + predictions != 1) {
    return Status::success();
  }
  return unsupported("{} holds nothing but {} tensors: give that of the whole model", what,
                     predictions != 0 ? kPredictionKind : model.skipped.begin()->first);
}

Status readSourceModel(const std::string& path, SourceModel& out) {
  std::error_code error;
  return fs::is_directory(path, error) ? readDirectory(path, out) : readFile(path, out);
}

}  // namespace kel::convert
