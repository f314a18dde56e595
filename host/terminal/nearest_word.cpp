#include "host/terminal/nearest_word.h"

#include <algorithm>
#include <numeric>

namespace zym {
namespace {

// Letters of a shortened word, below which it could be short for anything.
constexpr size_t kShortest = 2;

std::string lowered(std::string_view word) {
  std::string out(word);
  for (char& c : out) {
    c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return out;
}

bool isShortFor(std::string_view a, std::string_view b) {
  return a.size() >= kShortest && b.starts_with(a);
}

size_t mistakes(std::string_view typed, std::string_view known) {
  const size_t distance = editDistance(typed, known);
  const bool isPart = isShortFor(typed, known) || isShortFor(known, typed);
  return isPart ? std::min<size_t>(distance, 1) : distance;
}

}  // namespace

size_t editDistance(std::string_view a, std::string_view b) {
  // Distances of the first i letters of a from the first j of b, for i, i - 1 and i - 2.
  std::vector<size_t> row(b.size() + 1);
  std::vector<size_t> above(b.size() + 1);
  std::vector<size_t> twoAbove(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    twoAbove.swap(above);
    above.swap(row);
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({above[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        row[j] = std::min(row[j], twoAbove[j - 2] + 1);
      }
    }
  }
  return row[b.size()];
}

std::string nearestWord(std::string_view typed, const std::vector<std::string>& known) {
  const std::string word = lowered(typed);
  std::string nearest;
  // One letter in three may be wrong: "inf" is info, while "foo" is nothing.
  size_t least = (word.size() + 1) / 3 + 1;
  for (const std::string& candidate : known) {
    const size_t count = mistakes(word, lowered(candidate));
    if (count < least) {
      least = count;
      nearest = candidate;
    }
  }
  return nearest;
}

}  // namespace zym
