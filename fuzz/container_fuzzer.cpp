// Opens arbitrary bytes as a container and asks the loader everything, then as a model and feeds it
// some tokens; once as they are and once under a right checksum, which the fuzzer could not find by
// itself.
//
// Seeds: containers of the writer; build/<preset>/fuzz/container_seeds FOLDER writes them anew.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "container/shape_metadata.h"
#include "engine/context.h"
#include "engine/model.h"
#include "tests/support/container_walk.h"
#include "tests/support/zym2_patch.h"

namespace {

using kel::test::ContainerImage;

void require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// Every number of the metadata against every tensor, whether or not the model could be opened.
void judge(const kel::ZYMLoader& loader) {
  kel::StatedShape stated;
  if (kel::readShape(loader.reader, stated).ok()) {
    require(kel::shapeFault(stated.shape).empty());
    require(kel::findContradictions(loader, stated).size() < SIZE_MAX);
  }
}

// Extents of a model that opens are bounded by the file, and so is the memory of a short context.
void run(std::shared_ptr<const engine::Model> model) {
  const auto lastToken = static_cast<int32_t>(model->sizes().vocab - 1);
  const uint64_t positions = std::min<uint64_t>(model->shape().contextLength, 4);
  std::unique_ptr<engine::Context> context;
  require(engine::Context::create(std::move(model), {.positions = positions, .threads = 1}, context)
              .ok());
  kel::Status status;
  const int32_t prompt[] = {0, lastToken};
  const auto fed = context->feed(engine::promptTokens(prompt), nullptr, nullptr, status);
  require((fed == engine::Context::Fed::All) == status.ok());
  if (fed == engine::Context::Fed::All) {
    status = context->feedToken(lastToken);
    require(status.ok() || !status.message.empty());
  }
}

void openAndWalk(const kel::test::Bytes& bytes) {
  static const kel::test::MemoryFile file;
  static const std::string path = file.path();
  file.write(bytes);
  kel::ZYMLoader loader;
  if (loader.open(path.c_str()).ok()) {
    require(kel::test::walk(loader) != SIZE_MAX);
    judge(loader);
  }
  std::shared_ptr<const engine::Model> model;
  const kel::Status status = engine::Model::open(path, model);
  require(status.ok() == (model != nullptr));
  require(status.ok() || !status.message.empty());
  if (model != nullptr) {
    run(std::move(model));
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
