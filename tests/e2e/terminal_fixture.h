// zym at a terminal: a pseudo-terminal stands in for the person's.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>

#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/e2e/fixture.h"
#include "tests/host/terminal/screen.h"

namespace zym::testing_support {

constexpr std::chrono::seconds kPatience{20};

// What a shell does with a job: waits until it ends or stops, then takes the terminal, with modes
// of its own, until a line is typed, and continues the job. Tells what modes the terminal was left
// with.
[[noreturn]] inline void runAsShell(char** argv) {
  for (const int number : {SIGTTOU, SIGTTIN, SIGTSTP}) {
    std::signal(number, SIG_IGN);
  }
  const pid_t job = fork();
  if (job == 0) {
    setpgid(0, 0);
    tcsetpgrp(STDIN_FILENO, getpid());
    for (const int number : {SIGTTOU, SIGTTIN, SIGTSTP}) {
      std::signal(number, SIG_DFL);
    }
    execv(argv[0], argv);
    _exit(127);
  }
  setpgid(job, job);
  tcsetpgrp(STDIN_FILENO, job);
  int waited = 0;
  while (waitpid(job, &waited, WUNTRACED) == job && WIFSTOPPED(waited)) {
    tcsetpgrp(STDIN_FILENO, getpgrp());
    termios left{};
    tcgetattr(STDIN_FILENO, &left);
    const bool plain =
        (left.c_lflag & tcflag_t{ICANON}) != 0 && (left.c_lflag & tcflag_t{ECHO}) != 0;
    termios own = left;
    own.c_lflag |= tcflag_t{ICANON} | tcflag_t{ECHO};
    own.c_iflag |= tcflag_t{ICRNL};
    tcsetattr(STDIN_FILENO, TCSANOW, &own);
    const std::string told = plain ? "\nstopped\n" : "\nstopped with modes of its own\n";
    char line[64];
    if (write(STDOUT_FILENO, told.data(), told.size()) < 0 ||
        read(STDIN_FILENO, line, sizeof(line)) <= 0) {
      break;
    }
    tcsetpgrp(STDIN_FILENO, job);
    kill(-job, SIGCONT);
  }
  _exit(exitStatus(waited));
}

class TerminalTest : public ProgramTest {
 protected:
  void TearDown() override {
    if (child > 0) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    if (terminal >= 0) {
      close(terminal);
    }
    ProgramTest::TearDown();
  }

  // errors: where standard error goes; empty: to the terminal.
  void start(const std::string& errors = "") { startCommand({"chat", model}, errors); }
  void startCommand(std::vector<std::string> words, const std::string& errors = "") {
    words.insert(words.begin(), ZYM_PROGRAM);
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    setenv("TERM", terminalType.c_str(), 1);
    view = Screen(size.ws_col == 0 ? 80 : size.ws_col, size.ws_row == 0 ? 24 : size.ws_row);
    child = forkpty(&terminal, nullptr, nullptr, size.ws_col == 0 ? nullptr : &size);
    ASSERT_GE(child, 0);
    if (child == 0) {
      const bool redirected =
          errors.empty() || dup2(creat(errors.c_str(), 0600), STDERR_FILENO) >= 0;
      if (underShell) {
        runAsShell(argv.data());
      }
      if (redirected) {
        execv(argv[0], argv.data());
      }
      _exit(127);
    }
  }

  void type(const std::string& keys) const {
    ASSERT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Reads until text has appeared behind what earlier calls have taken.
  testing::AssertionResult waitFor(const std::string& text) {
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < until) {
      const size_t at = screen.find(text);
      if (at != std::string::npos) {
        screen.erase(0, at + text.size());
        return testing::AssertionSuccess();
      }
      if (!readMore()) {
        break;
      }
    }
    return testing::AssertionFailure() << "no \"" << text << "\" in: " << screen;
  }

  // Reads until the terminal shows these rows and nothing else.
  testing::AssertionResult shows(const std::string& rows) {
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (view.text() != rows && std::chrono::steady_clock::now() < until && readMore()) {
    }
    return view.text() == rows ? testing::AssertionSuccess()
                               : testing::AssertionFailure() << "expected\n"
                                                             << rows << "\nseen\n"
                                                             << view.text();
  }

  void showOnlyThePrompt() { view.feed("\x1b[H\x1b[J> "); }

  // Reads what there is, or waits a little. False when the program has left the terminal.
  bool readMore() {
    pollfd ready{terminal, POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) {
      return true;
    }
    char buffer[1024];
    const ssize_t got = read(terminal, buffer, sizeof(buffer));
    if (got <= 0) {
      return false;
    }
    const std::string_view bytes(buffer, static_cast<size_t>(got));
    screen += bytes;
    view.feed(bytes);
    return true;
  }

  bool edits() const {
    termios settings{};
    return tcgetattr(terminal, &settings) == 0 && (settings.c_lflag & tcflag_t{ICANON}) == 0;
  }

  int waitForExit() {
    int waited = 0;
    // The rest of the output is taken off the terminal, so that the child can end.
    (void)waitFor("a text that never comes");
    pid_t ended = 0;
    for (int i = 0; i < 100 && (ended = waitpid(child, &waited, WNOHANG)) == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (ended == 0) {
      ADD_FAILURE() << "the program does not end; on the screen: " << screen;
      kill(child, SIGKILL);
      waitpid(child, &waited, 0);
    }
    child = -1;
    return exitStatus(waited);
  }

  void resize(uint16_t columns, uint16_t rows) {
    size = {rows, columns, 0, 0};
    if (terminal >= 0) {
      ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
    }
  }

  std::string terminalType = "xterm";
  bool underShell = false;
  Screen view{80, 24};
  winsize size{};  // of the terminal; nothing: not known
  int terminal = -1;
  pid_t child = -1;
  std::string screen;
};

}  // namespace zym::testing_support
