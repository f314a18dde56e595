// The slow part of a check: what it has to read, how far it is, and whether it is to go on.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>

namespace zym {

// Bytes looked at so far, and in all. False ends the check.
using CheckProgress = std::function<bool(uint64_t done, uint64_t total)>;

// One thread at a time.
class Reading {
 public:
  // progress may be null.
  explicit Reading(CheckProgress progress) : report(std::move(progress)) {}
  void expect(uint64_t nBytes) { total += nBytes; }
  // nBytes more have been read. False when the check is to end.
  bool advance(uint64_t nBytes) {
    done += nBytes;
    ended = ended || (report && !report(done, total));
    return !ended;
  }
  bool isEnded() const { return ended; }

 private:
  CheckProgress report;
  uint64_t done = 0;
  uint64_t total = 0;
  bool ended = false;
};

}  // namespace zym
