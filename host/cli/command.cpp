#include "host/cli/command.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <optional>

namespace zym {

Option::Option(CLI::Option* given) : option(given) {}

Option Option::typeName(const std::string& name) const {
  option->type_name(name);
  return *this;
}

Option Option::showDefault() const {
  option->capture_default_str();
  return *this;
}

Option Option::required() const {
  option->required();
  return *this;
}

Option Option::range(int64_t least, int64_t most) const {
  option->check(CLI::Range(least, most));
  return *this;
}

Option Option::oneOf(const std::vector<std::string>& words) const {
  option->transform(CLI::IsMember(words, CLI::ignore_case));
  return *this;
}

Option Option::check(const std::function<std::string(const std::string&)>& fault) const {
  option->check(fault);
  return *this;
}

Option Option::repeatable() const {
  option->trigger_on_parse();
  return *this;
}

Option Option::needs(const Option& other) const {
  option->needs(other.option);
  return *this;
}

Option Option::excludes(const Option& other) const {
  option->excludes(other.option);
  return *this;
}

size_t Option::count() const {
  return option->count();
}

Command::Command(CLI::App& given) : app(&given) {}

Command Command::addCommand(const std::string& name, const std::string& help) const {
  return Command(*app->add_subcommand(name, help));
}

Command Command::addGroup(const std::string& name, const std::string& help) const {
  const Command group = addCommand(name, help);
  group.app->require_subcommand(1);
  return group;
}

template <typename T>
Option Command::addOption(const std::string& names, T& value, const std::string& help) const {
  return Option(app->add_option(names, value, help));
}

template Option Command::addOption(const std::string&, std::string&, const std::string&) const;
template Option Command::addOption(const std::string&, std::vector<std::string>&,
                                   const std::string&) const;
template Option Command::addOption(const std::string&, int&, const std::string&) const;
template Option Command::addOption(const std::string&, unsigned&, const std::string&) const;
template Option Command::addOption(const std::string&, uint16_t&, const std::string&) const;
template Option Command::addOption(const std::string&, uint64_t&, const std::string&) const;
template Option Command::addOption(const std::string&, std::optional<unsigned>&,
                                   const std::string&) const;

template <typename T>
Option Command::addOptionFunction(const std::string& names,
                                  const std::function<void(const T&)>& take,
                                  const std::string& help) const {
  return Option(app->add_option_function<T>(names, take, help));
}

template Option Command::addOptionFunction(const std::string&,
                                           const std::function<void(const std::string&)>&,
                                           const std::string&) const;
template Option Command::addOptionFunction(const std::string&,
                                           const std::function<void(const int&)>&,
                                           const std::string&) const;
template Option Command::addOptionFunction(const std::string&,
                                           const std::function<void(const unsigned&)>&,
                                           const std::string&) const;

Option Command::addFlag(const std::string& names, bool& value, const std::string& help) const {
  return Option(app->add_flag(names, value, help));
}

Option Command::addFlagFunction(const std::string& names, const std::function<void()>& take,
                                const std::string& help) const {
  return Option(app->add_flag_callback(names, take, help));
}

void Command::setFooter(const std::string& text) const {
  app->footer(text);
}

void Command::onCall(const std::function<void()>& call) const {
  app->callback(call);
}

void refuseUse(const std::string& fault) {
  throw CLI::ValidationError(fault);
}

void askFor(const std::string& missing) {
  throw CLI::RequiredError(missing);
}

}  // namespace zym
