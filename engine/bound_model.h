// An open model as the forward pass takes it: its weights, with caches and state of their own.
#pragma once

#include <cstdint>

#include "container/status.h"
#include "engine/model.h"
#include "qwen35/model.h"

namespace engine {

// Positions of a context where nobody says how many, and the model has room for as many.
constexpr uint64_t kDefaultPositions = 32768;

// From what is asked for, of which 0 leaves the choice. Refuses more than the model has room for.
kel::Status choosePositions(const Model& model, uint64_t& positions);

// Memory is taken as positions are filled. The model is to outlive what is bound to it. Throws
// std::bad_alloc.
qwen35::Model boundModel(const Model& model, uint64_t positions, qwen35::CacheType cacheType);

}  // namespace engine
