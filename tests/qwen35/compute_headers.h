// What the tests of the arithmetic's rules see of the computation: its public functions.
#pragma once

#include "qwen35/elementwise.h"       // IWYU pragma: export
#include "qwen35/forward.h"           // IWYU pragma: export
#include "qwen35/full_attention.h"    // IWYU pragma: export
#include "qwen35/linear_attention.h"  // IWYU pragma: export
#include "qwen35/model.h"             // IWYU pragma: export
#include "qwen35/products.h"          // IWYU pragma: export
