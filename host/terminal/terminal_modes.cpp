#include "host/terminal/terminal_modes.h"

#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string_view>

#include "host/terminal/interrupt.h"

namespace zym {
namespace {

constexpr std::string_view kMarkPastes = "\x1b[?2004h";
constexpr std::string_view kPlainPastes = "\x1b[?2004l";

constexpr std::array<int, 6> kSignals = {SIGTSTP, SIGCONT, SIGWINCH, SIGTERM, SIGHUP, SIGQUIT};

// Read by signal handlers. The terminals' modes are written while the flag beside them is 0.
volatile std::sig_atomic_t guarded = 0;
volatile std::sig_atomic_t editing = 0;
volatile std::sig_atomic_t continued = 0;
volatile std::sig_atomic_t resized = 0;
int inputFd = -1;
int outputFd = -1;
termios shellModes;
termios editorModes;
std::array<struct sigaction, kSignals.size()> formerActions;

// A program in the background that sets a terminal's modes would be stopped for it.
bool inForeground() {
  return tcgetpgrp(inputFd) == getpgrp();
}

void send(std::string_view sequence) {
  // There is nobody to tell of a failure.
  (void)!::write(outputFd, sequence.data(), sequence.size());
}

void takeTerminal() {
  if (guarded == 0 || !inForeground()) {
    return;
  }
  if (editing != 0) {
    tcsetattr(inputFd, TCSANOW, &editorModes);
  }
  send(kMarkPastes);
}

void onSignal(int number);

void install(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  // A write that waits for room goes on. The wait for input returns nevertheless.
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

// Does what the signal does to a program that does not handle it.
void obey(int number) {
  install(number, SIG_DFL);
  sigset_t only;
  sigset_t before;
  sigemptyset(&only);
  sigaddset(&only, number);
  std::raise(number);
  pthread_sigmask(SIG_UNBLOCK, &only, &before);  // stops or ends here
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  install(number, onSignal);
}

void onSignal(int number) {
  if (isPassedToWaiter(number)) {
    return;
  }
  const int error = errno;
  if (number == SIGWINCH) {
    resized = 1;
  } else if (number == SIGCONT) {
    takeTerminal();
    continued = 1;
  } else {
    giveTerminalBack();
    obey(number);
    // Where nobody could continue the program, it is not stopped, and SIGCONT does not come.
    takeTerminal();
    continued = 1;
  }
  errno = error;
}

}  // namespace

void giveTerminalBack() {
  if (guarded == 0 || !inForeground()) {
    return;
  }
  if (editing != 0) {
    tcsetattr(inputFd, TCSANOW, &shellModes);
  }
  send(kPlainPastes);
}

TerminalModes::TerminalModes(int input, int output) {
  inputFd = input;
  outputFd = output;
  tcgetattr(inputFd, &shellModes);
  for (size_t i = 0; i < kSignals.size(); ++i) {
    sigaction(kSignals[i], nullptr, &formerActions[i]);
    if (formerActions[i].sa_handler != SIG_IGN) {
      install(kSignals[i], onSignal);
    }
  }
  guarded = 1;
  takeTerminal();
}

TerminalModes::~TerminalModes() {
  giveTerminalBack();
  guarded = 0;
  editing = 0;
  for (size_t i = 0; i < kSignals.size(); ++i) {
    sigaction(kSignals[i], &formerActions[i], nullptr);
  }
}

void TerminalModes::beginEditing() {
  editing = 0;
  if (tcgetattr(inputFd, &editorModes) == 0) {
    editing = 1;
  }
}

void TerminalModes::endEditing() {
  editing = 0;
}

bool TerminalModes::wasContinued() {
  if (continued == 0) {
    return false;
  }
  continued = 0;
  if (!inForeground()) {
    std::raise(SIGTTIN);
    return false;  // the next SIGCONT tells
  }
  return true;
}

bool TerminalModes::wasResized() {
  const bool was = resized != 0;
  resized = 0;
  return was;
}

}  // namespace zym
