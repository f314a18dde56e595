// Token ids as people and programs write them.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "container/status.h"

namespace zym {

// Appends the ids of a text: whole numbers below nTokens, with blanks, tabs, line feeds, commas or
// the brackets of a JSON array between them. The message of a failure names the first bad one; the
// ids before it have been appended.
kel::Status parseTokenIds(std::string_view text, size_t nTokens, std::vector<int32_t>& ids);

}  // namespace zym
