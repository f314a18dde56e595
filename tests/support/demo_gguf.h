// The demonstration checkpoint of models/demo as GGUF files, as converters of that format write
// them: made from the tests' own container of it (demo_model.h), with no code of the importer.
#pragma once

#include <string>

namespace kel::test {

// One file, matrices BF16. Throws std::runtime_error when a file cannot be read or written.
void writeDemoGguf(const std::string& path);

}  // namespace kel::test
