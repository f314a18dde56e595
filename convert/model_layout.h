// The tensors of a container as the importers and the conversion see them: those of
// container/model_tensors.h, with their names and conventions in the training framework's
// checkpoints.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/model_shape.h"
#include "container/model_tensors.h"

namespace kel::convert {

// How the values of a tensor differ from what such checkpoints store.
enum class ValueForm : uint8_t {
  Plain,  // not at all
  Norm,   // they store the weight less 1
  Decay,  // they store log(-x)
};

// Which axis runs over the value heads, and so has two orders. Grouped, in such checkpoints: the
// value heads of a key head are neighbours. Tiled, in the runtime: they lie as far apart as there
// are key heads.
struct HeadAxis {
  enum class Kind : uint8_t { None, Rows, Columns } kind = Kind::None;
  uint64_t first = 0;  // row or column where the heads begin
  uint64_t unit = 0;   // rows or columns per head
};

struct TensorSpec {
  const ModelTensor* tensor = nullptr;
  std::string name;              // in the container
  std::string checkpoint;        // in such checkpoints, behind the prefix of all names
  std::vector<uint64_t> dims{};  // innermost first
  ValueForm form = ValueForm::Plain;
  HeadAxis heads{};
};

// Model-level tensors first, then layer by layer in the order of use, the optional ones included;
// the output head only where the shape says that it is the model's own. Prediction layers, each a
// layer of full attention with something in front, come last.
std::vector<TensorSpec> modelTensors(const ModelShape& shape, const ModelSizes& sizes,
                                     uint32_t predictionLayers);

// Of the names of prediction layers in such checkpoints, where others have "layers.".
constexpr std::string_view kPredictionPrefix = "mtp.";

// Index in the grouped order of the value head that the tiled order has at position head: for 16
// key heads and 32 value heads, tiled 16 j + g is grouped 2 g + j.
constexpr uint64_t groupedHead(uint64_t head, const ModelShape& shape) {
  const uint64_t perKeyHead = shape.linearValueHeads / shape.linearKeyHeads;
  return head % shape.linearKeyHeads * perKeyHead + head / shape.linearKeyHeads;
}

}  // namespace kel::convert
