// What shells complete behind `zym`, against what the program's help and messages say that it
// takes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/e2e/process.h"
#include "tests/support/patterns.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using testing_support::Outcome;
using testing_support::runProcess;
using Words = std::set<std::string>;

std::string outputOf(std::vector<std::string> words) {
  words.insert(words.begin(), ZYM_PROGRAM);
  const Outcome outcome = runProcess(words);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  return outcome.out;
}

// What the pattern's group finds.
Words wordsIn(const std::string& text, const std::string& pattern) {
  Words found;
  for (const auto& match : kel::test::matchesIn(text, pattern)) {
    found.insert(match[1]);
  }
  return found;
}

// Of the help's list, where lines begin with "  -h,--help".
Words longOptionsOf(const std::vector<std::string>& command) {
  std::vector<std::string> words = command;
  words.emplace_back("--help");
  return wordsIn(outputOf(words), "\n  (?:-[a-z],)?(--[a-z-]+)");
}

// Of a command, or of the program's own.
Words allOptionsOf(const std::string& command) {
  Words options = longOptionsOf({command});
  options.merge(longOptionsOf({}));
  return options;
}

Words commands() {
  std::string help = outputOf({"--help"});
  help.erase(0, help.find("\nSubcommands:"));
  help.resize(help.find("\n\n"));  // examples follow
  return wordsIn(help, "\n  ([a-z]+) ");
}

// The words that the program names when an option gets another one.
Words choicesOf(const std::string& option) {
  const Outcome refused = runProcess({ZYM_PROGRAM, "convert", "a", "b", option, "?"});
  const std::string list = refused.err.substr(0, refused.err.find(", not "));
  return wordsIn(list, "(?:^|is one of |\\|)([a-z0-9_]+)(?=\\||$)");
}

class CompletionTest : public testing::Test {
 protected:
  // What bash offers for the last of the words, which may be unfinished.
  Words bash(const std::vector<std::string>& words) const {
    const std::string script =
        "cd \"$1\" && source <(\"$2\" completion bash) && shift 2 && COMP_WORDS=(\"$@\") && "
        "COMP_CWORD=$(($# - 1)) && _zym && printf '%s\\n' \"${COMPREPLY[@]}\"";
    std::vector<std::string> line = {"bash", "-c", script, "bash", folder.file(""), ZYM_PROGRAM};
    line.insert(line.end(), words.begin(), words.end());
    const Outcome outcome = runProcess(line);
    EXPECT_EQ(outcome.err, "");
    return wordsIn(outcome.out, "([^\n]+)\n");
  }

  void addFiles() const {
    for (const char* name : {"a.zym", "b.gguf", "c.txt"}) {
      std::ofstream(folder.file(name)) << "-";
    }
    std::filesystem::create_directory(folder.file("checkpoint"));
  }

  kel::test::TempDir folder;
};

TEST_F(CompletionTest, BashOffersEveryCommandAndOption) {
  EXPECT_EQ(bash({"zym", ""}), commands());
  EXPECT_EQ(bash({"zym", "che"}), Words({"check"}));
  EXPECT_EQ(bash({"zym", "--"}), longOptionsOf({}));
  for (const std::string& command : commands()) {
    EXPECT_EQ(bash({"zym", "--threads", "2", command, "x", "--"}), allOptionsOf(command))
        << command;
  }
}

TEST_F(CompletionTest, BashOffersTheWordsThatAnOptionTakes) {
  for (const char* option : {"--type", "--embedding-type", "--preset", "--vocab"}) {
    const Words choices = choicesOf(option);
    EXPECT_GE(choices.size(), 2U) << option;
    EXPECT_EQ(bash({"zym", "convert", option, ""}), choices) << option;
    EXPECT_EQ(bash({"zym", "convert", option, "="}), choices) << option;
    EXPECT_EQ(bash({"zym", "convert", option, "=", ""}), choices) << option;
  }
  EXPECT_EQ(bash({"zym", "completion", ""}), Words({"bash", "fish", "zsh"}));
  EXPECT_EQ(bash({"zym", "run", "-p", ""}), Words());
}

TEST_F(CompletionTest, BashOffersModelsAndFoldersWhereAModelStands) {
  addFiles();
  const Words models = {"a.zym", "b.gguf", "checkpoint"};
  for (const char* command : {"chat", "run", "bench", "info", "check", "tokenize", "convert"}) {
    EXPECT_EQ(bash({"zym", command, ""}), models) << command;
  }
  EXPECT_EQ(bash({"zym", "run", "a.zym", "-f", "c"}), Words({"c.txt", "checkpoint"}));
  EXPECT_EQ(bash({"zym", "perplexity", "a.zym", "--reference", ""}), models);
  EXPECT_EQ(bash({"zym", "perplexity", "a.zym", "c"}), Words({"c.txt", "checkpoint"}));
}

TEST_F(CompletionTest, FishKnowsEveryCommandAndOption) {
  const std::string script = outputOf({"completion", "fish"});
  EXPECT_EQ(wordsIn(script, "'__fish_use_subcommand' -a ([a-z]+) "), commands());
  const Words shared = wordsIn(script, "zym(?: -s [a-z])? -l ([a-z-]+)");
  for (const std::string& command : commands()) {
    Words offered = wordsIn(script, "from " + command + "'(?: -s [a-z])? -l ([a-z-]+)");
    offered.insert(shared.begin(), shared.end());
    Words options;
    for (const std::string& option : allOptionsOf(command)) {
      options.insert(option.substr(2));
    }
    EXPECT_EQ(offered, options) << command;
  }
}

TEST_F(CompletionTest, ZshKnowsEveryCommandAndOption) {
  const std::string script = outputOf({"completion", "zsh"});
  EXPECT_EQ(wordsIn(script, "\n        '([a-z]+):"), commands());
  for (const std::string& command : commands()) {
    const size_t begin = script.find("\n        " + command + ")\n");
    ASSERT_NE(begin, std::string::npos) << command;
    const std::string own = script.substr(begin, script.find(";;", begin) - begin);
    EXPECT_EQ(wordsIn(own, "[)*](--[a-z-]+)=?\\["), allOptionsOf(command)) << command;
  }
}

// Where the shells are installed: that they understand what they are given.
TEST_F(CompletionTest, ZshAndFishReadTheirScripts) {
  for (const char* shell : {"zsh", "fish"}) {
    if (runProcess({"sh", "-c", std::string("command -v ") + shell}).status != 0) {
      continue;
    }
    const std::string path = folder.file(shell);
    std::ofstream(path) << outputOf({"completion", shell});
    const Outcome outcome = runProcess({shell, "-n", path});
    EXPECT_EQ(outcome.status, 0) << shell;
    EXPECT_EQ(outcome.err, "") << shell;
  }
}

TEST_F(CompletionTest, AnotherShellIsWrongUse) {
  const Outcome outcome = runProcess({ZYM_PROGRAM, "completion", "tcsh"});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "zym: SHELL: \"tcsh\" is no shell that it knows: bash, fish or zsh; see zym completion "
            "--help\n");
}

}  // namespace
}  // namespace zym
