// A GGUF model in one file, or split over several.
//
// The parts of a model are numbered in their names, "-00002-of-00003.gguf", and in their metadata,
// split.no (from 0) and split.count. The first one's metadata are the model's; split.tensors.count
// says how many tensors all parts have.
#pragma once

#include <string>

#include "container/status.h"
#include "convert/mapped_file.h"
#include "convert/source_model.h"

namespace kel::convert {

// first: the file at path, which is the whole model or its first part. The others are opened from
// its folder, and their tensors taken as the first one's: none may occur twice, none be missing. A
// later part is refused with the name of the first. out.files holds the mappings in order.
Status readGgufParts(const std::string& path, MappedFile first, SourceModel& out);

}  // namespace kel::convert
