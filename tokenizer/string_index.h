// Finds byte strings in a list: the position of the first string that equals a key.
//
// A flat hash table with open addressing. Merging a text asks it several times per byte, mostly for
// keys that are not there; the slot alone answers those, without following a pointer to the string.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kel {

// Views the strings it was built from: they stay where they are, unchanged, while it is in use.
// Lookups on any number of threads; build alone.
class StringIndex {
 public:
  static constexpr int32_t kAbsent = -1;

  // Replaces the contents by strings. Of equal strings the first counts. At most 2^31 - 1 strings.
  void build(const std::vector<std::string>& strings);

  // Position of key, or kAbsent. The pair form looks for left + ' ' + right, without joining them.
  int32_t find(std::string_view key) const;
  int32_t findPair(std::string_view left, std::string_view right) const;

  // Number of different strings.
  size_t size() const { return count; }
  bool empty() const { return count == 0; }

 private:
  struct Slot {
    uint32_t tag = 0;  // bits of the hash that the slot's place does not tell
    int32_t position = kAbsent;
  };

  template <typename Equals>
  size_t slotOf(uint64_t hash, Equals equals) const;

  // Positions of the strings "x y" by x * 128 + y, x and y single ASCII characters; empty when the
  // index is. Every text starts out as such pairs, and this table stays in the near caches.
  std::vector<int32_t> asciiPairs;
  const std::string* first = nullptr;  // of the list
  std::vector<Slot> slots;             // a power of two, at most half full; none when empty
  int shift = 0;                       // hash >> shift is a slot
  size_t count = 0;
};

}  // namespace kel
