// What the program knows about its standard streams, and how it writes messages.
//
// Results go to standard output, everything else to standard error. Escape codes are written to
// terminals only, and colours only where NO_COLOR is not set.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zym {

bool isTerminal(int fd);
// True when text on this stream may carry styles: a terminal, NO_COLOR unset or empty, TERM not
// "dumb".
bool styleWanted(int fd);
// Columns and rows of the terminal; false, and both as they were, where they are not known.
bool terminalSize(int fd, size_t& columns, size_t& rows);
// 0 where they are not known, as for anything but a terminal.
size_t terminalColumns(int fd);
// text in the terminal's dim style, or as it is.
std::string dimmed(std::string_view text, bool style);

// One line on standard error: "zym: " and text, a line feed in it shown as a space.
void complain(std::string_view text);
// A remark beside the results: one dim line on standard error.
void remark(std::string_view text);

}  // namespace zym
