// What the tests that drive the program share: where it is, and a folder of their own.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/process.h"
#include "tests/host/model_file.h"

namespace zym::testing_support {

// The program with a runtime library that needs no model.
class ProgramTest : public testing::Test {
 protected:
  void SetUp() override {
    std::signal(SIGPIPE, SIG_IGN);
    std::filesystem::create_directories(folder);
    setenv("ZYM_PLUGIN", ZYM_FAKE_RUNTIME, 1);
    setenv("XDG_STATE_HOME", folder.c_str(), 1);
    setenv("XDG_CACHE_HOME", folder.c_str(), 1);
    ASSERT_TRUE(writeSmallModel(model).ok());
  }
  void TearDown() override { std::filesystem::remove_all(folder); }

  static Outcome zym(std::vector<std::string> words, const std::string& input = "") {
    words.insert(words.begin(), ZYM_PROGRAM);
    return runProcess(words, input);
  }

  std::filesystem::path folder =
      std::filesystem::path(testing::TempDir()) / ("zym." + std::to_string(getpid()));
  std::string model = folder / "small.zym";
};

}  // namespace zym::testing_support
