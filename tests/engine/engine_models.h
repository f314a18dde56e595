// Random models of any shape, opened by the engine.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "engine/context.h"
#include "engine/model.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace engine::testing_support {

// A model file, and the model.
struct OpenedModel {
  explicit OpenedModel(const kel::test::RandomModelSpec& spec) : path(folder.file("model.zym")) {
    kel::Status status = kel::test::writeRandomModel(path, spec);
    if (status.ok()) {
      status = Model::open(path, model);
    }
    if (!status.ok()) {
      throw std::runtime_error(status.message);
    }
  }

  std::unique_ptr<Context> context(const ContextOptions& options = {.positions = 64}) const {
    std::unique_ptr<Context> made;
    if (const kel::Status status = Context::create(model, options, made); !status.ok()) {
      throw std::runtime_error(status.message);
    }
    return made;
  }

  kel::test::TempDir folder;
  std::string path;
  std::shared_ptr<const Model> model;
};

inline void feed(Context& context, const std::vector<int32_t>& tokens) {
  kel::Status status;
  if (context.feed(promptTokens(tokens), nullptr, nullptr, status) != Context::Fed::All) {
    throw std::runtime_error(status.message);
  }
}

inline std::vector<float> logitsOf(const Context& context) {
  return {context.logits().begin(), context.logits().end()};
}

}  // namespace engine::testing_support
