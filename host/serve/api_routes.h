// The interfaces of `zym serve`: which answers what.
#pragma once

#include "host/serve/api_services.h"
#include "host/serve/http_routes.h"

namespace zym {

// Adds the paths of all interfaces. Answers that are under way hold on to what they need.
void addApi(ApiServices services, HttpRoutes& routes);

}  // namespace zym
