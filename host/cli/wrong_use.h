// What is wrong with a command line, for people.
#pragma once

#include <string>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace zym {

// One line about the error that parsing has thrown, with what was probably meant, or an example,
// and where to read on. program: as parsing has left it.
std::string wrongUseText(const CLI::App& program, const CLI::ParseError& error);

}  // namespace zym
