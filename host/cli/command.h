// The command line as the commands declare it. What reads it is the command line library, whose
// header costs a source ten seconds of compilation: of these, command.cpp alone includes it.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace zym {

// An option of a command, which the command owns: a copy is the same option. Each of what follows
// returns it, for the next.
class Option {
 public:
  explicit Option(CLI::Option* given);

  // How the help names the value; empty: not at all.
  Option typeName(const std::string& name) const;
  // The help tells the value that is set at this moment.
  Option showDefault() const;
  Option required() const;
  Option range(int64_t least, int64_t most) const;
  // The value is one of words, in any case, and becomes that.
  Option oneOf(const std::vector<std::string>& words) const;
  // fault returns what is wrong with a value, as a message; empty: nothing.
  Option check(const std::function<std::string(const std::string&)>& fault) const;
  // May be given several times; what takes the value is called for each, as soon as it is read.
  Option repeatable() const;
  Option needs(const Option& other) const;
  Option excludes(const Option& other) const;

  // How many values the command line has for it.
  size_t count() const;

 private:
  CLI::Option* option;  // never null
};

// A command, or the program itself; a copy is the same command. names: "-f,--file" is an option,
// "MODEL" a word that stands by itself.
class Command {
 public:
  explicit Command(CLI::App& given);

  Command addCommand(const std::string& name, const std::string& help) const;
  // One that is always followed by a command of its own.
  Command addGroup(const std::string& name, const std::string& help) const;

  // value is written while the command line is read and lives until then. Of a string, a list of
  // them, or a number: int, unsigned, uint16_t, uint64_t, std::optional<unsigned>.
  template <typename T>
  Option addOption(const std::string& names, T& value, const std::string& help) const;
  // take is called with the value: a std::string, an int or an unsigned.
  template <typename T>
  Option addOptionFunction(const std::string& names, const std::function<void(const T&)>& take,
                           const std::string& help) const;
  Option addFlag(const std::string& names, bool& value, const std::string& help) const;
  Option addFlagFunction(const std::string& names, const std::function<void()>& take,
                         const std::string& help) const;

  // Below the help.
  void setFooter(const std::string& text) const;
  // What happens when the command is the one that was called, after all of the line has been read.
  void onCall(const std::function<void()>& call) const;

  CLI::App& parsed() const { return *app; }

 private:
  CLI::App* app;  // never null
};

// What a function of the above ends with where the command line is wrong: a fault of a value, or
// something that is missing.
[[noreturn]] void refuseUse(const std::string& fault);
[[noreturn]] void askFor(const std::string& missing);

}  // namespace zym
