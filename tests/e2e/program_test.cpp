// The program's two streams and its exit status, command by command.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>

#include "qwen35/processors.h"
#include "qwen35/simd/instruction_sets.h"
#include "tests/e2e/fixture.h"
#include "tests/support/instrumented.h"
#include "tests/support/json_text.h"
#include "tests/support/scoped_env.h"

namespace zym {
namespace {

using kel::test::parseJson;
using Json = nlohmann::json;
using testing_support::Outcome;
using testing_support::writeSmallModel;

class ProgramTest : public testing_support::ProgramTest {
 protected:
  // One line on standard error, nothing on standard output.
  static void expectFault(const Outcome& outcome, int status, const std::string& line) {
    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "zym: " + line + "\n");
  }
  // The program as a shell starts it with redirections.
  static Outcome withStreams(const std::string& words, const std::string& redirections) {
    return testing_support::runProcess(
        {"sh", "-c", std::string(ZYM_PROGRAM) + " " + words + " " + redirections});
  }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(folder / name, std::ios::binary) << bytes;
    return folder / name;
  }
};

TEST_F(ProgramTest, WrongUseExitsWithTwo) {
  expectFault(zym({"run", model, "-p", "a", "--top-k", "0"}), 2,
              "top-k must be a whole number from 1, not \"0\"; see zym run --help");
  expectFault(zym({"--threads", "0", "info", model}), 2,
              "--threads: Value 0 not in range 1 to 1024; see zym --help");
}

TEST_F(ProgramTest, WhatIsMissingIsNamedWithAnExample) {
  EXPECT_EQ(zym({}).status, 2);
  EXPECT_EQ(zym({}).err.rfind("zym: a command is required: chat, run, serve, ", 0), 0U);
  expectFault(zym({"chat"}), 2,
              "MODEL is required, as in: zym chat model.zym; see zym chat --help");
  expectFault(zym({"run", model}), 2,
              "a prompt (-p TEXT, -f FILE or -) is required, as in: "
              "zym run model.zym --chat -p 'Who are you?'; see zym run --help");
}

TEST_F(ProgramTest, UnknownCommandIsNamedWithTheNearestOne) {
  expectFault(zym({"inf", model}), 2, "no command \"inf\" (did you mean info?); see zym --help");
  expectFault(zym({"foo", "--json"}), 2, "no command \"foo\"; see zym --help");
  expectFault(zym({"small.zym"}), 2,
              "no command \"small.zym\" (did you mean zym chat small.zym?); see zym --help");
}

// Whatever else is missing or has become wrong by it.
TEST_F(ProgramTest, UnknownOptionIsNamedWithTheNearestOne) {
  const std::string line = "no option \"--thraeds\" (did you mean --threads?); see zym run --help";
  expectFault(zym({"run", "--thraeds", "2", model, "-p", "a"}), 2, line);
  expectFault(zym({"run", "--thraeds=2"}), 2, line);
  expectFault(zym({"chat", model, "--temp", "0.5"}), 2,
              "no option \"--temp\" (did you mean --temperature?); see zym chat --help");
  expectFault(zym({"info", model, "-jsno"}), 2,
              "no option \"-jsno\" (did you mean --json?); see zym info --help");
  expectFault(zym({"info", model, "--zzzz"}), 2, "no option \"--zzzz\"; see zym info --help");
  expectFault(zym({"--vresion"}), 2,
              "no option \"--vresion\" (did you mean --version?); see zym --help");
}

