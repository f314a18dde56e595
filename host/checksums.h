// The checksums that a converter stores of a container's sections.
#pragma once

#include "container/zym2_reader.h"
#include "host/container_check.h"

namespace zym {

// Compares the sections with the checksums in the metadata. A container without checksums has
// nothing to compare and no fault.
void checkSums(const kel::ZYM2Reader& reader, const CheckProgress& progress,
               std::vector<Fault>& faults);

}  // namespace zym
