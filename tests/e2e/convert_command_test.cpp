// zym convert as a person meets it: what it writes, what it refuses, and what it leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "container/zym2_reader.h"
#include "tests/convert/slow_checkpoint.h"
#include "tests/e2e/fixture.h"
#include "tests/support/file_contents.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using kel::test::contentsOf;
using kel::test::parseJson;
using testing_support::Outcome;

constexpr const char* kDemo = ZYM_DEMO_FOLDER;
constexpr std::chrono::seconds kPatience{60};

class ConvertCommandTest : public testing_support::ProgramTest {
 protected:
  void SetUp() override {
    testing_support::ProgramTest::SetUp();
    fs::create_directory(output);
  }

  // One line on standard error that says part, nothing on standard output, no file written.
  void expectRefused(const std::vector<std::string>& arguments, const std::string& part,
                     int status = 1) const {
    std::vector<std::string> words = {"convert"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const Outcome outcome = zym(words);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    expectOneLine(outcome.err, part);
    EXPECT_TRUE(fs::is_empty(output));
  }
  static void expectOneLine(const std::string& err, const std::string& part) {
    EXPECT_EQ(err.rfind("zym: ", 0), 0U) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    EXPECT_NE(err.find(part), std::string::npos) << "no \"" << part << "\" in: " << err;
  }

  std::string target() const { return output / "model.zym"; }

  Json converted(const std::vector<std::string>& arguments) const {
    std::vector<std::string> words = {"convert", kDemo, target(), "--force"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const Outcome outcome = zym(words);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return parseJson(zym({"info", target(), "--json"}).out);
  }
  static std::string typeOf(const Json& report, const std::string& tensor) {
    for (const Json& entry : report["tensors"]) {
      if (entry["name"] == tensor) {
        return entry["type"];
      }
    }
    return "missing";
  }

  // A copy of the demonstration checkpoint, to be damaged.
  fs::path damagedDemo() const {
    fs::path copy = folder / "damaged";
    fs::create_directory(copy);
    for (const char* name :
         {"config.json", "model.safetensors", "tokenizer.json", "tokenizer_config.json"}) {
      fs::copy_file(fs::path(kDemo) / name, copy / name, fs::copy_options::overwrite_existing);
    }
    return copy;
  }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream(folder / name, std::ios::binary) << bytes;
    return folder / name;
  }

  fs::path output = folder / "output";
};

TEST_F(ConvertCommandTest, ConvertedCheckpointPassesTheCheck) {
  const Outcome outcome = zym({"convert", kDemo, target()});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out.rfind(target() + ": demo (safetensors)\n", 0), 0U) << outcome.out;
  const Outcome check = zym({"check", target()});
  EXPECT_EQ(check.status, 0);
  EXPECT_EQ(check.out, target() + ": can be run\nthe runtime library can run it too\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(output), fs::directory_iterator()), 1);
}

// Messages went into the container, which took the place of standard error.
TEST_F(ConvertCommandTest, ClosedStreamsLeaveTheContainerAlone) {
  ASSERT_EQ(zym({"convert", kDemo, target()}).status, 0);
  const std::string expected = contentsOf(target());
  for (const char* closed : {"<&-", "<&- 2>&-", "<&- 2>&- >/dev/null"}) {
    const Outcome outcome = testing_support::runProcess(
        {"sh", "-c",
         std::string(ZYM_PROGRAM) + " convert " + kDemo + " " + target() + " --force " + closed});
    EXPECT_EQ(outcome.status, 0) << closed;
    EXPECT_TRUE(contentsOf(target()) == expected) << closed;
  }
}

TEST_F(ConvertCommandTest, DamageAfterwardsIsFound) {
  ASSERT_EQ(zym({"convert", kDemo, target()}).status, 0);
  const Outcome sound = zym({"check", target(), "--full"});
  EXPECT_EQ(sound.out, target() + ": can be run\nthe runtime library can run it too\n");
  EXPECT_EQ(sound.err, "");
  const auto flip = [this](std::streamoff at) {
    std::fstream file(target(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekg(at);
    const int byte = file.get();
    file.seekp(at);
    file.put(static_cast<char>(byte ^ 1));
  };
  // In the middle of the weights, where no value becomes infinite by it; in the metadata.
  const auto fileBytes = static_cast<std::streamoff>(fs::file_size(target()));
  flip(fileBytes / 2);
  flip(fileBytes - 300);
  std::ofstream(target(), std::ios::app | std::ios::binary) << std::string(100, 'x');
  const Outcome check = zym({"check", target()});
  EXPECT_EQ(check.status, 1);
  EXPECT_EQ(check.out, "file: has 100 bytes behind its last section, which ends at " +
                           std::to_string(fileBytes) +
                           "\nsection weights: differs from its checksum: the file is damaged\n"
                           "section metadata: differs from its checksum: the file is damaged\n");
}

TEST_F(ConvertCommandTest, WeightsThatAreNotFiniteAreNamedByTheCheckThatRunsName) {
  ASSERT_EQ(zym({"convert", kDemo, target()}).status, 0);
  kel::ZYM2Reader reader;
  ASSERT_TRUE(reader.open(target().c_str()).ok());
  const auto weights = kel::zym2::SectionType::WeightData;
  const auto distance = reader.tensorView("blk.0.ffn_up.weight").data - reader.sectionData(weights);
  const auto at = static_cast<std::streamoff>(reader.section(weights)->offset) + distance;
  reader.close();
  std::fstream file(target(), std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(at);
  file.write("\xC0\x7F", 2);  // a NaN of type BF16
  file.close();
  unsetenv("ZYM_PLUGIN");
  const Outcome run = zym({"run", target(), "--chat", "-p", "Hello"});
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.err.find("names the tensors at fault"), std::string::npos) << run.err;
  EXPECT_EQ(zym({"check", target(), "--full"})
                .out.rfind("blk.0.ffn_up.weight: row 0, value 0 is not finite\n", 0),
            0U);
}

TEST_F(ConvertCommandTest, SummaryTellsWhatBecameOfEveryGroup) {
  const Outcome outcome = zym({"convert", kDemo, target(), "--type", "q8_0"});
  EXPECT_NE(
      outcome.out.find("token_embd.weight                 1  BF16    49.2 kB  Q8_0    26.1 kB  "
                       "type as asked for\n"),
      std::string::npos)
      << outcome.out;
  EXPECT_NE(
      outcome.out.find("attn_norm.weight                 32  F32     4.10 kB  F32     4.10 kB  "
                       "kept\n"),
      std::string::npos)
      << outcome.out;
}

TEST_F(ConvertCommandTest, TypesAreThoseAskedFor) {
  const Json kept = converted({});
  EXPECT_EQ(typeOf(kept, "blk.0.ffn_down.weight"), "BF16");
  EXPECT_EQ(typeOf(kept, "blk.0.ssm_a"), "F32");
  const Json mixed = converted({"--type", "Q8_0", "--embedding-type", "F32", "--vocab", "RAW"});
  EXPECT_EQ(typeOf(mixed, "blk.0.ffn_down.weight"), "Q8_0");
  EXPECT_EQ(typeOf(mixed, "token_embd.weight"), "F32");
  const Json small = converted({"--preset", "small"});
  EXPECT_EQ(typeOf(small, "blk.0.ffn_down.weight"), "Q5_K");
  EXPECT_EQ(typeOf(small, "blk.0.ssm_out.weight"), "Q8_0");
  EXPECT_EQ(typeOf(small, "blk.0.ssm_beta.weight"), "BF16");
}

TEST_F(ConvertCommandTest, VocabularyFormIsTheTokenizersLabel) {
  EXPECT_EQ(converted({})["tokenizer"]["label"], "alphabet");
  EXPECT_EQ(converted({"--vocab", "raw"})["tokenizer"]["label"], "raw");
}

TEST_F(ConvertCommandTest, NameIsTheSourcesUnlessGiven) {
  EXPECT_EQ(converted({})["metadata"]["general.name"], "demo");
  EXPECT_EQ(converted({"--name", "Kleines Mod\u00E8le"})["metadata"]["general.name"],
            "Kleines Mod\u00E8le");
}

TEST_F(ConvertCommandTest, BytesDoNotDependOnTheThreads) {
  ASSERT_EQ(zym({"convert", kDemo, target(), "--type", "q4_k", "--threads", "1"}).status, 0);
  const std::string one = contentsOf(target());
  ASSERT_EQ(zym({"convert", kDemo, target(), "--type", "q4_k", "--threads", "3", "--force"}).status,
            0);
  EXPECT_TRUE(one == contentsOf(target()));
}

TEST_F(ConvertCommandTest, ADryRunNeedsNoTargetAndWritesNothing) {
  const Outcome outcome = zym({"convert", kDemo, "--dry-run", "--type", "q4_k"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.out.rfind("demo (safetensors)\n", 0), 0U) << outcome.out;
  EXPECT_NE(outcome.out.find("in all; nothing was written\n"), std::string::npos) << outcome.out;
  EXPECT_EQ(zym({"convert", kDemo, target(), "--dry-run"}).status, 0);
  EXPECT_TRUE(fs::is_empty(output));
}

TEST_F(ConvertCommandTest, PlanChoosesTypesByPattern) {
  const Json report = converted({"--plan", write("types", "*.ffn_down.weight q4_k\n* bf16\n")});
  EXPECT_EQ(typeOf(report, "blk.0.ffn_down.weight"), "Q4_K");
  EXPECT_EQ(typeOf(report, "blk.0.ffn_up.weight"), "BF16");
  fs::remove(target());
  const std::string faulty = write("faulty", "* q8_0\n* large\n");
  expectRefused({kDemo, target(), "--plan", faulty},
                faulty + ":2: \"large\" is not a type that matrices are stored in");
}

TEST_F(ConvertCommandTest, WrongUseExitsWithTwo) {
  expectRefused({kDemo},
                "DST is required, as in: zym convert model.gguf model.zym; see zym convert --help",
                2);
  expectRefused({kDemo, target(), "--type", "q6_k"},
                "--type is one of f32|bf16|q8_0|q5_k|q4_k, not \"q6_k\"", 2);
  expectRefused({kDemo, target(), "--embedding-type", ""}, "--embedding-type is one of", 2);
  expectRefused({kDemo, target(), "--preset", "tiny"},
                "--preset is one of small|balanced|best|full, not \"tiny\"", 2);
  expectRefused({kDemo, target(), "--vocab", "bytes"},
                "--vocab is one of alphabet|raw, not \"bytes\"", 2);
  expectRefused({kDemo, target(), "--preset", "best", "--type", "bf16"}, "excludes", 2);
}

TEST_F(ConvertCommandTest, MissingSourceIsOneClearLine) {
  expectRefused({folder / "missing.gguf", target()}, "missing.gguf: No such file or directory");
}

TEST_F(ConvertCommandTest, FolderThatIsNoCheckpointIsOneClearLine) {
  fs::create_directory(folder / "empty");
  expectRefused({folder / "empty", target()}, "without a config.json");
}

TEST_F(ConvertCommandTest, FileThatIsNoModelIsOneClearLine) {
  expectRefused({write("model.gguf", "no model at all"), target()}, "neither a GGUF file nor");
  expectRefused({write("empty.gguf", ""), target()}, "empty");
  expectRefused({model, target()}, "is a ZYM2 container already");
}

TEST_F(ConvertCommandTest, TruncatedSourceIsOneClearLine) {
  const fs::path copy = damagedDemo();
  fs::resize_file(copy / "model.safetensors", 20'000'000);
  expectRefused({copy, target()}, "lies outside the file");
  expectRefused({write("cut.gguf", std::string("GGUF\x03\0\0\0", 8)), target()}, "GGUF");
}

TEST_F(ConvertCommandTest, OtherArchitectureIsOneClearLine) {
  const fs::path copy = damagedDemo();
  Json config = parseJson(contentsOf(copy / "config.json"));
  config["num_hidden_layers"] = 24;
  std::ofstream(copy / "config.json") << config;
  expectRefused({copy, target()}, "24");
  kel::test::GgufBuilder other;
  other.text("general.architecture", "other");
  other.write(folder / "other.gguf");
  expectRefused({folder / "other.gguf", target()}, "\"other\"");
}

TEST_F(ConvertCommandTest, ExistingTargetIsRefusedUnlessForced) {
  std::ofstream(target()) << "precious";
  const Outcome refused = zym({"convert", kDemo, target()});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err,
            "zym: " + target() + ": exists already; --force replaces it, or choose another name\n");
  EXPECT_EQ(contentsOf(target()), "precious");
  EXPECT_EQ(zym({"convert", kDemo, target(), "--force"}).status, 0);
  EXPECT_EQ(zym({"check", target()}).status, 0);
}

TEST_F(ConvertCommandTest, FailureKeepsTheTargetThatWasToBeReplaced) {
  std::ofstream(target()) << "precious";
  const fs::path copy = damagedDemo();
  fs::resize_file(copy / "model.safetensors", 20'000'000);
  EXPECT_EQ(zym({"convert", copy, target(), "--force"}).status, 1);
  EXPECT_EQ(contentsOf(target()), "precious");
}

TEST_F(ConvertCommandTest, UnusableTargetIsOneClearLine) {
  expectRefused({kDemo, output}, output.string() + ": is a folder; name a file in it, " + target() +
                                     " for instance");
  expectRefused({kDemo, output / "model.bin"}, "must end in .zym");
  expectRefused({kDemo, output / "missing" / "model.zym"}, "No such file or directory");
}

// Stands in for a disk that fills up behind the check of the free space.
TEST_F(ConvertCommandTest, DiskThatFillsUpLeavesNothing) {
  const Outcome outcome = testing_support::runProcess(
      {"sh", "-c",
       "ulimit -f 4000; exec " + std::string(ZYM_PROGRAM) + " convert " + kDemo + " " + target()});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  expectOneLine(outcome.err, "cannot write " + target());
  EXPECT_TRUE(fs::is_empty(output));
}

// Needs the right to mount within a user namespace.
TEST_F(ConvertCommandTest, FullDiskIsToldBeforehand) {
  const std::string mount = "mount -t tmpfs -o size=4m none " + output.string();
  if (testing_support::runProcess({"unshare", "-rm", "sh", "-c", mount}).status != 0) {
    GTEST_SKIP() << "no file system can be mounted here";
  }
  const Outcome outcome = testing_support::runProcess(
      {"unshare", "-rm", "sh", "-c",
       mount + "; " + ZYM_PROGRAM + " convert " + kDemo + " " + target() + "; status=$?; ls -A " +
           output.string() + "; exit $status"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.out, "");
  expectOneLine(outcome.err, "not enough space for " + target());
}

// A conversion that takes seconds, stopped once it writes.
class StoppedConversionTest : public ConvertCommandTest {
 protected:
  // Whether the process has a file open in the folder for its output, with or without a name.
  bool writesOutput(const std::string& process) const {
    std::error_code error;  // files that are closed meanwhile, and a process that has not begun
    for (fs::directory_iterator at("/proc/" + process + "/fd", error), end; !error && at != end;
         at.increment(error)) {
      std::error_code closed;
      const std::string open = fs::read_symlink(at->path(), closed).string();
      if (open.starts_with(output.string() + "/")) {
        return true;
      }
    }
    return false;
  }

  // Whether the conversion has begun to write.
  bool waitForOutput() const {
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < until) {
      std::string process = contentsOf(folder / "pid");
      if (process.ends_with('\n')) {
        process.pop_back();
        if (writesOutput(process)) {
          return true;
        }
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }

  Outcome stoppedBy(const std::string& signalName) const {
    const std::string source = folder / "slow";
    kel::test::writeSlowCheckpoint(source);
    Outcome outcome;
    std::thread conversion([&] {
      outcome = testing_support::runProcess({"sh", "-c",
                                             "echo $$ >" + (folder / "pid").string() + "; exec " +
                                                 ZYM_PROGRAM + " convert " + source + " " +
                                                 target() + " --type q8_0 --force"});
    });
    EXPECT_TRUE(waitForOutput());
    const Outcome kill = testing_support::runProcess(
        {"sh", "-c", "kill -" + signalName + " $(cat " + (folder / "pid").string() + ")"});
    EXPECT_EQ(kill.status, 0) << kill.err;
    conversion.join();
    return outcome;
  }
};

TEST_F(StoppedConversionTest, CtrlCLeavesNothing) {
  const Outcome outcome = stoppedBy("INT");
  EXPECT_EQ(outcome.status, 130);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "zym: stopped; nothing was written\n");
  EXPECT_TRUE(fs::is_empty(output));
}

TEST_F(StoppedConversionTest, ClosedTerminalLeavesTheOldTarget) {
  std::ofstream(target()) << "precious";
  const Outcome outcome = stoppedBy("HUP");
  EXPECT_EQ(outcome.status, 128 + SIGHUP);
  EXPECT_EQ(contentsOf(target()), "precious");
  EXPECT_EQ(std::distance(fs::directory_iterator(output), fs::directory_iterator()), 1);
}

// Where files need a name while they grow, the next conversion removes what was left.
TEST_F(StoppedConversionTest, KilledOneLeavesNothingBesideTheNextOnesTarget) {
  EXPECT_EQ(stoppedBy("KILL").status, 128 + SIGKILL);
  EXPECT_FALSE(fs::exists(target()));
  EXPECT_EQ(zym({"convert", kDemo, target()}).status, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(output), fs::directory_iterator()), 1);
}

}  // namespace
}  // namespace zym
