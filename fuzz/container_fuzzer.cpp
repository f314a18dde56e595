// Opens arbitrary bytes as a container and asks the loader everything, once as they are and once
// under a right checksum, which the fuzzer could not find by itself.
//
// Seeds: containers of the writer; build/<preset>/fuzz/container_seeds FOLDER writes them anew.
#include <cstddef>
#include <cstdint>

#include "tests/support/container_walk.h"
#include "tests/support/zym2_patch.h"

namespace {

using kel::test::ContainerImage;

void openAndWalk(const kel::test::Bytes& bytes) {
  static const kel::test::MemoryFile file;
  static const std::string path = file.path();
  file.write(bytes);
  kel::ZYMLoader loader;
  if (loader.open(path.c_str()).ok() && kel::test::walk(loader) == SIZE_MAX) {
    __builtin_trap();
  }
}

bool hasWholeTable(const ContainerImage& image) {
  return image.bytes.size() >= kel::test::kTableAt &&
         image.bytes.size() - kel::test::kTableAt >=
             uint64_t{image.sectionCount()} * kel::test::kTableEntryBytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  ContainerImage image(kel::test::Bytes(data, data + size));
  openAndWalk(image.bytes);
  if (hasWholeTable(image)) {
    openAndWalk(image.fixCrc().bytes);
  }
  return 0;
}
