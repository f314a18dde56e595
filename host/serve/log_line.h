// What callers say, as a log may show it to people at a terminal.
#pragma once

#include <string>
#include <string_view>

namespace zym {

// A question mark stands for every character that ends the line, controls the terminal or has what
// follows drawn in another order, and for every byte that belongs to no character.
std::string onOneLine(std::string_view text);

}  // namespace zym