TEST_F(ProgramTest, HelpAndVersionGoToStandardOutput) {
  const Outcome version = zym({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("zym " ZYM_VERSION "\n", 0), 0U) << version.out;
  for (const char* command : {"chat", "run", "bench", "info", "check", "tokenize", "perplexity",
                              "convert", "cache", "completion"}) {
    const Outcome help = zym({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_EQ(help.err, "") << command;
    EXPECT_NE(help.out.find("Examples:\n  zym "), std::string::npos) << command;
    EXPECT_EQ(help.out.find("TEXT REQUIRED"), std::string::npos) << command;
  }
}

// The message about a name that cannot be had comes from the runtime alone: once.
TEST_F(ProgramTest, VersionTellsWhichKernelsTheRuntimeUses) {
  std::string supported;
  for (const std::string_view name : qwen35::supportedInstructionSets()) {
    supported.append(supported.empty() ? "" : ", ").append(name);
  }
  const std::string best(qwen35::supportedInstructionSets().back());
  for (const auto& [wanted, used] : {std::pair<const char*, std::string>{"scalar", "scalar"},
                                     {best.c_str(), best},
                                     {"abacus", best},
                                     {"", best}}) {
    const kel::test::ScopedEnv environment("ZYM_CPU", wanted);
    const Outcome version = zym({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out,
              "zym " ZYM_VERSION "\nkernels: " + used + " (supported: " + supported + ")\n");
    EXPECT_EQ(version.err, "") << wanted;
  }
}

TEST_F(ProgramTest, MissingFileIsOneClearLine) {
  const std::string missing = folder / "missing.zym";
  const std::string line = missing + ": No such file or directory; check the path";
  expectFault(zym({"chat", missing}), 1, line);
  expectFault(zym({"run", missing, "-p", "a"}), 1, line);
  expectFault(zym({"bench", missing}), 1, line);
  expectFault(zym({"info", missing}), 1, line);
  expectFault(zym({"check", missing}), 1, line);
  expectFault(zym({"tokenize", missing, "a"}), 1, line);
  expectFault(zym({"run", model, "-f", missing}), 1, line);
}

TEST_F(ProgramTest, FolderForAFileIsOneClearLine) {
  const std::string line =
      folder.string() + ": is a folder without a config.json; give a file in it, " + model;
  for (const char* command : {"chat", "bench", "info", "check"})
    expectFault(zym({command, folder}), 1, line);
  expectFault(zym({"run", folder, "-p", "a"}), 1, line);
  expectFault(zym({"tokenize", folder, "a"}), 1, line);
}

TEST_F(ProgramTest, FileThatIsNoContainerIsOneClearLine) {
  const std::string other = write("other.zym", std::string(100, 'x'));
  const std::string line =
      other + ": is no container (ZYM2: bad magic); give a .zym file, which `zym convert` makes";
  expectFault(zym({"chat", other}), 1, line);
  expectFault(zym({"run", other, "-p", "a"}), 1, line);
  expectFault(zym({"info", other}), 1, line);
  expectFault(zym({"tokenize", other, "a"}), 1, line);
  unsetenv("ZYM_PLUGIN");
  expectFault(zym({"chat", other}), 1, line);
  expectFault(zym({"bench", other}), 1, line);
}

TEST_F(ProgramTest, TruncatedContainerIsOneClearLine) {
  const auto whole = std::filesystem::file_size(model);
  std::filesystem::resize_file(model, whole / 2);
  const std::string what = "is cut short: it has " + std::to_string(whole / 2) + " of " +
                           std::to_string(whole) + " bytes (ZYM2: bad section bounds)";
  for (const char* command : {"chat", "info"}) {
    expectFault(zym({command, model}), 1,
                model + ": " + what + "; copy the file again, or convert it anew");
  }
  unsetenv("ZYM_PLUGIN");
  expectFault(zym({"chat", model}), 1,
              model + ": " + what + "; copy the file again, or convert it anew");
  const Outcome check = zym({"check", model});
  EXPECT_EQ(check.status, 1);
  EXPECT_EQ(check.out, "file: " + what + "\n");
  EXPECT_EQ(check.err, "zym: " + model + ": 1 fault; `zym convert` makes the file anew\n");
}

// As long as a large model, without its bytes.
TEST_F(ProgramTest, MemoryThatRunsOutIsNoFaultOfTheFile) {
  if (kel::test::kInstrumented) {
    GTEST_SKIP() << "sanitizers reserve more address space than the limit leaves";
  }
  std::filesystem::resize_file(model, uint64_t{16} << 30);
  for (const std::string& words :
       {"chat " + model, "info " + model, "check " + model, "tokenize " + model + " a"}) {
    const Outcome outcome = testing_support::runProcess(
        {"sh", "-c", "ulimit -v 8000000; exec " + std::string(ZYM_PROGRAM) + " " + words});
    expectFault(outcome, 1,
                model +
                    ": not enough memory to map its 17179869184 bytes (ZYM2: mmap failed); "
                    "raise the limit of the address space (ulimit -v)");
  }
  const std::string large = folder / "too-large.zym";
  ASSERT_TRUE(writeSmallModel(large).ok());
  expectFault(zym({"chat", large}), 1,
              large +
                  ": not enough memory to open the model; end other programs, or convert it to "
                  "smaller types");
  const std::string unopened = folder / "unopened.zym";
  ASSERT_TRUE(writeSmallModel(unopened).ok());
  expectFault(zym({"chat", unopened}), 1,
              unopened + ": zym open failed, though the file is a container; not enough memory?");
}

TEST_F(ProgramTest, RefusedModelSaysWhatRuns) {
  const std::string refused = folder / "refused.zym";
  ASSERT_TRUE(writeSmallModel(refused).ok());
  expectFault(zym({"chat", refused}), 1,
              refused +
                  ": not a qwen35-architecture model; this runtime runs dense qwen35 models "
                  "of 32 layers");
}

TEST_F(ProgramTest, UnreadablePluginIsOneClearLine) {
  const std::string broken = write("broken.so", "no library");
  const Outcome outcome = zym({"run", model, "-p", "a", "--plugin", broken});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err.rfind("zym: cannot load the runtime library: ", 0), 0U) << outcome.err;
  EXPECT_NE(outcome.err.find("; name a working one with --plugin\n"), std::string::npos);
  expectFault(zym({"chat", model, "--plugin", "/no/such.so"}), 1,
              "/no/such.so: no such runtime library; correct --plugin");
}

TEST_F(ProgramTest, PluginOfAnotherStreamVersionIsOneClearLine) {
  setenv("FAKE_OTHER_STREAM", "1", 1);
  expectFault(zym({"chat", model}), 1,
              ZYM_FAKE_RUNTIME
              ": not a runtime library of this interface version; name another "
              "one with --plugin");
  unsetenv("FAKE_OTHER_STREAM");
}

TEST_F(ProgramTest, FullStandardOutputIsReported) {
  const Outcome outcome = testing_support::runProcess(
      {"sh", "-c", std::string(ZYM_PROGRAM) + " info " + model + " >/dev/full"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "zym: standard output cannot be written; is the disk full?\n");
}

TEST_F(ProgramTest, ClosedStandardOutputIsReported) {
  for (const char* words : {"--version", "info --help", "info ", "run -p a "}) {
    const bool hasModel = std::string_view(words).ends_with(' ');
    const Outcome outcome = withStreams(words + (hasModel ? model : ""), ">&-");
    EXPECT_EQ(outcome.status, 1) << words;
    EXPECT_EQ(outcome.err, "zym: standard output is closed; the results are lost\n") << words;
  }
}

TEST_F(ProgramTest, OutputWhoseReaderHasGoneIsReported) {
  const Outcome outcome = testing_support::runProcess(
      {"sh", "-c",
       "trap '' PIPE; { " + std::string(ZYM_PROGRAM) + " info " + model + "; echo $? >" +
           (folder / "status").string() + "; } | :"});
  EXPECT_EQ(outcome.err, "zym: standard output was closed by its reader; the rest is lost\n");
  std::ifstream status(folder / "status");
  EXPECT_EQ(status.get(), '1');
}

TEST_F(ProgramTest, ClosedStandardErrorLosesMessagesAlone) {
  EXPECT_EQ(withStreams("check " + model, "2>&-").out,
            model + ": can be run\nthe runtime library can run it too\n");
  const Outcome missing = withStreams("info " + model + ".missing", "2>&-");
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "");
}

// The model took the closed stream's descriptor and was read as what a person types.
TEST_F(ProgramTest, ClosedStandardInputIsNoText) {
  const std::string reason =
      "standard input: Bad file descriptor; give a file or a pipe that can be read";
  expectFault(withStreams("chat " + model, "<&-"), 1, reason);
  expectFault(withStreams("run " + model + " -", "<&-"), 1, reason);
  EXPECT_EQ(withStreams("run -p a " + model, "<&-").out, "a and so on\n");
}

TEST_F(ProgramTest, RunCompletesEachPrompt) {
  const Outcome outcome = zym({"run", model, "-p", "Once", "-p", "Twice"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "Once and so on\nTwice and so on\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(ProgramTest, PromptIsOneWordOfTheCommandLine) {
  EXPECT_EQ(zym({"run", "-p", "Hello", model}).out, "Hello and so on\n");
  EXPECT_EQ(zym({"run", model, "-p", "[a,b]", "-p", "{}", "--prompt=[]"}).out,
            "[a,b] and so on\n{} and so on\n[] and so on\n");
  EXPECT_EQ(zym({"run", model, "-p", ""}).out, " and so on\n");
  EXPECT_EQ(zym({"run", model, "-p", "From the line", "-"}, "From a pipe").out,
            "From the line and so on\nFrom a pipe and so on\n");
}

TEST_F(ProgramTest, WordsBehindThePromptAreWrongUse) {
  const std::string line =
      "INPUT: \"there\" is no \"-\"; put the whole prompt in quotes, after -p; see zym run --help";
  expectFault(zym({"run", model, "-p", "Hello", "there"}), 2, line);
  expectFault(zym({"run", model, "there"}), 2, line);
}

TEST_F(ProgramTest, RunReadsFilesAndStandardInput) {
  EXPECT_EQ(zym({"run", model, "-f", write("prompt.txt", "From a file\n")}).out,
            "From a file and so on\n");
  EXPECT_EQ(zym({"run", model, "-"}, "From a pipe\n").out, "From a pipe and so on\n");
}

TEST_F(ProgramTest, InputThatCannotBeReadIsOneClearLine) {
  const auto fromFolder = [this](const std::string& words) {
    return testing_support::runProcess(
        {"sh", "-c", std::string(ZYM_PROGRAM) + " " + words + " <" + folder.string()});
  };
  const std::string reason = ": Is a directory; give a file or a pipe that can be read";
  expectFault(fromFolder("run " + model + " -"), 1, "standard input" + reason);
  expectFault(fromFolder("chat " + model), 1, "standard input" + reason);
  // Readable by its mode, but nothing is mapped at its start.
  expectFault(zym({"run", model, "-f", "/proc/self/mem"}), 1,
              "/proc/self/mem: Input/output error; give a file or a pipe that can be read");
}

TEST_F(ProgramTest, RunChatKeepsOneConversationUnlessTold) {
  EXPECT_EQ(zym({"run", model, "--chat", "-p", "a", "-p", "b"}).out, "heard 1: a\nheard 2: b\n");
  EXPECT_EQ(zym({"run", model, "--chat", "--each", "-p", "a", "-p", "b"}).out,
            "heard 1: a\nheard 1: b\n");
}

TEST_F(ProgramTest, RunPassesSamplingSettings) {
  EXPECT_EQ(zym({"run", model, "-p", "settings", "--temperature", "0.5", "--top-k", "40", "--top-p",
                 "0.9", "--seed", "7"})
                .out,
            "temperature 0.5 top-k 40 top-p 0.9 seed 7\n");
}

TEST_F(ProgramTest, ARuntimeLibraryRefusesSettingsThatItLacks) {
  const std::string rest = "; leave it out, or use the program's own engine, without --plugin\n";
  const Outcome outcome = zym({"run", model, "-p", "settings", "--min-p", "0.1"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "zym: a runtime library has no min-p" + rest);
  const Outcome chat =
      zym({"chat", model}, "/set repetition-penalty 1.1\n/set top-k 3\nsettings\n");
  EXPECT_EQ(chat.err, "a runtime library has no repetition-penalty" + rest);
  EXPECT_EQ(chat.out, "temperature 0 top-k 3 top-p 0 seed 0\n");
}

TEST_F(ProgramTest, ARuntimeLibraryRefusesByNameWhatItCannotDo) {
  const std::string rest = "; leave it out, or use the program's own engine, without --plugin";
  const std::vector<std::vector<std::string>> options = {
      {"--max-tokens", "5"}, {"--stop", "x"},     {"--system", "x"},  {"--think"},
      {"--no-think"},        {"--context", "64"}, {"--cache", "f32"}, {"--session", "x"},
  };
  for (const std::vector<std::string>& option : options) {
    std::vector<std::string> words = {"chat", model};
    words.insert(words.end(), option.begin(), option.end());
    expectFault(zym(words), 1, "a runtime library has no " + option.front() + rest);
  }
  for (const std::string command :
       {"/retry", "/edit a", "/system a", "/think on", "/save a", "/load a"}) {
    const Outcome outcome = zym({"chat", model}, "a\n" + command + "\nb\n");
    EXPECT_EQ(outcome.err,
              "a runtime library has no " + command.substr(0, command.find(' ')) + rest + "\n");
    EXPECT_EQ(outcome.out, "heard 1: a\nheard 2: b\n");
    EXPECT_EQ(outcome.status, 1);
  }
}

TEST_F(ProgramTest, RandomSeedsReachARuntimeLibrary) {
  const std::string drawn = zym({"run", model, "-p", "settings", "--seed", "random"}).out;
  EXPECT_TRUE(drawn.starts_with("temperature 0 top-k 0 top-p 0 seed ")) << drawn;
  EXPECT_FALSE(drawn.ends_with(" 0\n")) << drawn;
}

TEST_F(ProgramTest, AMistypedChatCommandIsNamedWithTheNearestOne) {
  EXPECT_EQ(zym({"chat", model}, "/contxt\n/xyzzy\n").err,
            "no command /contxt (did you mean /context?); /help lists them\n"
            "no command /xyzzy; /help lists them\n");
}

TEST_F(ProgramTest, StatsTellWhatALibraryKnows) {
  EXPECT_EQ(zym({"chat", model, "--stats"}, "ab\n/context\n").err,
            "(3 of 8192 positions)\n"
            "3 of 8192 positions in use, 4.2 ms a position, the last one 0.5 ms\n");
}

TEST_F(ProgramTest, TopPBelowOneIsExplainedOnce) {
  const std::string remark =
      "(top-p below 1 keeps only the best token of this runtime library, whatever the temperature; "
      "1 turns it off)\n";
  EXPECT_EQ(zym({"run", model, "-p", "a", "-p", "b", "--temperature", "0.5", "--top-p", "0.9"}).err,
            remark);
  EXPECT_EQ(zym({"run", model, "-p", "a", "--top-p", "0.9"}).err, "");
  EXPECT_EQ(zym({"run", model, "-p", "a", "--temperature", "0.5", "--top-p", "1"}).err, "");
  EXPECT_EQ(zym({"chat", model}, "/set top-p 0.9\n/set temperature 1\n/set top-p 0.8\n").err,
            remark);
}

TEST_F(ProgramTest, RunJsonIsAnObjectALine) {
  const Outcome outcome =
      zym({"run", model, "--chat", "--json", "-p", "say \xC3\xA9", "-p", "limit"});
  const size_t cut = outcome.out.find('\n');
  const Json first = parseJson(outcome.out.substr(0, cut));
  EXPECT_EQ(first["prompt"], "say \xC3\xA9");
  EXPECT_EQ(first["end"], "stop");
  const Json second = parseJson(outcome.out.substr(cut + 1));
  EXPECT_EQ(second["end"], "limit");
  EXPECT_EQ(second["pieces"], 96);
  EXPECT_EQ(outcome.err, "(the reply was cut at 96 tokens)\n");
}

TEST_F(ProgramTest, RunJsonDoesNotGuessTheEndOfACompletion) {
  const Json line = parseJson(zym({"run", model, "--json", "-p", "a"}).out);
  EXPECT_EQ(line["reply"], "a and so on");
  EXPECT_TRUE(line["end"].is_null());
  EXPECT_FALSE(line.contains("pieces"));
}

TEST_F(ProgramTest, RunFailuresAreReported) {
  const std::string advice =
      "; memory ran out, or the file has a fault, which `zym check --full " + model + "` names";
  expectFault(zym({"run", model, "-p", "break"}), 1, "the completion failed" + advice);
  expectFault(zym({"run", model, "--chat", "-p", "break"}), 1, "the turn failed" + advice);
}

TEST_F(ProgramTest, FullContextIsReported) {
  const Outcome outcome = zym({"run", model, "--chat", "-p", "fill"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, "zym: the context of 8192 positions is full; shorten the text\n");
}

TEST_F(ProgramTest, ChatThroughPipesHoldsAConversation) {
  const Outcome outcome = zym({"chat", model}, "a\n\nb\n/reset\nc");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "heard 1: a\nheard 2: b\nheard 1: c\n");
  EXPECT_EQ(outcome.err, "The conversation is forgotten.\n");
}

TEST_F(ProgramTest, ChatCommandsWork) {
  const Outcome outcome = zym(
      {"chat", model}, "/set temperature 0.25\n/set seed 9\nsettings\n/set top-k 0\n/quit\nlost\n");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, "temperature 0.25 top-k 0 top-p 0 seed 9\n");
  EXPECT_EQ(outcome.err, "top-k must be a whole number from 1, not \"0\"\n");
}

TEST_F(ProgramTest, ChatMultilineMessagesEndWithADot) {
  const Outcome outcome = zym({"chat", model}, "/multiline\nfirst\nsecond\n.\n/multiline\nthird\n");
  EXPECT_EQ(outcome.out, "heard 1: first\nsecond\nheard 2: third\n");
  EXPECT_EQ(outcome.err, "A line with a single dot ends a message.\nOne line is one message.\n");
}

TEST_F(ProgramTest, ChatMultilineMessagesMayBeginWithASlash) {
  EXPECT_EQ(zym({"chat", model}, "/multiline\n//etc\n/stats\n.\n").out, "heard 1: /etc\n/stats\n");
}

TEST_F(ProgramTest, ChatTakesLinesThatEndInCarriageReturns) {
  EXPECT_EQ(zym({"chat", model}, "one\r\n/multiline\r\ntwo\r\nthree\r\n.\r\n").out,
            "heard 1: one\nheard 2: two\nthree\n");
}

TEST_F(ProgramTest, ChatStatsShowThePosition) {
  EXPECT_EQ(zym({"chat", model}, "ab\n/stats\n").err,
            "3 of 8192 positions in use, 4.2 ms a position, the last one 0.5 ms\n");
}

TEST_F(ProgramTest, ChatSaysWhyAReplyEnded) {
  EXPECT_EQ(zym({"chat", model}, "limit\n").err, "(cut at 96 tokens; say \"go on\" for more)\n");
  EXPECT_EQ(zym({"chat", model}, "fill\n").err,
            "The context of 8192 positions is full; /reset starts afresh.\n");
  EXPECT_EQ(
      zym({"chat", model}, "break\n").err,
      "zym: the turn failed; memory ran out, or the file has a fault, which `zym check --full " +
          model + "` names, /reset starts afresh\n");
}

TEST_F(ProgramTest, ChatThroughPipesTellsOfUnansweredMessages) {
  EXPECT_EQ(zym({"chat", model}, "break\nhello\n").status, 1);
  EXPECT_EQ(zym({"chat", model}, "break\n/quit\n").status, 1);
  EXPECT_EQ(zym({"chat", model}, "fill\n").status, 1);
  EXPECT_EQ(zym({"chat", model}, "limit\n/unknown\n").status, 0);
}

TEST_F(ProgramTest, TextThatCannotBeSentIsNoFaultOfTheModel) {
  ASSERT_TRUE(writeSmallModel(model, nullptr, "qwen35", [](kel::ZYM2Writer& writer) {
                kel::TokenizerData raw = testing_support::smallVocabulary(4);
                raw.label = "raw";
                writer.setTokenizer(raw);
              }).ok());
  const Outcome outcome = zym({"chat", model}, std::string("a\0b\n", 4));
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err.rfind("zym: ", 0), 0U) << outcome.err;
  EXPECT_EQ(outcome.err.find("/reset"), std::string::npos) << outcome.err;
  EXPECT_EQ(outcome.err.find("zym check"), std::string::npos) << outcome.err;
}

TEST_F(ProgramTest, ChatThroughPipesWritesNoEscapeCodes) {
  const Outcome outcome = zym({"chat", model}, "think\nlimit\n");
  EXPECT_EQ((outcome.out + outcome.err).find('\x1b'), std::string::npos);
}

TEST_F(ProgramTest, SpecialTokensInMessagesAreBrokenUnlessRaw) {
  EXPECT_EQ(zym({"run", model, "--chat", "-p", "<|im_end|>"}).out, "heard 1: <\u200B|im_end|>\n");
  EXPECT_EQ(zym({"run", model, "--chat", "--raw", "-p", "<|im_end|>"}).out,
            "heard 1: <|im_end|>\n");
}

TEST_F(ProgramTest, CheckAcceptsAModelThatRuns) {
  const Outcome outcome = zym({"check", model});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, model + ": can be run\nthe runtime library can run it too\n");
  EXPECT_EQ(
      outcome.err,
      "(no checksum covers: weights, tokenizer, tensor index, quant info, metadata; damage to "
      "that goes unnoticed)\n");
}

// As a conversion would copy it: such a matrix runs until a value of it is met.
TEST_F(ProgramTest, FullCheckNamesAMatrixThatIsNotFinite) {
  ASSERT_TRUE(writeSmallModel(model, [](testing_support::TensorPlan& plan) {
                if (plan.name == "blk.3.attn_q.weight") {
                  plan.type = kel::QuantType::BF16;
                  plan.values.assign(plan.values.size() / 2, 0.5F);
                  const uint32_t infinityAsSecond = 0x7F803F00;
                  std::memcpy(&plan.values[10], &infinityAsSecond, sizeof(infinityAsSecond));
                }
              }).ok());
  EXPECT_EQ(zym({"check", model}).status, 0);
  const Outcome outcome = zym({"check", model, "--full"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "blk.3.attn_q.weight: row 21, value 0 is not finite\n");
}

TEST_F(ProgramTest, CheckNamesEveryFault) {
  ASSERT_TRUE(writeSmallModel(model, [](testing_support::TensorPlan& plan) {
                plan.written = plan.name != "output_norm.weight" && plan.name != "blk.9.ssm_a";
              }).ok());
  const Outcome outcome = zym({"check", model});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "output_norm.weight: is missing\nblk.9.ssm_a: is missing\n");
  EXPECT_EQ(outcome.err, "zym: " + model + ": 2 faults; `zym convert` makes the file anew\n");
}

TEST_F(ProgramTest, InfoShowsEveryPartOfTheFile) {
  const Outcome outcome = zym({"info", model});
  EXPECT_EQ(outcome.status, 0);
  for (const char* part : {"ZYM2 version 2", "general.architecture", "qwen35", "tokenizer",
                           "alphabet", "token_embd.weight", "1 x 8192", "F32"})
    EXPECT_NE(outcome.out.find(part), std::string::npos) << part;
}

TEST_F(ProgramTest, InfoSelectsTensorsByPattern) {
  const Outcome outcome = zym({"info", model, "--tensors", "blk.1?.ssm_a"});
  size_t lines = 0;
  for (const char c : outcome.out)
    lines += c == '\n' ? 1 : 0;
  EXPECT_EQ(lines, 1U + 7U) << outcome.out;  // a heading; layers 11, 15 and 19 have none
}

TEST_F(ProgramTest, InfoSaysWhenNoTensorMatches) {
  const std::string line =
      model + ": no tensor matches \"nothing*\"; `zym info` without --tensors lists all";
  expectFault(zym({"info", model, "--tensors", "nothing*"}), 1, line);
  expectFault(zym({"info", model, "--tensors", "nothing*", "--json"}), 1, line);
}

TEST_F(ProgramTest, InfoJsonHoldsTheWholeTable) {
  const Json report = parseJson(zym({"info", model, "--json"}).out);
  EXPECT_EQ(report["metadata"]["general.architecture"], "qwen35");
  EXPECT_EQ(report["tensors"].size(), 426U);
  EXPECT_EQ(report["tokenizer"]["tokens"], 4);
}

TEST_F(ProgramTest, TokenizeShowsIdsAndPieces) {
  const Outcome outcome = zym({"tokenize", model, "--raw", " <|im_end|>"});
  EXPECT_EQ(outcome.out, "      0  \" \"\n      1  \"<|im_end|>\"\n");
  const Json report = parseJson(zym({"tokenize", model, "--json", " "}).out);
  EXPECT_EQ(report["ids"], Json::array({0}));
}

TEST_F(ProgramTest, TokenizeReadsFilesAndStandardInput) {
  const std::string tokens = "      0  \" \"\n      1  \"<|im_end|>\"\n";
  EXPECT_EQ(zym({"tokenize", model, "--raw", "-"}, " <|im_end|>\n").out, tokens);
  EXPECT_EQ(zym({"tokenize", model, "--raw", "-f", write("text.txt", " <|im_end|>\n")}).out,
            tokens);
  const std::string missing = folder / "missing.txt";
  expectFault(zym({"tokenize", model, "--file", missing}), 1,
              missing + ": No such file or directory; check the path");
}

TEST_F(ProgramTest, TokenizeTurnsIdsIntoText) {
  const std::string text = "<|im_end|> <|im_end|>\n";
  EXPECT_EQ(zym({"tokenize", model, "--ids", "1", "0", "1"}).out, text);
  EXPECT_EQ(zym({"tokenize", model, "--ids", "1,0 1"}).out, text);
  EXPECT_EQ(zym({"tokenize", "--ids", model, "-"}, "[1,\n 0,\n 1]\n").out, text);
  EXPECT_EQ(zym({"tokenize", model, "--ids", "-f", write("ids.txt", "1\n0\n1\n")}).out, text);
  const Json report = parseJson(zym({"tokenize", model, "--ids", "--json", "1", "0"}).out);
  EXPECT_EQ(report, Json({{"ids", {1, 0}}, {"text", "<|im_end|> "}}));
  expectFault(zym({"tokenize", model, "--ids", "1", "4"}), 1,
              "the vocabulary has no token 4; its last one is 3");
}

TEST_F(ProgramTest, TokenizeGivesACharacterOfSeveralTokensWhole) {
  ASSERT_TRUE(writeSmallModel(model, nullptr, "qwen35", [](kel::ZYM2Writer& writer) {
                kel::TokenizerData data = testing_support::smallVocabulary(4);
                data.tokens[2] = "Ã";  // the letters of the two bytes of é
                data.tokens[3] = "©";
                writer.setTokenizer(data);
              }).ok());
  EXPECT_EQ(zym({"tokenize", model, "--ids", "2", "3"}).out, "é\n");
  EXPECT_EQ(zym({"tokenize", model, "--ids", "3"}).out, "\uFFFD\n");
  EXPECT_EQ(zym({"tokenize", model, "é"}).out, "      2  \"\uFFFD\"\n      3  \"\uFFFD\"\n");
  const Outcome invalid = zym({"tokenize", model, "\xC3"});
  EXPECT_EQ(invalid.out, "");  // U+FFFD has no tokens here
  EXPECT_EQ(invalid.err,
            "(the text is not valid UTF-8; bytes that belong to no character are read as "
            "U+FFFD)\n");
  const Outcome oneByOne = zym({"tokenize", model, "--plugin-rules", "\xC3"});
  EXPECT_EQ(oneByOne.out, "      2  \"\uFFFD\"\n");
  EXPECT_EQ(oneByOne.err,
            "(the text is not valid UTF-8; bytes that belong to no character are read one by "
            "one)\n");
}

TEST_F(ProgramTest, TokenizeShowsTheEnginesTokensOrThoseOfTheContainersRules) {
  ASSERT_TRUE(writeSmallModel(model, nullptr, "qwen35", [](kel::ZYM2Writer& writer) {
                kel::TokenizerData data = testing_support::smallVocabulary(6);
                data.tokens = {"Ġ", "<|im_end|>", "\n", ")", ";", ");Ċ"};
                data.merges = {"Ġ a", ") ;", "); Ċ"};
                writer.setTokenizer(data);
              }).ok());
  const auto ids = [&](const std::vector<std::string>& options) {
    std::vector<std::string> words = {"tokenize", model, "--json", ");\n"};
    words.insert(words.end(), options.begin(), options.end());
    return parseJson(zym(words).out)["ids"];
  };
  EXPECT_EQ(ids({}), Json::array({5}));
  EXPECT_EQ(ids({"--plugin-rules"}), Json::array({2}));  // ");" is no token of its own here
  expectFault(zym({"tokenize", model, "--ids", "--plugin-rules", "1"}), 2,
              "--ids excludes --plugin-rules; see zym tokenize --help");
}

TEST_F(ProgramTest, TokenizeNamesATextFormThatItHasNot) {
  ASSERT_TRUE(writeSmallModel(model, nullptr, "qwen35", [](kel::ZYM2Writer& writer) {
                writer.addMetaStr("tokenizer.normalizer", "nfkc");
              }).ok());
  expectFault(zym({"tokenize", model, "a"}), 1,
              model +
                  ": tokenizer.normalizer is \"nfkc\"; text is brought to \"nfc\", or left "
                  "as it is");
}

TEST_F(ProgramTest, TokenizeOfNothingShowsNothing) {
  for (const Outcome& outcome : {zym({"tokenize", model, ""}), zym({"tokenize", model, "-"})}) {
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out + outcome.err, "");
  }
  EXPECT_EQ(parseJson(zym({"tokenize", model, "--json", ""}).out),
            Json({{"ids", Json::array()}, {"pieces", Json::array()}}));
  EXPECT_EQ(zym({"tokenize", model, "--ids", "-"}).out, "\n");
}

TEST_F(ProgramTest, TokenizeTakesOneText) {
  expectFault(zym({"tokenize", model}), 2,
              "a text (TEXT, -f FILE or -) is required, as in: zym tokenize model.zym 'Hello "
              "there'; see zym tokenize --help");
  expectFault(zym({"tokenize", model, "a", "b", "c"}), 2,
              "\"b\" is one word too many; put the whole text in quotes; see zym tokenize --help");
  expectFault(zym({"tokenize", model, "a", "-f", "b"}), 2,
              "TEXT excludes --file; see zym tokenize --help");
}

TEST_F(ProgramTest, BenchRefusesSizesThatDoNotFit) {
  const Outcome outcome = zym({"bench", model, "--at", "7000", "--steps", "4096"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err.rfind("zym: 4096 steps at depth 7000 take about ", 0), 0U) << outcome.err;
}

TEST_F(ProgramTest, BenchReportsEveryMeasure) {
  const kel::test::ScopedEnv environment("ZYM_CPU", "scalar");
  const Outcome outcome = zym({"--threads", "1000", "bench", model, "--json", "--repetitions", "2",
                               "--prompt", "20", "--steps", "4"});
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  // No bar in a pipe, and no plain line so soon.
  EXPECT_TRUE(outcome.err.starts_with("(--threads 1000: ")) << outcome.err;
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
  const Json report = parseJson(outcome.out);
  EXPECT_EQ(report["threads"], qwen35::usableProcessors());  // no more run
  EXPECT_EQ(report["kernels"], "scalar");
  EXPECT_EQ(report["repetitions"], 2);
  EXPECT_GE(report["prefillPositions"].get<int>(), 20);
  for (const char* speed : {"prefillTokensPerSecond", "decodeTokensPerSecond"}) {
    const double least = report[speed]["min"];
    const double median = report[speed]["median"];
    const double most = report[speed]["max"];
    EXPECT_GT(least, 0) << speed;
    EXPECT_LE(least, median) << speed;
    EXPECT_LE(median, most) << speed;
  }
  for (const char* measure :
       {"weightBytes", "readBytesPerSecond", "multiplyAddsPerPrefillToken", "multiplyAddsPerSecond",
        "prefillMultiplyShare", "createSeconds", "residentBytes", "residentFileBytes"}) {
    EXPECT_GT(report[measure].get<double>(), 0) << measure;
  }
  EXPECT_LE(report["prefillMultiplyShare"].get<double>(), 1);
  // Of weights that fit the caches there is no share.
  const Json& share = report["decodeBandwidthShare"];
  EXPECT_TRUE(share.is_null() || (share.get<double>() > 0 && share.get<double>() <= 1)) << share;
}

}  // namespace
}  // namespace zym
