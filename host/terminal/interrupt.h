// Ctrl-C (SIGINT) in an interactive program, and requests to end during work that has to tidy up.
//
// While a turn runs, the first one sets the turn's cancel flag and a further one leaves at once
// with kInterruptedExit. At the prompt it only makes waitForInput return.
#pragma once

#include <functional>

namespace zym {

constexpr int kInterruptedExit = 130;

// Installs the handler; without it SIGINT ends the program.
void catchInterrupts();
// As above, and SIGTERM, SIGQUIT and SIGHUP (the terminal was closed) act like Ctrl-C. Signals that
// were ignored when the program started stay ignored, so that nohup works. Writing to a closed
// pipe, or past the limit of a file's size, fails instead of ending the program.
void catchRequestsToEnd();
// The flag that a turn, or a conversion, is given as its cancel flag.
volatile int* cancelFlag();

// What a second Ctrl-C does in a span that the first one has cancelled. Work that would leave a
// file if it ended at once ignores it, provided that it looks at the flag often.
enum class FurtherInterrupt { Leaves, IsIgnored };

// Marks the span in which Ctrl-C cancels; clears the flag at its start.
class CancelScope {
 public:
  explicit CancelScope(FurtherInterrupt further = FurtherInterrupt::Leaves);
  ~CancelScope();
  CancelScope(const CancelScope&) = delete;
  CancelScope& operator=(const CancelScope&) = delete;

  bool cancelled() const;
};

// Exit status of a program that ends because its last span was cancelled: 128 and the number of the
// first signal, as a shell tells of a program that a signal ended. kInterruptedExit for Ctrl-C.
int cancelledExit();

// Waits until fd can be read, or has ended. False when Ctrl-C came, since the last call or while
// waiting; none is missed in between. beforeWaiting, if any, is called before the wait and again
// after each other signal; it misses neither a SIGCONT nor a SIGWINCH.
bool waitForInput(int fd, const std::function<void()>& beforeWaiting = nullptr);

// For signal handlers: whether another thread waits for input, which is then sent the signal
// instead. A process's signal goes to any thread that does not block it, such as those of a team
// that has nothing to do; the wait would not notice.
bool isPassedToWaiter(int number);

}  // namespace zym
