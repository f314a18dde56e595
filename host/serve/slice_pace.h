// How much of a prompt is read at once while replies are on their way.
#pragma once

#include <cstddef>

namespace zym {

// Learns from the time that slices take. It decides about speed alone: texts are the same.
class SlicePace {
 public:
  static constexpr size_t kLongest = 128;  // tokens: a batch of the forward pass
  static constexpr size_t kShortest = 16;  // below, weights are read for too little

  // Tokens of the next slice. While others write, about as many as are read in a quarter of a
  // second: so long they wait between two tokens.
  size_t tokens(bool othersWrite) const;

  void saw(size_t tokens, double seconds);

 private:
  double tokenSeconds = 0;  // 0: not known
};

}  // namespace zym
