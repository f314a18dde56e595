// Models that are no containers, through the program: converted once, then used from the cache,
// with the program's own engine.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/convert/slow_checkpoint.h"
#include "tests/e2e/fixture.h"
#include "tests/support/demo_gguf.h"
#include "tests/support/file_contents.h"
#include "tests/support/json_text.h"
#include "tests/support/scoped_env.h"

namespace zym {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using kel::test::contentsOf;
using kel::test::parseJson;
using kel::test::ScopedEnv;
using testing_support::Outcome;

constexpr const char* kQuestion = "What is the capital of Canada?";
constexpr const char* kAnswer = "The capital of Canada is Ottawa.\n";
constexpr std::chrono::seconds kPatience{60};

class ModelCacheTest : public testing_support::ProgramTest {
 protected:
  void SetUp() override {
    testing_support::ProgramTest::SetUp();
    unsetenv("ZYM_PLUGIN");  // the program generates by itself
    setenv("OMP_NUM_THREADS", "1", 1);
    setenv("XDG_CACHE_HOME", (folder / "caches").c_str(), 1);
    fs::create_directory(temporary);
  }

  static Outcome ask(const std::string& given, const std::vector<std::string>& options = {}) {
    std::vector<std::string> words = {"run", given, "--chat", "--greedy", "-p", kQuestion};
    words.insert(words.end(), options.begin(), options.end());
    return zym(words);
  }
  std::string gguf() const {
    const std::string path = folder / "Demo-BF16.gguf";
    kel::test::writeDemoGguf(path);
    return path;
  }
  Json entries() const { return parseJson(zym({"cache", "list", "--json"}).out)["entries"]; }
  std::string converting(const std::string& given) const {
    return "(converting " + given + " into " + cache.string() +
           ", once; `zym cache list` shows what is there)\n";
  }
  // A small copy of the checkpoint that a test may change.
  std::string checkpoint() const {
    const fs::path copy = folder / "checkpoint";
    fs::create_directory(copy);
    for (const char* name :
         {"config.json", "model.safetensors", "tokenizer.json", "tokenizer_config.json"}) {
      fs::copy_file(fs::path(ZYM_DEMO_FOLDER) / name, copy / name);
    }
    return copy;
  }

  fs::path temporary = folder / "temporary";
  ScopedEnv temporaryFolder{"TMPDIR", temporary.c_str()};
  fs::path cache = folder / "caches" / "zym";
};

TEST_F(ModelCacheTest, CheckpointFolderAnswersAndIsConvertedOnce) {
  const Outcome first = ask(ZYM_DEMO_FOLDER);
  EXPECT_EQ(first.status, 0);
  EXPECT_EQ(first.out, kAnswer);
  EXPECT_EQ(first.err, converting(ZYM_DEMO_FOLDER));
  const Outcome second = ask(ZYM_DEMO_FOLDER);
  EXPECT_EQ(second.status, 0);
  EXPECT_EQ(second.out, kAnswer);
  EXPECT_EQ(second.err, "");
}

TEST_F(ModelCacheTest, GgufFileAnswersAndIsConvertedOnce) {
  const std::string path = gguf();
  const Outcome first = ask(path);
  EXPECT_EQ(first.out, kAnswer);
  EXPECT_EQ(first.err, converting(path));
  const Outcome second = ask(path);
  EXPECT_EQ(second.out, kAnswer);
  EXPECT_EQ(second.err, "");
}

TEST_F(ModelCacheTest, EveryCommandTakesAFolder) {
  EXPECT_EQ(zym({"check", ZYM_DEMO_FOLDER}).out,
            ZYM_DEMO_FOLDER ": can be run\nthe runtime library can run it too\n");
  EXPECT_EQ(parseJson(zym({"info", ZYM_DEMO_FOLDER, "--json"}).out)["metadata"]["general.name"],
            "demo");
  EXPECT_EQ(parseJson(zym({"tokenize", ZYM_DEMO_FOLDER, "--json", " "}).out)["ids"].size(), 1U);
  EXPECT_EQ(zym({"chat", ZYM_DEMO_FOLDER, "--greedy"}, std::string(kQuestion) + "\n").out, kAnswer);
  const Json report = parseJson(zym({"bench", ZYM_DEMO_FOLDER, "--json", "--repetitions", "1",
                                     "--prompt", "4", "--steps", "2"})
                                    .out);
  EXPECT_EQ(report["model"], ZYM_DEMO_FOLDER);
  EXPECT_EQ(entries().size(), 1U);
}

TEST_F(ModelCacheTest, WithoutTheCacheNothingStaysBehind) {
  const Outcome outcome = ask(ZYM_DEMO_FOLDER, {"--no-cache"});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.out, kAnswer);
  EXPECT_EQ(outcome.err, "(converting " ZYM_DEMO_FOLDER
                         " for this run alone)\n"
                         "(the container takes 37.5 MB in " +
                             temporary.string() + " until the end)\n");
  EXPECT_TRUE(fs::is_empty(temporary));
  EXPECT_FALSE(fs::exists(cache));
}

