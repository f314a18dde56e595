#include "host/terminal/interrupt.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <initializer_list>

#include "host/terminal/terminal_modes.h"

namespace zym {
namespace {

// Written by the signal handler. An int, since the cancel flag of a turn is one; it is written and
// read in one access.
volatile int cancelRequested = 0;
volatile std::sig_atomic_t interrupted = 0;
volatile std::sig_atomic_t cancellable = 0;
volatile std::sig_atomic_t leavesAtOnce = 0;
volatile std::sig_atomic_t cancelledBy = SIGINT;

// The thread in waitForInput. Read by signal handlers.
std::atomic<bool> someoneWaits{false};
std::atomic<pthread_t> waiter;
static_assert(std::atomic<bool>::is_always_lock_free &&
              std::atomic<pthread_t>::is_always_lock_free);

void onInterrupt(int number) {
  if (isPassedToWaiter(number)) {
    return;
  }
  if (cancellable != 0 && cancelRequested != 0 && leavesAtOnce != 0) {
    giveTerminalBack();
    _exit(kInterruptedExit);
  }
  if (cancellable != 0) {
    if (cancelRequested == 0) {
      cancelledBy = number;
    }
    cancelRequested = 1;
  }
  interrupted = 1;
}

void catchSignal(int number) {
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  // With SA_RESTART a write that waits for room in a pipe goes on after the signal. The wait for
  // input still returns: ppoll is never restarted.
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

int cancelledExit() {
  return 128 + cancelledBy;
}

bool waitForInput(int fd, const std::function<void()>& beforeWaiting) {
  sigset_t noticed;
  sigset_t before;
  sigemptyset(&noticed);
  for (const int number : {SIGINT, SIGCONT, SIGWINCH}) {
    sigaddset(&noticed, number);
  }
  waiter = pthread_self();
  someoneWaits = true;
  // These are blocked except during the wait: one that came between the test of its flag and the
  // wait would not end the wait.
  pthread_sigmask(SIG_BLOCK, &noticed, &before);
  pollfd ready{fd, POLLIN, 0};
  while (interrupted == 0) {
    if (beforeWaiting) {
      beforeWaiting();
    }
    if (ppoll(&ready, 1, nullptr, &before) >= 0 || errno != EINTR) {
      break;
    }
  }
  // When bytes are ready too, ppoll may return without delivering a pending Ctrl-C. Unblocking
  // delivers it here, before the bytes are read.
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  someoneWaits = false;
  if (interrupted == 0) {
    return true;
  }
  interrupted = 0;
  return false;
}

bool isPassedToWaiter(int number) {
  if (!someoneWaits) {
    return false;
  }
  const pthread_t target = waiter;
  return pthread_equal(target, pthread_self()) == 0 && pthread_kill(target, number) == 0;
}

}  // namespace zym
