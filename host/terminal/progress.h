// Progress of long work on standard error: a bar that redraws itself on a terminal, otherwise a
// plain line now and then. One thread at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zym {

enum class ProgressUnit { Bytes, Positions };

// "[#########           ]  45 %  512 MB of 1.14 GB  310 MB/s  2.0 s left", or "576 of 1280
// positions  12.5/s". Without an estimate (nothing done or no time yet) rate and time left are
// missing. Where all of it takes more than `columns` (0: as many as it takes), less is said.
std::string progressText(uint64_t done, uint64_t total, double seconds,
                         ProgressUnit unit = ProgressUnit::Bytes, size_t columns = 0);

class Progress {
 public:
  // label: one or two words in front of plain lines and of the bar ("converting").
  explicit Progress(std::string_view label, ProgressUnit counted = ProgressUnit::Bytes);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // done of total so far. Draws the bar at once and then at most ten times a second, or a plain
  // line every ten seconds.
  void update(uint64_t done, uint64_t total);
  // Removes the bar. Called by the destructor too.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  std::string what;
  ProgressUnit unit;
  bool onTerminal;
  Clock::time_point started;
  Clock::time_point lastDrawn;
  bool drawn = false;
};

}  // namespace zym
