// The backend of the program's own engine: models of every size, the family's own chat format,
// replies as long as the context, prompts that can be watched and stopped.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "container/status.h"
#include "engine/context.h"
#include "host/chat/backend.h"
#include "host/chat/engine.h"

namespace zym {

// By the word of --cache: "bf16", or "f32".
qwen35::CacheType cacheTypeOf(std::string_view name);

// Opens the container at path. Messages name it and say what to do.
kel::Status openModel(const std::string& path, std::shared_ptr<const engine::Model>& model);

// Invalid where the model at path has no room for so many positions.
kel::Status checkPositions(const std::string& path, const engine::Model& model, uint64_t positions);

// A model, and a context over it.
kel::Status openContext(const std::string& modelPath, const engine::ContextOptions& options,
                        std::unique_ptr<engine::Context>& context);

kel::Status openEngineBackend(const EngineOptions& options, std::unique_ptr<Backend>& backend);

}  // namespace zym
