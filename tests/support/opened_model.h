// A random model written to a temporary file, opened and bound.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "container/zym_loader.h"
#include "qwen35/aligned_vectors.h"
#include "qwen35/forward.h"
#include "qwen35/model.h"
#include "qwen35/run_check.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace kel::test {

struct ModelFile {
  explicit ModelFile(const RandomModelSpec& spec = {})
      : path(folder.file("model.zym")), layers(static_cast<uint32_t>(spec.blocks)) {
    if (const kel::Status status = writeRandomModel(path, spec); !status.ok()) {
      throw std::runtime_error(status.message);
    }
  }

  TempDir folder;
  std::string path;
  uint32_t layers;
};

// One more handle on a model file.
struct Handle {
  // For what is the same of every layer, a few of them will do.
  explicit Handle(const ModelFile& file, size_t maxCtx = 64)
      : Handle(file.path, maxCtx, file.layers) {}

  explicit Handle(const std::string& path, size_t maxCtx = 64,
                  uint32_t layers = kel::kFixedShape.layers) {
    model.shape.layers = layers;
    if (!loader.open(path.c_str()).ok() || !qwen35::initLayers(loader, model, maxCtx) ||
        !qwen35::bindModel(loader, model, maxCtx)) {
      throw std::runtime_error("model does not open");
    }
    if (const std::string fault = qwen35::findUnfitTensor(loader, model); !fault.empty()) {
      throw std::runtime_error(fault);
    }
    qwen35::alignVectors(model);
  }

  // Feeds one token at the next position; returns its logits.
  std::vector<float> logits(size_t token) {
    std::vector<float> result(model.nVocab);
    qwen35::forwardToken(model, embedding(token).data(), position++, result.data());
    return result;
  }

  // The same; returns the final hidden state.
  std::vector<float> hidden(size_t token) {
    std::vector<float> result(model.nEmbd);
    qwen35::forwardTokenHidden(model, embedding(token).data(), position++, result.data());
    return result;
  }

  // Feeds tokens at the next positions in one pass; returns their final hidden states,
  // [count][nEmbd]. logits, when not null, receives [count][nVocab].
  std::vector<float> pass(const std::vector<size_t>& tokens, qwen35::Arithmetic arithmetic,
                          std::vector<float>* logits = nullptr,
                          const qwen35::ContextOptions& options = {},
                          qwen35::Snapshot* before = nullptr) {
    qwen35::ContextOptions sized = options;
    sized.maxTokens = tokens.size();
    qwen35::Context context(model, sized);
    return passIn(context, tokens, arithmetic, logits, before);
  }

  // The same in a context of the caller.
  std::vector<float> passIn(qwen35::Context& context, const std::vector<size_t>& tokens,
                            qwen35::Arithmetic arithmetic, std::vector<float>* logits = nullptr,
                            qwen35::Snapshot* before = nullptr) {
    std::vector<float> embeddings;
    for (const size_t token : tokens) {
      const std::vector<float> row = embedding(token);
      embeddings.insert(embeddings.end(), row.begin(), row.end());
    }
    std::vector<float> hidden(embeddings.size());
    if (logits != nullptr) {
      logits->assign(tokens.size() * model.nVocab, 0.0f);
    }
    forward(context, model,
            {.embeddings = embeddings.data(),
             .count = tokens.size(),
             .pos = position,
             .arithmetic = arithmetic,
             .hidden = hidden.data(),
             .logits = logits == nullptr ? nullptr : logits->data(),
             .before = before,
             .allLogits = true});
    position += tokens.size();
    return hidden;
  }

  void reset() {
    qwen35::resetModel(model);
    position = 0;
  }

  kel::ZYMLoader loader;
  qwen35::Model model;
  size_t position = 0;

 private:
  std::vector<float> embedding(size_t token) {
    std::vector<float> row(model.nEmbd);
    qwen35::embedRow(model, token, row.data());
    return row;
  }
};

}  // namespace kel::test
