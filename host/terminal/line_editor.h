// Lines that are edited at a terminal: the line editor's library (libedit) keeps the line, its keys
// and the history, and what is seen of it is drawn by line_view.h on standard error, since the
// library misplaces wide characters and drops combining ones.
//
// A text that is pasted becomes part of the line with its line feeds; Enter ends the line.
#pragma once

#include <filesystem>
#include <memory>

#include "host/terminal/line_reader.h"

namespace zym {

// Whether the terminal can move its cursor, by its type in the environment.
bool terminalCanEdit();
std::unique_ptr<LineReader> openLineEditor(const std::filesystem::path& historyFile);

}  // namespace zym
