// Whether a container still is as it was written: its checksums, and the rules that leave no byte
// between and behind the sections free. docs/container.md has both.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "container/zym2_reader.h"
#include "host/inspect/fault.h"
#include "host/inspect/reading.h"

namespace zym {

// Bytes outside of all sections that are not zero, bytes behind the last section, and bytes of the
// metadata behind its last entry. Sections that overlap are no concern here.
void checkUnusedBytes(const kel::ZYM2Reader& reader, std::vector<Fault>& faults);

// What checkChecksums will read.
uint64_t bytesUnderChecksums(const kel::ZYM2Reader& reader);
// Sections that differ from their stored checksums. A file without any has no fault.
void checkChecksums(const kel::ZYM2Reader& reader, Reading& reading, std::vector<Fault>& faults);

// Sections with contents that no stored checksum covers, by name, in the order of the table. The
// header and the table are always covered: by the CRC that the reader compares.
std::vector<std::string> sectionsWithoutChecksum(const kel::ZYM2Reader& reader);

}  // namespace zym
