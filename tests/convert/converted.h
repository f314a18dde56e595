// Runs a conversion and opens what came out.
#pragma once

#include <map>
#include <stdexcept>
#include <string>

#include "container/zym_loader.h"
#include "convert/convert.h"
#include "tests/support/temp_dir.h"

namespace kel::test {

inline convert::ConvertResult convertTo(const std::string& source, const std::string& target,
                                        const convert::StorageChoice& storage = {},
                                        unsigned threads = 2) {
  convert::ConvertOptions options;
  options.source = source;
  options.target = target;
  options.storage = storage;
  options.threads = threads;
  convert::ProgressSink quiet;
  return convert::convertModel(options, quiet);
}

// The message of a conversion that is refused before anything is written; empty when it succeeds.
inline std::string refusal(const std::string& source) {
  const TempDir folder;
  const std::string target = folder.file("refused.zym");
  const convert::ConvertResult result = convertTo(source, target);
  if (!std::filesystem::is_empty(folder.path())) {
    throw std::runtime_error("something was written");
  }
  return result.status.message;
}

struct Converted {
  Converted(const std::string& source, const convert::StorageChoice& storage = {})
      : path(folder.file("model.zym")), result(convertTo(source, path, storage)) {
    if (!result.status.ok()) {
      throw std::runtime_error(result.status.message);
    }
    const Status status = loader.open(path.c_str());
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
  }

  const TensorView& tensor(const std::string& name) const {
    const TensorView* view = loader.findTensor(name);
    if (view == nullptr) {
      throw std::runtime_error("no tensor " + name);
    }
    return *view;
  }
  Bytes bytes(const std::string& name) const {
    const TensorView& view = tensor(name);
    const auto* data = static_cast<const uint8_t*>(view.data);
    return {data, data + view.byteSize};
  }

  TempDir folder;
  std::string path;
  convert::ConvertResult result;
  ZYMLoader loader;
};

}  // namespace kel::test
