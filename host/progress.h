// Progress of long work on standard error: a bar that redraws itself on a terminal, otherwise a
// plain line now and then. One thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace zym {

// "[#########           ]  45 %  512 MB of 1.14 GB  310 MB/s  2.0 s left". Without an estimate (no
// bytes or no time yet) rate and time left are missing.
std::string progressText(uint64_t done, uint64_t total, double seconds);

class Progress {
 public:
  // label: one or two words in front of plain lines and of the bar ("converting").
  explicit Progress(std::string_view label);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Bytes done so far. Draws at most ten times a second, or a plain line every ten seconds.
  void update(uint64_t done, uint64_t total);
  // Removes the bar. Called by the destructor too.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  std::string what;
  bool onTerminal;
  Clock::time_point started;
  Clock::time_point lastDrawn;
  bool drawn = false;
};

}  // namespace zym
