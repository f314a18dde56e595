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
