// Models: opening, facts, recommended settings.
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <memory>

#include "capi/border.h"
#include "capi/handles.h"
#include "capi/records.h"
#include "engine/chat_template.h"
#include "engine/chat_tokens.h"
#include "engine/recommended_sampling.h"

namespace {

using capi::Failure;

engine::SamplingMode samplingMode(int32_t mode) {
  switch (mode) {
    case ZYM_SAMPLING_THINKING:
      return engine::SamplingMode::Thinking;
    case ZYM_SAMPLING_PRECISE_CODING:
      return engine::SamplingMode::PreciseCoding;
    case ZYM_SAMPLING_WITHOUT_THINKING:
      return engine::SamplingMode::WithoutThinking;
    default:
      throw Failure(ZYM_ERROR_ARGUMENT, "unknown sampling mode");
  }
}

ZYMModelFacts factsOf(const ZYMModel& handle) {
  const engine::Model& model = *handle.model;
  ZYMModelFacts facts{};
  facts.layers = model.shape().layers;
  facts.vocabulary = model.sizes().vocab;
  facts.positions = model.shape().contextLength;
  facts.hiddenSize = model.sizes().hidden;
  facts.canThink = engine::canThink(model) ? 1 : 0;
  facts.thinks = engine::thinksByDefault(model) ? 1 : 0;
  facts.beginToken = model.tokenizer().bosId;
  facts.endToken = model.tokenizer().eosId;
  facts.path = capi::textOut(model.path());
  facts.name = capi::textOut(handle.name);
  facts.templateRemark = capi::textOut(handle.templateRemark);
  return facts;
}

}  // namespace

ZYMStatus zym_model_open(const char* path, ZYMModel** model, char* error, size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    ZYMModel*& out = capi::required(model, "model");
    out = nullptr;
    capi::required(path, "path");
    // The loader tells all failures alike.
    if (::access(path, R_OK) != 0) {
      throw Failure(ZYM_ERROR_FILE, std::strerror(errno));
    }
    auto opened = std::make_unique<ZYMModel>();
    capi::check(engine::Model::open(path, opened->model), capi::Work::OpenedModel);
    const kel::ZYM2Reader& file = opened->model->file().reader;
    file.getMetaStr("general.name", opened->name);
    if (engine::chatStyleOf(*opened->model) == engine::ChatStyle::Family) {
      opened->templateRemark = engine::chatTemplateRemark(file);
    }
    out = opened.release();
  });
}

void zym_model_close(ZYMModel* model) {
  delete model;
}

ZYMStatus zym_model_facts(const ZYMModel* model, ZYMModelFacts* facts) {
  return capi::guarded(
      {}, [&] { capi::writeRecord(factsOf(capi::required(model, "model")), facts, "facts"); });
}

ZYMStatus zym_model_recommended_sampling(const ZYMModel* model, int32_t mode,
                                         ZYMSampling* sampling) {
  return capi::guarded({}, [&] {
    const kel::ZYM2Reader& file = capi::required(model, "model").model->file().reader;
    capi::writeRecord(capi::samplingOut(engine::recommendedSampling(samplingMode(mode), file)),
                      sampling, "sampling");
  });
}
