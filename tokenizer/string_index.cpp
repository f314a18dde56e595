#include "tokenizer/string_index.h"

#include <sys/random.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstring>

namespace kel {
namespace {

constexpr size_t kShortKeyBytes = 16;
// Longer keys are joined here, and in allocated memory beyond. Merge rules of real vocabularies are
// short.
constexpr size_t kInlineKeyBytes = 64;

__extension__ using Wide = unsigned __int128;

template <typename T>
uint64_t load(const char* at) {
  T value = 0;
  std::memcpy(&value, at, sizeof(value));
  return value;
}

// Fewer than eight bytes as a little-endian number, by loads that overlap where they meet.
uint64_t shortNumber(const char* first, size_t n) {
  if (n >= 4) {
    return load<uint32_t>(first) | load<uint32_t>(first + n - 4) << 8 * (n - 4);
  }
  if (n == 0) {
    return 0;
  }
  const size_t middle = n / 2;
  return load<uint8_t>(first) | load<uint8_t>(first + middle) << 8 * middle |
         load<uint8_t>(first + n - 1) << 8 * (n - 1);
}

uint64_t foldedProduct(uint64_t a, uint64_t b) {
  const Wide product = static_cast<Wide>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64U);
}

// The numbers that follow a seed: "Fast Splittable Pseudorandom Number Generators" (2014).
uint64_t nextSecret(uint64_t& seed) {
  seed += 0x9E3779B97F4A7C15U;
  uint64_t z = seed;
  z = (z ^ z >> 30U) * 0xBF58476D1CE4E5B9U;
  z = (z ^ z >> 27U) * 0x94D049BB133111EBU;
  return z ^ z >> 31U;
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

StringIndex::ShortKey StringIndex::shortKey(std::string_view bytes) {
  const char* first = bytes.data();
  const size_t n = bytes.size();
  if (n < sizeof(uint64_t)) {
    return shortNumber(first, n);
  }
  const uint64_t low = load<uint64_t>(first);
  if (n == sizeof(uint64_t)) {
    return low;
  }
  const uint64_t high = load<uint64_t>(first + n - sizeof(uint64_t)) >> 8 * (kShortKeyBytes - n);
  return low | static_cast<ShortKey>(high) << 64U;
}

// Products with secret numbers: who does not know them knows neither a key's place nor whether two
// keys share one. before: what came before the last bytes of a longer key.
uint64_t StringIndex::hashOf(ShortKey key, size_t nBytes, uint64_t before) const {
  const uint64_t low = static_cast<uint64_t>(key) ^ secrets[0] ^ before;
  const uint64_t high = static_cast<uint64_t>(key >> 64U) ^ secrets[1];
  return foldedProduct(foldedProduct(low, high) ^ nBytes, secrets[2]);
}

uint64_t StringIndex::hashOf(std::string_view key) const {
  const size_t nBytes = key.size();
  uint64_t before = 0;
  for (; key.size() > kShortKeyBytes; key.remove_prefix(kShortKeyBytes)) {
    before = hashOf(shortKey(key.substr(0, kShortKeyBytes)), kShortKeyBytes, before);
  }
  return hashOf(shortKey(key), nBytes, before);
}

// The slot of the string for which equals holds, or the empty one where the search for it ends.
template <typename Equals>
size_t StringIndex::slotOf(uint64_t hash, Equals equals) const {
  const auto tag = static_cast<uint32_t>(hash);
  size_t i = hash >> shift;
  while (slots[i].position != kAbsent &&
         !(slots[i].tag == tag && equals(first[slots[i].position]))) {
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
  for (uint64_t& secret : secrets) {
    secret = nextSecret(seed);
  }
  asciiPairs.resize(kAscii * kAscii, kAbsent);
  slots.resize(std::bit_ceil(strings.size() * 2));
  shift = 64 - std::countr_zero(slots.size());
  for (size_t i = 0; i < strings.size(); ++i) {
    const std::string& string = strings[i];
    const uint64_t hash = hashOf(string);
    Slot& slot = slots[slotOf(hash, [&](const std::string& other) { return other == string; })];
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

int32_t StringIndex::findShort(ShortKey key, size_t nBytes) const {
  const auto equals = [&](const std::string& string) {
    return string.size() == nBytes && shortKey(string) == key;
  };
  return slots[slotOf(hashOf(key, nBytes), equals)].position;
}

int32_t StringIndex::find(std::string_view key) const {
  if (slots.empty() || key.size() > longest) {
    return kAbsent;
  }
  if (key.size() <= kShortKeyBytes) {
    return findShort(shortKey(key), key.size());
  }
  return slots[slotOf(hashOf(key), [&](const std::string& string) { return string == key; })]
      .position;
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
  if (keyBytes < kShortKeyBytes) {  // so that no shift is as wide as the number
    const ShortKey withSpace = shortKey(left) | static_cast<ShortKey>(' ') << 8 * left.size();
    return findShort(withSpace | shortKey(right) << 8 * (left.size() + 1), keyBytes);
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
