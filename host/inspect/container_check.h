// Whether this runtime can run a container: every fault by name.
#pragma once

#include <string>
#include <vector>

#include "container/zym_loader.h"
#include "host/inspect/fault.h"
#include "host/inspect/reading.h"

namespace zym {

// Sections that overlap each other or the header.
void checkSections(const kel::ZYM2Reader& reader, std::vector<Fault>& faults);
// Every index entry by itself: name, order, rank, type, size for its shape, bounds; then overlaps.
void checkIndex(const kel::ZYM2Reader& reader, std::vector<Fault>& faults);
// Architecture, and the tensors that the model needs, with shapes and types that can be run: where
// this finds no fault of a tensor, the runtime finds none. Faults of data in the wrong place are
// left out of tensors that faults names already.
void checkModel(const kel::ZYMLoader& loader, std::vector<Fault>& faults);
// Vectors that are not labelled F32. They run, and if the label is true they run as nonsense.
void checkLabels(const kel::ZYMLoader& loader, std::vector<Fault>& faults);

struct CheckOptions {
  bool allValues = false;  // look at every weight, not at those of type F32 alone
  unsigned threads = 1;    // to look at them with
};

struct CheckResult {
  std::vector<Fault> faults;
  std::vector<std::string> unguarded;  // sections that no checksum covers
  bool stopped = false;                // progress ended the check: there may be more faults
};

// All of it, with the contents (value_check.h, damage_check.h); no faults mean that the container
// runs. progress may be null.
CheckResult checkContainer(const kel::ZYMLoader& loader, const CheckOptions& options,
                           const CheckProgress& progress);

}  // namespace zym