// A chat that has answered and waits at its prompt. What it then has in the temporary folder is a
// link.
TEST_F(ModelCacheTest, SignalEndsARunWithoutTheCacheAndLeavesNothing) {
  const std::string pid = folder / "pid";
  const std::string fifo = folder / "fifo";
  const std::string reply = folder / "reply";
  const auto shell = [](const std::string& line) {
    return testing_support::runProcess({"sh", "-c", line});
  };
  ASSERT_EQ(shell("mkfifo " + fifo + "; : >" + reply).status, 0);
  Outcome outcome;
  std::thread program([&] {
    outcome = shell("echo $$ >" + pid + "; exec " + ZYM_PROGRAM +
                    " chat " ZYM_DEMO_FOLDER " --no-cache <" + fifo + " >" + reply);
  });
  std::ofstream input(fifo);  // stays open, so that the chat goes on
  input << kQuestion << std::endl;
  const auto until = std::chrono::steady_clock::now() + kPatience;
  while (fs::file_size(reply) < std::string(kAnswer).size() &&
         std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  uintmax_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(temporary)) {
    bytes += fs::is_regular_file(entry.symlink_status()) ? entry.file_size() : 0;
  }
  EXPECT_EQ(bytes, 0U);
  EXPECT_FALSE(fs::is_empty(temporary));
  EXPECT_EQ(shell("kill -TERM $(cat " + pid + ")").status, 0);
  program.join();
  EXPECT_EQ(outcome.status, 128 + SIGTERM);
  EXPECT_TRUE(fs::is_empty(temporary));
}

TEST_F(ModelCacheTest, ListTellsOfEveryEntry) {
  const std::string path = gguf();
  ASSERT_EQ(zym({"info", path}).status, 0);
  const Json entry = entries().at(0);
  EXPECT_EQ(entry["source"], fs::canonical(path).string());
  EXPECT_EQ(entry["state"], "current");
  EXPECT_EQ(entry["bytes"], fs::file_size(entry["container"].get<std::string>()));
  fs::remove(path);
  const Outcome list = zym({"cache", "list"});
  EXPECT_EQ(list.status, 0);
  EXPECT_NE(list.out.find("  today          today          " + path + " (source gone)\n"),
            std::string::npos)
      << list.out;
  EXPECT_NE(list.out.find(cache.string() + ": 1 container, 37.5 MB\n"), std::string::npos)
      << list.out;
}

TEST_F(ModelCacheTest, EmptyCacheIsListedAndClearedToo) {
  EXPECT_EQ(zym({"cache", "list"}).out, cache.string() + ": 0 containers, 0 B\n");
  EXPECT_TRUE(entries().empty());
  EXPECT_EQ(zym({"cache", "clear"}).out, "removed 0 containers, 0 B\n");
}

TEST_F(ModelCacheTest, ClearTakesThoseThatAreNamed) {
  const std::string path = gguf();
  ASSERT_EQ(zym({"info", path}).status, 0);
  ASSERT_EQ(zym({"info", ZYM_DEMO_FOLDER}).status, 0);
  const Outcome unknown = zym({"cache", "clear", folder / "other.gguf"});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_EQ(unknown.err, "zym: " + (folder / "other.gguf").string() +
                             ": has no container in the cache; see zym cache list\n");
  EXPECT_EQ(entries().size(), 2U);
  EXPECT_EQ(zym({"cache", "clear", path}).out, "removed 1 container, 37.5 MB\n");
  EXPECT_EQ(entries().size(), 1U);
  EXPECT_EQ(zym({"cache", "clear"}).out, "removed 1 container, 37.5 MB\n");
  EXPECT_TRUE(entries().empty());
}

