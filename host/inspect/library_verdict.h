// Whether the runtime library, driven through its interface, runs a model that zym runs.
#pragma once

#include <string>

#include "container/shape_metadata.h"
#include "container/zym_loader.h"

namespace zym {

enum class LibraryRun { Rightly, Wrongly, Never };

// Wrongly: the library sees no reason to refuse, and computes something else.
struct LibraryVerdict {
  LibraryRun run = LibraryRun::Rightly;
  std::string reason;  // "it runs models of 32 layers, not of 24"; empty with Rightly
};

// Of a model that has no fault by the shape that it states.
LibraryVerdict judgeForLibrary(const kel::ZYMLoader& loader, const kel::StatedShape& stated);

// One line: "the runtime library can run it too".
std::string verdictText(const LibraryVerdict& verdict);

}  // namespace zym
