#include "tokenizer/string_index.h"

#include <bit>

namespace kel {
namespace {

constexpr uint64_t kHashStart = 0xCBF29CE484222325U;

// FNV-1a, so that the parts of a joined key can be hashed one after the other.
uint64_t hashOn(uint64_t hash, std::string_view bytes) {
  for (const char c : bytes) {
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001B3U;
  }
  return hash;
}

// Short keys differ in few of the upper bits, from which the place is taken.
uint64_t spread(uint64_t hash) {
  return (hash ^ hash >> 32U) * 0x9E3779B97F4A7C15U;
}

constexpr size_t kAscii = 128;

size_t asciiPair(char left, char right) {
  return static_cast<unsigned char>(left) * kAscii + static_cast<unsigned char>(right);
}

bool isAscii(char c) {
  return static_cast<unsigned char>(c) < kAscii;
}

}  // namespace

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
  first = strings.data();
  count = 0;
  slots.clear();
  asciiPairs.clear();
  if (strings.empty()) {
    return;
  }
  asciiPairs.resize(kAscii * kAscii, kAbsent);
  slots.resize(std::bit_ceil(strings.size() * 2));
  shift = 64 - std::countr_zero(slots.size());
  for (size_t i = 0; i < strings.size(); ++i) {
    const std::string& string = strings[i];
    const uint64_t hash = spread(hashOn(kHashStart, string));
    Slot& slot = slots[slotOf(hash, [&](const std::string& other) { return other == string; })];
    if (slot.position != kAbsent) {
      continue;
    }
    slot = {static_cast<uint32_t>(hash), static_cast<int32_t>(i)};
    ++count;
    if (string.size() == 3 && string[1] == ' ' && isAscii(string[0]) && isAscii(string[2])) {
      asciiPairs[asciiPair(string[0], string[2])] = static_cast<int32_t>(i);
    }
  }
}

int32_t StringIndex::find(std::string_view key) const {
  if (slots.empty()) {
    return kAbsent;
  }
  const uint64_t hash = spread(hashOn(kHashStart, key));
  return slots[slotOf(hash, [&](const std::string& string) { return string == key; })].position;
}

int32_t StringIndex::findPair(std::string_view left, std::string_view right) const {
  if (slots.empty()) {
    return kAbsent;
  }
  if (left.size() == 1 && right.size() == 1 && isAscii(left[0]) && isAscii(right[0])) {
    return asciiPairs[asciiPair(left[0], right[0])];
  }
  const uint64_t hash = spread(hashOn(hashOn(hashOn(kHashStart, left), " "), right));
  const auto equals = [&](const std::string& string) {
    return string.size() == left.size() + 1 + right.size() && string[left.size()] == ' ' &&
           string.starts_with(left) && string.ends_with(right);
  };
  return slots[slotOf(hash, equals)].position;
}

}  // namespace kel
