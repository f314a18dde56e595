// Ctrl-C (SIGINT) in an interactive program.
//
// While a turn runs, the first one sets the turn's cancel flag and a further one leaves at once
// with kInterruptedExit. At the prompt it only makes the pending read return.
#pragma once

namespace zym {

constexpr int kInterruptedExit = 130;

// Installs the handler; without it SIGINT ends the program.
void catchInterrupts();
// The flag that a turn, or a conversion, is given as its cancel flag.
volatile int* cancelFlag();

// Marks the span in which Ctrl-C cancels; clears the flag at its start.
class CancelScope {
 public:
  CancelScope();
  ~CancelScope();
  CancelScope(const CancelScope&) = delete;
  CancelScope& operator=(const CancelScope&) = delete;

  bool cancelled() const;
};

// Waits until fd can be read, or has ended. False when Ctrl-C came, since the last call or while
// waiting; none is missed in between.
bool waitForInput(int fd);

}  // namespace zym
