// The backend of the program's own engine: models of every size, the family's own chat format,
// replies as long as the context, prompts that can be watched and stopped.
#pragma once

#include <memory>
#include <string>

#include "container/status.h"
#include "engine/context.h"
#include "host/chat/backend.h"
#include "host/chat/engine.h"

namespace zym {

// Opens the container at modelPath and a context over it. Messages name the path.
kel::Status openContext(const std::string& modelPath, const engine::ContextOptions& options,
                        std::unique_ptr<engine::Context>& context);

kel::Status openEngineBackend(const EngineOptions& options, std::unique_ptr<Backend>& backend);

}  // namespace zym
