#include "engine/prompt_lookup.h"

#include <algorithm>

namespace engine {

namespace {

constexpr size_t kLongestRun = 4;
constexpr size_t kShortestRun = 2;

// Tokens in front of `end` that are those at the end of the history, up to the longest run.
size_t alike(std::span<const int32_t> history, size_t end) {
  size_t length = 0;
  while (length < kLongestRun && length < end &&
         history[end - 1 - length] == history[history.size() - 1 - length]) {
    ++length;
  }
  return length;
}

}  // namespace

std::vector<int32_t> lookUp(std::span<const int32_t> history, size_t most) {
  size_t longest = kShortestRun - 1;
  size_t place = 0;
  for (size_t end = history.empty() ? 0 : history.size() - 1; end >= kShortestRun; --end) {
    const size_t length = alike(history, end);
    if (length > longest) {
      longest = length;
      place = end;
    }
    if (longest == kLongestRun) {
      break;
    }
  }
  if (place == 0) {
    return {};
  }
  const std::span<const int32_t> following = history.subspan(place);
  const auto count = static_cast<std::ptrdiff_t>(std::min(most, following.size()));
  return {following.begin(), following.begin() + count};
}

}  // namespace engine