TEST_F(ModelCacheTest, ClearTakesThoseThatWereLongUnused) {
  ASSERT_EQ(zym({"info", ZYM_DEMO_FOLDER}).status, 0);
  const std::string container = entries().at(0)["container"];
  fs::last_write_time(container,
                      fs::file_time_type::clock::now() - std::chrono::hours(10 * 24 + 1));
  EXPECT_EQ(zym({"cache", "clear", "--older-than", "11"}).out, "removed 0 containers, 0 B\n");
  EXPECT_EQ(zym({"cache", "clear", "--older-than", "10"}).out, "removed 1 container, 37.5 MB\n");
}

TEST_F(ModelCacheTest, ChangedCheckpointIsConvertedAnew) {
  const std::string copy = checkpoint();
  ASSERT_EQ(zym({"info", copy}).status, 0);
  std::ofstream(fs::path(copy) / "config.json", std::ios::app) << "\n";
  EXPECT_EQ(zym({"info", copy}).err, converting(copy));
  EXPECT_EQ(entries().size(), 1U);
}

TEST_F(ModelCacheTest, CheckOfAContainerThatWasDamagedInPlaceSaysHowToGetAnother) {
  ASSERT_EQ(zym({"check", ZYM_DEMO_FOLDER}).status, 0);
  const std::string container = entries().at(0)["container"];
  std::fstream file(container, std::ios::in | std::ios::out | std::ios::binary);
  const auto middle = static_cast<std::streamoff>(fs::file_size(container) / 2);
  file.seekg(middle);
  const int byte = file.get();
  file.seekp(middle);
  file.put(static_cast<char>(byte ^ 1));
  file.close();
  const Outcome check = zym({"check", ZYM_DEMO_FOLDER});
  EXPECT_EQ(check.status, 1);
  EXPECT_EQ(check.err, "zym: " ZYM_DEMO_FOLDER ": 1 fault; `zym cache clear " ZYM_DEMO_FOLDER
                       "` has it converted anew\n");
  ASSERT_EQ(zym({"cache", "clear", ZYM_DEMO_FOLDER}).status, 0);
  EXPECT_EQ(zym({"check", ZYM_DEMO_FOLDER}).status, 0);
}

TEST_F(ModelCacheTest, RefusedSourceIsOneClearLineAndLeavesNothing) {
  const std::string copy = checkpoint();
  fs::resize_file(fs::path(copy) / "model.safetensors", 20'000'000);
  const Outcome outcome = zym({"chat", copy});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err.rfind(converting(copy) + "zym: " + copy + ": ", 0), 0U) << outcome.err;
  EXPECT_NE(outcome.err.find("lies outside the file"), std::string::npos) << outcome.err;
  EXPECT_EQ(zym({"info", copy, "--no-cache"})
                .err.rfind("(converting " + copy + " for this run alone)\nzym: " + copy + ": ", 0),
            0U);
  EXPECT_TRUE(fs::is_empty(temporary));
  EXPECT_TRUE(fs::is_empty(cache));
}

TEST_F(ModelCacheTest, UnusableCacheNamesTheWayOut) {
  const ScopedEnv blocked("XDG_CACHE_HOME", ZYM_PROGRAM);
  const Outcome outcome = zym({"info", ZYM_DEMO_FOLDER});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err.rfind("zym: cannot make the cache folder " ZYM_PROGRAM
                              "/zym: Not a directory; --no-cache makes a container for this run "
                              "alone, and `zym convert ",
                              0),
            0U)
      << outcome.err;
  EXPECT_EQ(zym({"info", ZYM_DEMO_FOLDER, "--no-cache"}).status, 0);
}

TEST_F(ModelCacheTest, NoHomeNamesTheWayOut) {
  const ScopedEnv relative("XDG_CACHE_HOME", "caches");
  const ScopedEnv home("HOME", "");
  const Outcome outcome = zym({"info", ZYM_DEMO_FOLDER});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find("neither XDG_CACHE_HOME nor HOME"), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.err.find("--no-cache"), std::string::npos) << outcome.err;
  EXPECT_EQ(zym({"cache", "list"}).status, 1);
}

