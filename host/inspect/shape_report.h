// The model in a container, in words and as JSON: its shape, where it came from, what became of it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "container/zym_loader.h"

namespace zym {

// A line for each, those without a fact left out. Of metadata that state no shape that can be, the
// fault stands in its place.
std::string modelText(const kel::ZYMLoader& loader);

// Every number of the shape by name; {"fault": ...} alone where there is none.
nlohmann::ordered_json shapeJson(const kel::ZYMLoader& loader);

}  // namespace zym
