// Whether this runtime can run a container: every fault by name.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "container/zym_loader.h"

namespace zym {

struct Fault {
  std::string where;  // a tensor, a section, or "file"
  std::string what;
};

// Bytes looked at so far, and in all.
using CheckProgress = std::function<void(uint64_t done, uint64_t total)>;

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
// Values of the F32 tensors that are not finite, and sections that differ from their stored
// checksums. Reads the whole file; tensors outside the weight section are skipped.
void checkContents(const kel::ZYM2Reader& reader, const CheckProgress& progress,
                   std::vector<Fault>& faults);

// All of it; an empty list means that the container runs.
std::vector<Fault> checkContainer(const kel::ZYMLoader& loader, const CheckProgress& progress);

}  // namespace zym
