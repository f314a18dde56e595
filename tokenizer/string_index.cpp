#include "tokenizer/string_index.h"

#include <sys/random.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>

namespace kel {
namespace {

// Keys up to here are joined without allocating. Merge rules of real vocabularies are shorter.
constexpr size_t kInlineKeyBytes = 64;

constexpr uint64_t kPrime = (uint64_t{1} << 61U) - 1;
constexpr size_t kCoefficientBytes = 7;  // the most that stay below the prime

__extension__ using Wide = unsigned __int128;

// a * b + c modulo the prime, up to a few multiples of it; a, c < 2^62, b < 2^61.
uint64_t multiplyAdd(uint64_t a, uint64_t b, uint64_t c) {
  const Wide product = static_cast<Wide>(a) * b;
  const uint64_t folded =
      (static_cast<uint64_t>(product) & kPrime) + static_cast<uint64_t>(product >> 61U);
  return (folded & kPrime) + (folded >> 61U) + c;
}

// The values of the polynomial fill 61 bits and differ little for short keys that differ little;
// the place is taken from the upper bits.
uint64_t spread(uint64_t hash) {
  return (hash ^ hash >> 32U) * 0x9E3779B97F4A7C15U;
}

uint64_t drawSeed() {
  uint64_t seed = 0;
  if (getrandom(&seed, sizeof(seed), GRND_NONBLOCK) == sizeof(seed)) {
    return seed;
  }
  // Where the system refuses: harder to guess than a constant.
  const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
  return static_cast<uint64_t>(now) ^ reinterpret_cast<uintptr_t>(&seed);
}

constexpr size_t kAscii = 128;

size_t asciiPair(char left, char right) {
  return static_cast<unsigned char>(left) * kAscii + static_cast<unsigned char>(right);
}

bool isAscii(char c) {
  return static_cast<unsigned char>(c) < kAscii;
}

}  // namespace

// The key as a polynomial at the secret point, modulo a prime: its length, then its bytes, seven a
// coefficient. Two keys of n coefficients meet at no more than n of 2^61 points. Without a constant
// term, so that even the difference of two short keys is known to nobody.
uint64_t StringIndex::hashOf(std::string_view key) const {
  uint64_t hash = key.size() & kPrime;
  uint64_t coefficient = 0;
  while (key.size() >= kCoefficientBytes) {
    std::memcpy(&coefficient, key.data(), kCoefficientBytes);
    hash = multiplyAdd(hash, point, coefficient);
    key.remove_prefix(kCoefficientBytes);
  }
  coefficient = 0;
  for (size_t i = 0; i < key.size(); ++i) {
    coefficient |= static_cast<uint64_t>(static_cast<unsigned char>(key[i])) << 8U * i;
  }
  return spread(multiplyAdd(multiplyAdd(hash, point, coefficient), point, 0));
}

// The slot that holds key, or the empty one where the search for it ends.
size_t StringIndex::slotOf(uint64_t hash, std::string_view key) const {
  const auto tag = static_cast<uint32_t>(hash);
  size_t i = hash >> shift;
  while (slots[i].position != kAbsent &&
         !(slots[i].tag == tag && first[slots[i].position] == key)) {
    i = (i + 1) & (slots.size() - 1);
  }
  return i;
}

void StringIndex::build(const std::vector<std::string>& strings) {
  build(strings, drawSeed());
}

void StringIndex::build(const std::vector<std::string>& strings, uint64_t seed) {
  first = strings.data();
  count = 0;
  longest = 0;
  slots.clear();
  asciiPairs.clear();
  if (strings.empty()) {
    return;
  }
  point = spread(seed) % (kPrime - kAscii) + kAscii;  // small ones mix nothing
  asciiPairs.resize(kAscii * kAscii, kAbsent);
  slots.resize(std::bit_ceil(strings.size() * 2));
  shift = 64 - std::countr_zero(slots.size());
  for (size_t i = 0; i < strings.size(); ++i) {
    const std::string& string = strings[i];
    const uint64_t hash = hashOf(string);
    Slot& slot = slots[slotOf(hash, string)];
    if (slot.position != kAbsent) {
      continue;
    }
    slot = {static_cast<uint32_t>(hash), static_cast<int32_t>(i)};
    ++count;
    longest = std::max(longest, string.size());
    if (string.size() == 3 && string[1] == ' ' && isAscii(string[0]) && isAscii(string[2])) {
      asciiPairs[asciiPair(string[0], string[2])] = static_cast<int32_t>(i);
    }
  }
}

int32_t StringIndex::find(std::string_view key) const {
  if (slots.empty() || key.size() > longest) {
    return kAbsent;
  }
  return slots[slotOf(hashOf(key), key)].position;
}

int32_t StringIndex::findPair(std::string_view left, std::string_view right) const {
  if (slots.empty()) {
    return kAbsent;
  }
  if (left.size() == 1 && right.size() == 1 && isAscii(left[0]) && isAscii(right[0])) {
    return asciiPairs[asciiPair(left[0], right[0])];
  }
  const size_t keyBytes = left.size() + 1 + right.size();
  if (keyBytes > longest) {
    return kAbsent;
  }
  if (keyBytes > kInlineKeyBytes) {
    return find(std::string(left).append(1, ' ').append(right));
  }
  char key[kInlineKeyBytes];
  left.copy(key, left.size());
  key[left.size()] = ' ';
  right.copy(key + left.size() + 1, right.size());
  return find({key, keyBytes});
}

size_t StringIndex::longestProbe() const {
  size_t most = 0;
  for (size_t i = 0; i < slots.size(); ++i) {
    if (slots[i].position != kAbsent) {
      const size_t home = hashOf(first[slots[i].position]) >> shift;
      most = std::max(most, ((i - home) & (slots.size() - 1)) + 1);
    }
  }
  return most;
}

}  // namespace kel
