#include "engine/snapshot_store.h"

#include <algorithm>
#include <new>
#include <utility>

namespace engine {

SnapshotStore::SnapshotStore(const qwen35::Model& m, uint64_t budget)
    : copyBytes(qwen35::Snapshot::bytes(m)),
      most(std::max<uint64_t>(budget / std::max<size_t>(copyBytes, 1), 2)) {}

SnapshotStore::Entry* SnapshotStore::find(uint64_t position) {
  const auto found = std::find_if(entries.begin(), entries.end(), [position](const Entry& entry) {
    return entry.position == position;
  });
  return found == entries.end() ? nullptr : &*found;
}

std::unique_ptr<qwen35::Snapshot> SnapshotStore::room(const qwen35::Model& m) {
  std::unique_ptr<qwen35::Snapshot> state;
  if (!spare.empty()) {
    state = std::move(spare.back());
    spare.pop_back();
    return state;
  }
  if (entries.size() < most) {
    try {
      // So that neither keeping nor forgetting it takes memory.
      entries.reserve(entries.size() + 1);
      spare.reserve(entries.size() + 1);
      return std::make_unique<qwen35::Snapshot>(m);
    } catch (const std::bad_alloc&) {
      most = entries.size();  // what there is has to do
    }
  }
  if (!entries.empty()) {
    const auto oldest =
        std::min_element(entries.begin(), entries.end(),
                         [](const Entry& a, const Entry& b) { return a.lastUse < b.lastUse; });
    state = std::move(oldest->state);
    entries.erase(oldest);
  }
  return state;
}

void SnapshotStore::take(const qwen35::Model& m, uint64_t position) {
  Entry* entry = find(position);
  if (entry == nullptr) {
    std::unique_ptr<qwen35::Snapshot> state = room(m);
    if (state == nullptr) {
      return;
    }
    state->take(m);
    entries.push_back({position, 0, std::move(state)});
    entry = &entries.back();
  }
  entry->lastUse = ++uses;
}

void SnapshotStore::use(uint64_t position) {
  if (Entry* entry = find(position); entry != nullptr) {
    entry->lastUse = ++uses;
  }
}

uint64_t SnapshotStore::nearest(uint64_t position) const {
  uint64_t best = 0;
  for (const Entry& entry : entries) {
    if (entry.position <= position) {
      best = std::max(best, entry.position);
    }
  }
  return best;
}

void SnapshotStore::restore(qwen35::Model& m, uint64_t position) {
  Entry* entry = find(position);
  entry->state->restore(m);
  entry->lastUse = ++uses;
}

void SnapshotStore::forgetBehind(uint64_t position) {
  const auto kept = std::partition(entries.begin(), entries.end(), [position](const Entry& entry) {
    return entry.position <= position;
  });
  for (auto entry = kept; entry != entries.end(); ++entry) {
    spare.push_back(std::move(entry->state));
  }
  entries.erase(kept, entries.end());
}

}  // namespace engine
