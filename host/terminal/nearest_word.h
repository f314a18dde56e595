// Which of several words a mistyped one was meant to be.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zym {

// Letters to insert, drop, replace or swap with their neighbour to turn one word into the other; no
// letter takes part twice. Of the bytes of both.
size_t editDistance(std::string_view a, std::string_view b);

// The known word that is nearest to the typed one, the first of several; empty when none is near. A
// word that begins the other counts as a single mistake, capitals as none.
std::string nearestWord(std::string_view typed, const std::vector<std::string>& known);

}  // namespace zym
