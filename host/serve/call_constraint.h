// Replies that may call tools, but not in every way.
#pragma once

#include "host/serve/api_services.h"
#include "host/serve/served_model.h"

namespace zym {

// The answer begins with a call, or is of the form (null: any); line feeds that the form allows may
// stand in front of both. Without allowsSeveral it ends behind the first call.
ConstraintMaker callConstraint(const ServedModel& served, bool allowsSeveral, ConstraintMaker form);

}  // namespace zym
