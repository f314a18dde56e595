// Runs a program the way a shell does and collects what it prints.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace zym::testing_support {

struct Outcome {
  int status = -1;  // exit status; 128 + signal when a signal ended it
  std::string out;
  std::string err;
};

inline std::string readToEnd(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t got = 0;
  while ((got = ::read(fd, buffer, sizeof(buffer))) > 0) {
    text.append(buffer, static_cast<size_t>(got));
  }
  ::close(fd);
  return text;
}

inline int exitStatus(int waited) {
  return WIFEXITED(waited) ? WEXITSTATUS(waited) : 128 + WTERMSIG(waited);
}

// words: the program and its arguments. input: what it finds on standard input.
inline Outcome runProcess(const std::vector<std::string>& words, const std::string& input = "") {
  int in[2];
  int out[2];
  int err[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    return {};
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  std::vector<char*> argv;
  for (const std::string& word : words) {
    argv.push_back(const_cast<char*>(word.c_str()));
  }
  argv.push_back(nullptr);
  pid_t child = -1;
  const int failed = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  Outcome outcome;
  std::thread feeder([&] {
    // A child that stops reading ends the feeding; SIGPIPE is ignored by the tests.
    (void)!::write(in[1], input.data(), input.size());
    ::close(in[1]);
  });
  std::thread listener([&] { outcome.err = readToEnd(err[0]); });
  outcome.out = readToEnd(out[0]);
  feeder.join();
  listener.join();
  int waited = 0;
  if (failed == 0 && waitpid(child, &waited, 0) == child) {
    outcome.status = exitStatus(waited);
  }
  return outcome;
}

}  // namespace zym::testing_support
