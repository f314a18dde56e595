#include "engine/token_counts.h"

namespace engine {

void TokenCounts::moveTo(std::span<const int32_t> history, size_t from, size_t to) {
  while (first > from) {
    add(history[--first]);
  }
  while (end < to) {
    add(history[end++]);
  }
  while (first < from) {
    remove(history[first++]);
  }
  while (end > to) {
    remove(history[--end]);
  }
}

void TokenCounts::clear() {
  counted.clear();
  places.clear();
  first = end = 0;
}

void TokenCounts::add(int32_t id) {
  const auto [place, isNew] = places.try_emplace(id, counted.size());
  if (isNew) {
    counted.push_back({id, 0});
  }
  ++counted[place->second].count;
}

void TokenCounts::remove(int32_t id) {
  const auto place = places.find(id);
  const size_t at = place->second;
  if (--counted[at].count > 0) {
    return;
  }
  places.erase(place);
  if (at + 1 < counted.size()) {
    counted[at] = counted.back();
    places[counted[at].id] = at;
  }
  counted.pop_back();
}

}  // namespace engine
