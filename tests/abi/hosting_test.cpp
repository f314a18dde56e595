// The host of docs/hosting.md, built from the document, run as a person would run it.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/chat_model.h"
#include "tests/support/temp_dir.h"

namespace {

struct Outcome {
  int exitStatus = -1;
  std::string output;  // standard output; standard error as the command directs it
};

Outcome run(const std::string& arguments) {
  const std::string command = "OMP_NUM_THREADS=1 " ZYM_HOSTING_EXAMPLE " " + arguments;
  FILE* const pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    throw std::runtime_error("popen failed");
  }
  Outcome result;
  std::array<char, 256> chunk{};
  while (::fgets(chunk.data(), chunk.size(), pipe) != nullptr) {
    result.output += chunk.data();
  }
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) {
    result.exitStatus = WEXITSTATUS(status);
  }
  return result;
}

class Hosting : public testing::Test {
 protected:
  std::string model(const kel::test::ChatModel& what) const {
    const std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, what);
    return path;
  }

  kel::test::TempDir folder;
};

// "hi" and the framing make 21 positions. The 40th piece is the last one and is not fed.
TEST_F(Hosting, ExampleStreamsATurnAndCancelsIt) {
  const Outcome result = run(ZYM_PLUGIN_PATH " " + model({.favourite = "a"}) + " hi 2>/dev/null");
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ(std::string(40, 'a') + "\n40 pieces, 60 positions\n", result.output);
}

TEST_F(Hosting, ExampleShowsWhatEndsByItself) {
  const Outcome result =
      run(ZYM_PLUGIN_PATH " " + model({.favourite = "<|im_end|>"}) + " hi 2>/dev/null");
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ("\n0 pieces, 21 positions\n", result.output);
}

// Typed text reaches the model in letters, of which each is a token here, and pieces become bytes
// again: a character that is split over two of them, and a space in front of every one.
TEST_F(Hosting, ExampleReadsAndWritesTextThatIsSpeltInLetters) {
  const std::string path =
      model({.favourite = "<290>", .editTables = [](kel::TokenizerData& tables) {
               tables.tokens[290] = "\u0120\u00C3";  // a space, and the first byte of é
               tables.tokens[291] = "\u00C3";
               tables.tokens[292] = "\u00A9";  // its second byte
             }});
  const Outcome result = run(ZYM_PLUGIN_PATH " " + path + " h\u00E9 2>/dev/null");
  EXPECT_EQ(0, result.exitStatus);
  std::string expected;
  for (int piece = 0; piece < 40; ++piece) {
    expected += " \xC3";
  }
  EXPECT_EQ(expected + "\n40 pieces, 61 positions\n", result.output);
}

TEST_F(Hosting, ExampleSaysWhyItCannotOpenAModel) {
  const std::string missing = folder.file("missing.zym");
  Outcome result = run(ZYM_PLUGIN_PATH " " + missing + " hi 2>&1");
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ(missing + ": not for this runtime\n", result.output);

  const std::string damaged = model({.editTensors = [](std::vector<kel::test::TensorPlan>& plan) {
    std::erase_if(plan, [](const auto& tensor) { return tensor.name == "output_norm.weight"; });
  }});
  result = run(ZYM_PLUGIN_PATH " " + damaged + " hi 2>&1");
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ(damaged + ": qwen35 model bind failed\n", result.output);
}

}  // namespace
