// Whether a container can be run: every fault by name. A file is judged by its own shape.
#pragma once

#include <string>
#include <vector>

#include "container/shape_metadata.h"
#include "container/zym_loader.h"
#include "host/inspect/fault.h"
#include "host/inspect/library_verdict.h"
#include "host/inspect/reading.h"

namespace zym {

// Sections that overlap each other or the header.
void checkSections(const kel::ZYM2Reader& reader, std::vector<Fault>& faults);
// Every index entry by itself: name, order, rank, type, size for its shape, bounds; then overlaps.
void checkIndex(const kel::ZYM2Reader& reader, std::vector<Fault>& faults);
void checkArchitecture(const kel::ZYM2Reader& reader, std::vector<Fault>& faults);
// The shape that the model is judged by; false, with a fault, when the metadata state none that can
// be.
bool checkShape(const kel::ZYM2Reader& reader, kel::StatedShape& stated,
                std::vector<Fault>& faults);
// The tensors that the model needs, with shapes and types that can be run, and every number of the
// metadata that they contradict: where this finds no fault, zym opens the model. Faults of data in
// the wrong place are left out of tensors that faults names already.
void checkModel(const kel::ZYMLoader& loader, const kel::StatedShape& stated,
                std::vector<Fault>& faults);
// Vectors that are not labelled F32. They run, and if the label is true they run as nonsense.
void checkLabels(const kel::ZYMLoader& loader, const kel::ModelShape& shape,
                 std::vector<Fault>& faults);

struct CheckOptions {
  bool allValues = false;  // look at every weight, not at those of type F32 alone
  unsigned threads = 1;    // to look at them with
};

struct CheckResult {
  std::vector<Fault> faults;
  std::vector<std::string> unguarded;  // sections that no checksum covers
  LibraryVerdict library;              // where there is no fault
  bool stopped = false;                // progress ended the check: there may be more faults
};

// All of it, with the contents (value_check.h, damage_check.h); no faults mean that the container
// runs. progress may be null.
CheckResult checkContainer(const kel::ZYMLoader& loader, const CheckOptions& options,
                           const CheckProgress& progress);

}  // namespace zym
