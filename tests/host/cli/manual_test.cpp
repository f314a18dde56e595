// The manual page and docs/zym.md against the options that the program really takes.
#include <gtest/gtest.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "host/cli/commands.h"
#include "tests/support/file_contents.h"
#include "tests/support/patterns.h"

namespace zym {
namespace {

using kel::test::contentsOf;

// The manual page with its dashes as they are printed.
std::string manualPage() {
  std::string text = contentsOf(ZYM_MANUAL_PAGE);
  text.erase(std::remove(text.begin(), text.end(), '\\'), text.end());
  return text;
}

// From the first line that begins with `heading` to the next that begins with `end`.
std::string partOf(const std::string& text, const std::string& heading, const std::string& end) {
  const size_t at = text.find("\n" + heading);
  return at == std::string::npos ? "" : text.substr(at, text.find("\n" + end, at + 1) - at);
}

// Whole words that are options: "-f" is not part of "--file".
std::set<std::string> optionsIn(const std::string& text) {
  const std::string option = "(^|[^-A-Za-z0-9_<.])(--[a-z][a-z-]*[a-z]|-[a-z])(?![-a-z])";
  std::set<std::string> found;
  for (const auto& match : kel::test::matchesIn(text, option)) {
    found.insert(match[2]);
  }
  return found;
}

std::vector<std::string> namesOf(const CLI::Option& option) {
  std::vector<std::string> names;
  for (const std::string& name : option.get_lnames()) {
    names.push_back("--" + name);
  }
  for (const std::string& name : option.get_snames()) {
    names.push_back("-" + name);
  }
  return names;
}

class ManualTest : public testing::Test {
 protected:
  ManualTest() {
    addCommands(program, action);
    remember(program);
  }

  static void expectOwnOptions(const CLI::App& command, const std::string& text) {
    const std::set<std::string> told = optionsIn(text);
    for (const CLI::Option* option : command.get_options()) {
      const std::vector<std::string> names = namesOf(*option);
      EXPECT_TRUE(names.empty() || std::any_of(names.begin(), names.end(),
                                               [&](const auto& name) { return told.count(name); }))
          << command.get_name() << " " << names.back();
    }
  }

  static void expectOptions(const CLI::App& command, const std::string& text) {
    expectOwnOptions(command, text);
    // The commands of a command are told of in its own part.
    for (const CLI::App* inner : command.get_subcommands(nullptr)) {
      EXPECT_NE(text.find(inner->get_name()), std::string::npos) << inner->get_name();
      expectOptions(*inner, text);
    }
  }

  void expectNoOthers(const std::string& text) const {
    for (const std::string& name : optionsIn(text)) {
      EXPECT_TRUE(known.count(name)) << name;
    }
  }

  CLI::App program{"", "zym"};
  std::set<std::string> known;

 private:
  void remember(const CLI::App& command) {
    for (const CLI::Option* option : command.get_options()) {
      for (const std::string& name : namesOf(*option)) {
        known.insert(name);
      }
    }
    for (const CLI::App* inner : command.get_subcommands(nullptr)) {
      remember(*inner);
    }
  }

  Action action;
};

TEST_F(ManualTest, ThePageTellsOfEveryOptionWhereItIsLookedFor) {
  const std::string page = manualPage();
  const std::string shared = partOf(page, ".SH OPTIONS", ".SH");
  expectOwnOptions(program, shared);
  for (const CLI::App* command : program.get_subcommands(nullptr)) {
    const std::string own = partOf(page, ".B " + command->get_name() + " ", ".TP");
    EXPECT_NE(own, "") << command->get_name();
    expectOptions(*command, own + shared);
  }
}

TEST_F(ManualTest, ThePageTellsOfNoOthers) {
  expectNoOthers(manualPage());
}

TEST_F(ManualTest, TheDocumentTellsOfEveryCommandAndOption) {
  const std::string text = contentsOf(ZYM_PROGRAM_DOCUMENT);
  expectOwnOptions(program, text);
  for (const CLI::App* command : program.get_subcommands(nullptr)) {
    EXPECT_NE(text.find("| `zym " + command->get_name() + " "), std::string::npos)
        << command->get_name();
    expectOptions(*command, text);
  }
}

TEST_F(ManualTest, TheDocumentTellsOfNoOthers) {
  expectNoOthers(contentsOf(ZYM_PROGRAM_DOCUMENT));
}

}  // namespace
}  // namespace zym
