// Places of a context that it can go back to: its recurrent state after so many tokens.
//
// The state cannot be rolled back, while the attention caches keep every position: so a copy of the
// state is all that going back takes. The copies are of one sequence of tokens; where it is left,
// those behind are forgotten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qwen35/model.h"
#include "qwen35/snapshot.h"

namespace engine {

class SnapshotStore {
 public:
  // As many copies of m's state as budget bytes hold, but at least two: of where a prompt begins,
  // and one to fall back on.
  SnapshotStore(const qwen35::Model& m, uint64_t budget);

  // Copies the state after `position` tokens, unless there is a copy; in place of the one that was
  // used longest ago where there is no more room, in the budget or in memory. Where memory has not
  // even room for one, there is none.
  void take(const qwen35::Model& m, uint64_t position);

  // Makes the copy of a position, if there is one, the one that was used last.
  void use(uint64_t position);

  // The greatest position with a copy that is at most `position`; 0, the empty context, if none is.
  uint64_t nearest(uint64_t position) const;

  // Takes m back to a position that has a copy.
  void restore(qwen35::Model& m, uint64_t position);

  // Forgets copies of positions behind this one.
  void forgetBehind(uint64_t position);

  size_t count() const { return entries.size(); }
  size_t capacity() const { return most; }
  uint64_t bytes() const { return (entries.size() + spare.size()) * copyBytes; }  // of memory

 private:
  struct Entry {
    uint64_t position;
    uint64_t lastUse;
    std::unique_ptr<qwen35::Snapshot> state;
  };

  Entry* find(uint64_t position);
  std::unique_ptr<qwen35::Snapshot> room(const qwen35::Model& m);

  size_t copyBytes;
  size_t most;
  uint64_t uses = 0;
  std::vector<Entry> entries;
  std::vector<std::unique_ptr<qwen35::Snapshot>> spare;  // of forgotten copies
};

}  // namespace engine
