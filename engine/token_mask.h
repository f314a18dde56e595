// Which tokens may be chosen: a bit for every id. A reply that must follow a form (JSON, one of
// several words) has its mask set anew before every choice.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace engine {

// Any number of threads while nobody changes it.
class TokenMask {
 public:
  // Of ids below vocabulary; all are allowed, or none.
  explicit TokenMask(size_t vocabulary, bool allowsAll = true)
      : ids(vocabulary), words((vocabulary + kWordBits - 1) / kWordBits) {
    setAll(allowsAll);
  }

  size_t size() const { return ids; }

  void setAll(bool allowed) { std::fill(words.begin(), words.end(), allowed ? ~uint64_t{0} : 0); }
  // id: below size().
  void allow(size_t id) { words[id / kWordBits] |= bitOf(id); }
  // Also what another mask of the same size allows.
  void allowAll(const TokenMask& other) {
    for (size_t i = 0; i < words.size(); ++i) {
      words[i] |= other.words[i];
    }
  }
  void ban(size_t id) { words[id / kWordBits] &= ~bitOf(id); }

  // Bans what the other one, of the same size, bans.
  void keepOnly(const TokenMask& other) {
    for (size_t i = 0; i < words.size(); ++i) {
      words[i] &= other.words[i];
    }
  }

  // Ids past the end are banned.
  bool allows(size_t id) const { return id < ids && (words[id / kWordBits] & bitOf(id)) != 0; }

 private:
  static constexpr size_t kWordBits = 64;
  static uint64_t bitOf(size_t id) { return uint64_t{1} << (id % kWordBits); }

  size_t ids;
  std::vector<uint64_t> words;
};

}  // namespace engine
