// How often each token occurs in a part of a history that moves along with it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

namespace engine {

// Costs as much as the part moves, and not as much as it holds.
class TokenCounts {
 public:
  struct Entry {
    int32_t id;
    uint32_t count;  // at least 1
  };

  // Counts history[from, to). What was counted before is still in place in history, or clear() was
  // called.
  void moveTo(std::span<const int32_t> history, size_t from, size_t to);
  void clear();

  // Every id once, in no particular order.
  std::span<const Entry> entries() const { return counted; }

 private:
  void add(int32_t id);
  void remove(int32_t id);

  size_t first = 0;
  size_t end = 0;
  std::vector<Entry> counted;
  std::unordered_map<int32_t, size_t> places;  // of an id in counted
};

}  // namespace engine
