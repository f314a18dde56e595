// The program of docs/engine.md, built from the document, run as a person would run it.
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>

#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

#include "convert/convert.h"
#include "tests/support/temp_dir.h"

namespace {

struct Outcome {
  int exitStatus = -1;
  std::string output;
};

Outcome run(const std::string& input, const std::string& arguments) {
  const std::string command =
      "printf '" + input + "' | OMP_NUM_THREADS=1 " ZYM_ENGINE_EXAMPLE " " + arguments;
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

TEST(EngineExample, ChatsWithTheDemonstrationModel) {
  const kel::test::TempDir folder;
  kel::convert::ConvertOptions options;
  options.source = ZYM_DEMO_FOLDER;
  options.target = folder.file("demo.zym");
  kel::convert::ProgressSink quiet;
  ASSERT_TRUE(kel::convert::convertModel(options, quiet).status.ok());
  const std::string counts = folder.file("counts");
  const Outcome result =
      run("What is the capital of Canada?\\nWhat is 1 + 1?\\n", options.target + " 2>" + counts);
  EXPECT_EQ(0, result.exitStatus);
  EXPECT_EQ("The capital of Canada is Ottawa.\n1 + 1 = 2.\n", result.output);
  std::ifstream file(counts);
  size_t read = 0;
  size_t generated = 0;
  size_t reused = 0;
  std::string words[4];
  file >> read >> words[0] >> words[1] >> generated >> words[2] >> reused;
  EXPECT_GT(generated, 0U);
  EXPECT_GT(reused, 0U);
}

TEST(EngineExample, SaysWhyItCannotOpenAModel) {
  const Outcome result = run("", "/no/such/model.zym 2>&1");
  EXPECT_EQ(1, result.exitStatus);
  EXPECT_EQ("/no/such/model.zym: No such file or directory\n", result.output);
}

}  // namespace