// A model whose conversion takes seconds, and commands on it that are stopped.
class StoppedOpeningTest : public ModelCacheTest {
 protected:
  void SetUp() override {
    ModelCacheTest::SetUp();
    kel::test::writeSlowCheckpoint(slow);
  }

  // A command on the model, whose process id is in the file `name`.
  std::thread start(const std::string& name, Outcome& outcome) const {
    return std::thread([this, name, &outcome] {
      outcome =
          testing_support::runProcess({"sh", "-c",
                                       "echo $$ >" + (folder / name).string() + "; exec " +
                                           ZYM_PROGRAM + " info " + slow + " 2>" + messages(name)});
    });
  }
  std::string messages(const std::string& name) const { return folder / (name + ".err"); }
  void stop(const std::string& signalName, const std::string& name) const {
    EXPECT_EQ(testing_support::runProcess(
                  {"sh", "-c", "kill -" + signalName + " $(cat " + (folder / name).string() + ")"})
                  .status,
              0);
  }
  static bool eventually(const std::function<bool()>& holds) {
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (!holds() && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return holds();
  }
  // Whether the command has made its place in the cache, and said that it converts.
  bool converts(const std::string& name) const {
    return contentsOf(messages(name)).starts_with(converting(slow));
  }
  bool hasPlaceOfConversion() const {
    return std::any_of(
        fs::directory_iterator(cache), fs::directory_iterator(),
        [](const fs::directory_entry& entry) { return entry.path().extension() == ".partial"; });
  }

  std::string slow = folder / "slow";
};

class StoppedOpeningBySignal : public StoppedOpeningTest,
                               public testing::WithParamInterface<std::pair<std::string, int>> {};

TEST_P(StoppedOpeningBySignal, KeepsNothing) {
  const auto [name, number] = GetParam();
  Outcome outcome;
  std::thread command = start("only", outcome);
  EXPECT_TRUE(eventually([&] { return converts("only"); }));
  stop(name, "only");
  command.join();
  EXPECT_EQ(outcome.status, 128 + number);
  EXPECT_EQ(contentsOf(messages("only")), converting(slow) + "zym: stopped; nothing was kept\n");
  EXPECT_TRUE(fs::is_empty(cache));
}

INSTANTIATE_TEST_SUITE_P(Signals, StoppedOpeningBySignal,
                         testing::Values(std::pair("INT", SIGINT), std::pair("TERM", SIGTERM)),
                         [](const auto& signal) { return signal.param.first; });

TEST_F(StoppedOpeningTest, CtrlCEndsTheWaitForAnotherProcess) {
  Outcome first;
  Outcome second;
  std::thread converter = start("first", first);
  EXPECT_TRUE(eventually([&] { return converts("first"); }));
  stop("STOP", "first");  // it cannot end before the other is stopped
  std::thread waiter = start("second", second);
  const std::string waiting =
      "(another process converts " + slow + "; waiting for it, Ctrl-C stops)\n";
  EXPECT_TRUE(eventually([&] { return contentsOf(messages("second")) == waiting; }));
  stop("INT", "second");
  waiter.join();
  EXPECT_EQ(second.status, 130);
  EXPECT_TRUE(hasPlaceOfConversion());
  stop("KILL", "first");
  converter.join();
  EXPECT_EQ(first.status, 128 + SIGKILL);
  EXPECT_TRUE(entries().empty());
  EXPECT_EQ(zym({"cache", "clear"}).status, 0);
  EXPECT_TRUE(fs::is_empty(cache));
}

// Stands in for a disk that fills up behind the check of the free space.
TEST_F(ModelCacheTest, DiskThatFillsUpNamesTheWayOut) {
  const Outcome outcome = testing_support::runProcess(
      {"sh", "-c", "ulimit -f 4000; exec " + std::string(ZYM_PROGRAM) + " info " ZYM_DEMO_FOLDER});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  EXPECT_NE(outcome.err.find("cannot write"), std::string::npos) << outcome.err;
  EXPECT_NE(outcome.err.find("--no-cache"), std::string::npos) << outcome.err;
  EXPECT_TRUE(fs::is_empty(cache));
}

}  // namespace
}  // namespace zym
