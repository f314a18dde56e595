#include "engine/model.h"

#include <new>
#include <utility>
#include <vector>

#include "container/model_fit.h"
#include "container/shape_metadata.h"

namespace engine {

namespace {

using kel::Status;

constexpr const char* kArchitectureKey = "general.architecture";
constexpr const char* kArchitecture = "qwen35";

Status checkArchitecture(const kel::ZYMLoader& loader) {
  std::string architecture;
  loader.reader.getMetaStr(kArchitectureKey, architecture);
  if (architecture == kArchitecture) {
    return Status::success();
  }
  const std::string has = architecture.empty() ? "no architecture" : "\"" + architecture + "\"";
  return {kel::StatusCode::Unsupported,
          "its metadata name " + has + "; models of \"qwen35\" can be run"};
}

Status checkFit(const kel::ZYMLoader& loader, const kel::StatedShape& stated) {
  const std::vector<kel::ModelFault> faults = kel::findModelFaults(loader, stated.shape);
  if (!faults.empty()) {
    return Status::invalid(faults[0].tensor + ": " + faults[0].what);
  }
  const std::vector<std::string> contradictions = kel::findContradictions(loader, stated);
  return contradictions.empty() ? Status::success() : Status::invalid(contradictions[0]);
}

}  // namespace

Status Model::openSteps(const std::string& path) {
  filePath = path;
  Status status = loader.open(path.c_str());
  if (status.ok()) {
    status = checkArchitecture(loader);
  }
  kel::StatedShape stated;
  if (status.ok()) {
    status = kel::readShape(loader.reader, stated);
  }
  if (status.ok()) {
    status = checkFit(loader, stated);
  }
  TextForm form = TextForm::Composed;
  if (status.ok()) {
    status = readTextForm(loader.reader, form);
  }
  if (!status.ok()) {
    return status;
  }
  modelShape = stated.shape;
  const kel::TensorView& embedding =
      *loader.findTensor(kel::tensorName(kel::tensorOf(kel::TensorRole::Embedding)));
  const kel::TensorView& gate =
      *loader.findTensor(kel::tensorName(kel::tensorOf(kel::TensorRole::FfnGate)));
  modelSizes = {embedding.dims[0], gate.dims[1], embedding.dims[1]};
  status = textTokenizer.load(std::move(loader.tokenizer));
  if (status.ok()) {
    encoder.emplace(textTokenizer, form);
  }
  return status;
}

Status Model::open(const std::string& path, std::shared_ptr<const Model>& out) {
  try {
    const std::shared_ptr<Model> model(new Model);
    Status status = model->openSteps(path);
    if (status.ok()) {
      out = model;
    }
    return status;
  } catch (const std::bad_alloc&) {
    return Status::ioError("not enough memory to open the model");
  }
}

}  // namespace engine
