#include "host/terminal/interrupt.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>

namespace zym {
namespace {

// Written by the handler; int is what the cancel flag of a turn must be, and is read whole.
volatile int cancelRequested = 0;
volatile std::sig_atomic_t interrupted = 0;
volatile std::sig_atomic_t cancellable = 0;
volatile std::sig_atomic_t leavesAtOnce = 0;

void onInterrupt(int) {
  if (cancellable != 0 && cancelRequested != 0 && leavesAtOnce != 0) {
    _exit(kInterruptedExit);
  }
  if (cancellable != 0) {
    cancelRequested = 1;
  }
  interrupted = 1;
}

void catchSignal(int number) {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  // A reply that waits for room in a pipe is not cut off. The wait for input returns all the same:
  // ppoll never restarts.
  action.sa_flags = SA_RESTART;
  sigaction(number, &action, nullptr);
}

}  // namespace

void catchInterrupts() {
  catchSignal(SIGINT);
}

void catchRequestsToEnd() {
  for (const int number : {SIGPIPE, SIGXFSZ}) {
    std::signal(number, SIG_IGN);
  }
  for (const int number : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_IGN) {
      catchSignal(number);
    }
  }
}

volatile int* cancelFlag() {
  return &cancelRequested;
}

CancelScope::CancelScope(FurtherInterrupt further) {
  leavesAtOnce = further == FurtherInterrupt::Leaves ? 1 : 0;
  cancelRequested = 0;
  cancellable = 1;
}

CancelScope::~CancelScope() {
  cancellable = 0;
  interrupted = 0;
}

bool CancelScope::cancelled() const {
  return cancelRequested != 0;
}

bool waitForInput(int fd) {
  sigset_t interrupt;
  sigset_t before;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  // Blocked but for the wait itself: a Ctrl-C between the test and the wait would be slept over.
  pthread_sigmask(SIG_BLOCK, &interrupt, &before);
  pollfd ready{fd, POLLIN, 0};
  while (interrupted == 0 && ppoll(&ready, 1, nullptr, &before) < 0 && errno == EINTR) {
  }
  // A Ctrl-C in front of bytes that are ready as well is delivered here: the bytes come after it.
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (interrupted == 0) {
    return true;
  }
  interrupted = 0;
  return false;
}

}  // namespace zym
