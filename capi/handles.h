// What stands behind the handles of zym/engine.h.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capi/border.h"
#include "engine/context.h"
#include "engine/model.h"
#include "engine/text_decoder.h"
#include "zym/engine.h"

struct ZYMModel {
  std::shared_ptr<const engine::Model> model;
  // Texts of the facts.
  std::string name;
  std::string templateRemark;
};

struct ZYMContext {
  std::unique_ptr<engine::Context> context;
  std::string note;  // of the file that was loaded last
  std::atomic<bool> inUse = false;
  // As the engine reads it: by atomic loads of a plain number.
  volatile int cancelled = 0;
};

struct ZYMDecoder {
  ZYMDecoder(std::shared_ptr<const engine::Model> shared, engine::TextDecoder::Specials specials)
      : model(std::move(shared)), decoder(model->tokenizer(), specials) {}

  std::shared_ptr<const engine::Model> model;
  engine::TextDecoder decoder;
  std::string text;  // given out last
};

namespace capi {

// The context, for one call at a time.
class InUse {
 public:
  explicit InUse(ZYMContext* given) : handle(required(given, "context")) {
    if (handle.inUse.exchange(true, std::memory_order_acquire)) {
      throw Failure(ZYM_ERROR_BUSY, "the context is in use by another call");
    }
  }
  ~InUse() { handle.inUse.store(false, std::memory_order_release); }
  InUse(const InUse&) = delete;
  InUse& operator=(const InUse&) = delete;

  engine::Context& context() const { return *handle.context; }

  ZYMContext& handle;
};

}  // namespace capi
