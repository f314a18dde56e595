// A model of any size of the family, opened once: its weights where they lie in the file, its
// shape, its tokenizer. Conversations are contexts over it (engine/context.h) and share all of
// this.
//
//   std::shared_ptr<const Model> model;
//   kel::Status status = Model::open("model.zym", model);
//   std::unique_ptr<Context> context;
//   if (status.ok()) status = Context::create(model, {}, context);
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "container/model_shape.h"
#include "container/model_tensors.h"
#include "container/status.h"
#include "container/zym_loader.h"
#include "engine/text_encoder.h"
#include "tokenizer/tokenizer.h"

namespace engine {

// Immutable once open: any number of threads and contexts.
class Model {
 public:
  // Opens a container. Its shape is what its metadata state, or the fixed one where they state
  // none; a file whose tensors, metadata or vocabulary do not make up a model of that shape is
  // refused with a message that names what is wrong: InvalidFormat for a damaged file, Unsupported
  // for another architecture, IoError when the system refuses or memory runs out. Reads no weight.
  static kel::Status open(const std::string& path, std::shared_ptr<const Model>& out);

  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  const std::string& path() const { return filePath; }
  const kel::ModelShape& shape() const { return modelShape; }
  const kel::ModelSizes& sizes() const { return modelSizes; }
  const kel::Tokenizer& tokenizer() const { return textTokenizer; }
  const TextEncoder& textEncoder() const { return *encoder; }

  // The file: metadata and tensor records. Its tokenizer tables have moved to tokenizer().
  const kel::ZYMLoader& file() const { return loader; }

 private:
  Model() = default;
  kel::Status openSteps(const std::string& path);

  std::string filePath;
  kel::ZYMLoader loader;
  kel::ModelShape modelShape = kel::kFixedShape;
  kel::ModelSizes modelSizes;
  kel::Tokenizer textTokenizer;
  std::optional<TextEncoder> encoder;
};

}  // namespace engine
