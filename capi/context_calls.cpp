// Contexts, but for the replies in them.
#include <memory>
#include <string>

#include "capi/border.h"
#include "capi/handles.h"
#include "capi/records.h"
#include "engine/context.h"

ZYMStatus zym_context_create(const ZYMModel* model, const ZYMContextOptions* options,
                             ZYMContext** context, char* error, size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    ZYMContext*& out = capi::required(context, "context");
    out = nullptr;
    const std::shared_ptr<const engine::Model>& shared = capi::required(model, "model").model;
    auto made = std::make_unique<ZYMContext>();
    capi::check(engine::Context::create(shared, capi::readContextOptions(options), made->context),
                capi::Work::Arguments);
    out = made.release();
  });
}

ZYMStatus zym_context_destroy(ZYMContext* context) {
  if (context == nullptr) {
    return ZYM_OK;
  }
  if (context->inUse.exchange(true, std::memory_order_acquire)) {
    return ZYM_ERROR_BUSY;
  }
  delete context;
  return ZYM_OK;
}

ZYMStatus zym_context_statistics(ZYMContext* context, ZYMStatistics* statistics) {
  return capi::guarded({}, [&] {
    const capi::InUse used(context);
    const engine::ContextStatistics& counted = used.context().statistics();
    ZYMStatistics values{};
    values.positions = used.context().capacity();
    values.filled = used.context().position();
    values.promptTokens = counted.promptTokens;
    values.generatedTokens = counted.generatedTokens;
    values.reusedTokens = counted.reusedTokens;
    values.rejectedGuesses = counted.rejectedGuesses;
    values.promptSeconds = counted.promptSeconds;
    values.generatedSeconds = counted.generatedSeconds;
    capi::writeRecord(values, statistics, "statistics");
  });
}

ZYMStatus zym_context_reset(ZYMContext* context) {
  return capi::guarded({}, [&] { capi::InUse(context).context().reset(); });
}

ZYMStatus zym_context_save(ZYMContext* context, const char* path, ZYMText note, char* error,
                           size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    const capi::InUse used(context);
    capi::required(path, "path");
    capi::check(used.context().save(path, capi::bytesOf(note, "note")), capi::Work::WrittenFile);
  });
}

ZYMStatus zym_context_load(ZYMContext* context, const char* path, ZYMText* note, char* error,
                           size_t errorBytes) {
  return capi::guarded({error, errorBytes}, [&] {
    const capi::InUse used(context);
    capi::required(path, "path");
    std::string found;
    capi::check(used.context().load(path, found), capi::Work::ReadFile);
    used.handle.note = std::move(found);
    if (note != nullptr) {
      *note = capi::textOut(used.handle.note);
    }
  });
}

ZYMStatus zym_context_cancel(ZYMContext* context) {
  if (context == nullptr) {
    return ZYM_ERROR_ARGUMENT;
  }
  __atomic_store_n(&context->cancelled, 1, __ATOMIC_RELAXED);
  return ZYM_OK;
}
