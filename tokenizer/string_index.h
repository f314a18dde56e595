// Finds byte strings in a list: the position of the first string that equals a key.
//
// A flat hash table with open addressing. Merging a text asks it several times per byte, mostly for
// keys that are not there; the slot alone answers those, without following a pointer to the string.
//
// The strings come from files of any origin. Their hash depends on a seed that no file can know, so
// that none can hold strings chosen to fall into one place, which would make building the table
// quadratic. Nothing but the order of the slots depends on the seed.
#pragma once

#include <array>
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
  // The seed is drawn from the system.
  void build(const std::vector<std::string>& strings);
  // The same with a given seed.
  void build(const std::vector<std::string>& strings, uint64_t seed);

  // Position of key, or kAbsent. The pair form looks for left + ' ' + right; it allocates for keys
  // of more than 64 bytes alone, and then only where a string is that long.
  int32_t find(std::string_view key) const;
  int32_t findPair(std::string_view left, std::string_view right) const;

  // Number of different strings.
  size_t size() const { return count; }
  bool empty() const { return count == 0; }

  // The most slots that finding one of the strings looks at; 0 when empty. Reads the whole table.
  size_t longestProbe() const;

 private:
  struct Slot {
    uint32_t tag = 0;  // bits of the hash that the slot's place does not tell
    int32_t position = kAbsent;
  };

  // Up to 16 bytes as one little-endian number: hashed and compared in registers.
  __extension__ using ShortKey = unsigned __int128;
  static ShortKey shortKey(std::string_view bytes);

  uint64_t hashOf(std::string_view key) const;
  uint64_t hashOf(ShortKey key, size_t nBytes, uint64_t before = 0) const;
  template <typename Equals>
  size_t slotOf(uint64_t hash, Equals equals) const;
  int32_t findShort(ShortKey key, size_t nBytes) const;

  // Positions of the strings "x y" by x * 128 + y, x and y single ASCII characters; empty when the
  // index is. Every text starts out as such pairs, and this table stays in the near caches.
  std::vector<int32_t> asciiPairs;
  const std::string* first = nullptr;  // of the list
  std::vector<Slot> slots;             // a power of two, at most half full; none when empty
  std::array<uint64_t, 3> secrets{};   // of the hash
  int shift = 0;                       // hash >> shift is a slot
  size_t count = 0;
  size_t longest = 0;  // bytes of the longest string
};

}  // namespace kel
