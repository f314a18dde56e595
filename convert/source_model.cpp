#include "convert/source_model.h"

#include <cstring>
#include <filesystem>
#include <string_view>

#include "convert/errors.h"
#include "convert/gguf_model.h"
#include "convert/gguf_reader.h"
#include "convert/hf_directory.h"

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
    if (path.ends_with(".safetensors")) {
      return unsupported("{} is one file of a checkpoint: give the directory that holds it", path);
    }
    return malformed("{} is neither a GGUF file nor a directory with a config.json", path);
  }
  GgufFile structure;
  status = structure.parse(file.data(), file.size());
  if (status.ok()) {
    status = readGgufModel(structure, out);
  }
  if (!status.ok()) {
    return status;
  }
  out.fileNames.push_back(fs::path(path).filename().string());
  if (out.name.empty()) {
    out.name = fs::path(path).stem().string();
  }
  out.files.push_back(std::move(file));
  return status;
}

Status readDirectory(const std::string& path, SourceModel& out) {
  std::error_code error;
  const fs::path folder = fs::canonical(path, error);
  if (error) {
    return ioFailure("cannot read {}: {}", path, error.message());
  }
  if (!fs::exists(folder / "config.json", error)) {
    return malformed("{} is a directory without a config.json", path);
  }
  out.name = folder.filename().string();
  return readHfDirectory(folder.string(), out);
}

}  // namespace

Status readSourceModel(const std::string& path, SourceModel& out) {
  std::error_code error;
  return fs::is_directory(path, error) ? readDirectory(path, out) : readFile(path, out);
}

}  // namespace kel::convert
