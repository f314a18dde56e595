// `zym serve` as a process of its own, and a caller of it.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tests/e2e/process.h"
#include "tests/host/serve/http_client.h"
#include "tests/host/serve/serve_fixture.h"
#include "tests/support/demo_model.h"

namespace zym::testing_support {

class ServedProgram : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder =
        std::filesystem::path(::testing::TempDir()) / ("zym_serve_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    model = folder / "model.zym";
  }
  static void TearDownTestSuite() { std::filesystem::remove_all(folder); }

  void TearDown() override {
    if (child > 0) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    // The thread sanitizer lets a program go on, and one that is killed has no exit status.
    EXPECT_EQ(log().find("Sanitizer:"), std::string::npos) << log();
  }

  // Starts the program at a free port, and waits until it listens.
  void start(std::vector<std::string> words) {
    words.insert(words.begin(), {ZYM_PROGRAM, "serve", model, "--port", "0"});
    std::vector<char*> argv;
    for (const std::string& word : words) {
      argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (folder / "log").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(posix_spawn(&child, ZYM_PROGRAM, &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ASSERT_TRUE(comesTrue([&] { return log().find("Ctrl-C ends)\n") != std::string::npos; }))
        << log();
    const std::string text = log();
    const std::string before = "at http://127.0.0.1:";
    port = static_cast<uint16_t>(std::stoi(text.substr(text.find(before) + before.size())));
  }
  static std::string log() { return readToEnd(open((folder / "log").c_str(), O_RDONLY)); }
  // The exit status of a program that ends by itself.
  int end() {
    int waited = 0;
    waitpid(std::exchange(child, -1), &waited, 0);
    return exitStatus(waited);
  }
  HttpAnswer ask(const std::string& method, const std::string& path,
                 const nlohmann::json& body = nullptr, const std::string& headers = "") const {
    HttpClient caller(port);
    caller.ask(method, path, headers, body.is_null() ? "" : body.dump());
    return caller.read();
  }

  static inline std::filesystem::path folder;
  static inline std::string model;  // to be written by the suite
  pid_t child = -1;
  uint16_t port = 0;
};

// The same over the demonstration model.
class ServedDemo : public ServedProgram {
 protected:
  static void SetUpTestSuite() {
    ServedProgram::SetUpTestSuite();
    kel::test::writeDemoModel(model, kel::QuantType::Q8_0);
  }
};

}  // namespace zym::testing_support
