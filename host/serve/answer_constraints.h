// The forms that answers can be held to, as the engine's grammars.
#pragma once

#include <functional>

#include "container/status.h"
#include "engine/model.h"
#include "host/serve/api_services.h"

namespace zym {

// For ApiServices::constrain; holds what all requests to the model have in common. Any thread.
std::function<kel::Status(const ConstraintRequest& request, ConstraintMaker& out)>
answerConstraints(const engine::Model& model);

}  // namespace zym
