#include "convert/output_head.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "container/model_tensors.h"
#include "convert/errors.h"
#include "convert/mapped_file.h"

namespace kel::convert {

namespace {

constexpr uint64_t kStretchBytes = uint64_t{8} << 20;

// Rows of two matrices of one shape, decoded and compared a stretch at a time, so that two large
// tensors never fill the memory.
class Comparison {
 public:
  Comparison(const SourceTensor& first, const SourceTensor& second)
      : a(first), b(second), cols(first.dims[0]), rows(first.dims[1]) {}

  // False when cancelled, too.
  bool isEqual(ProgressSink& progress) {
    const uint64_t perStretch = std::max<uint64_t>(kStretchBytes / (cols * sizeof(float)), 1);
    for (uint64_t row = 0; row < rows; row += perStretch) {
      const uint64_t count = std::min(perStretch, rows - row);
      if (progress.cancelled() || !sameRows(row, count)) {
        return false;
      }
    }
    return true;
  }

 private:
  bool sameRows(uint64_t row, uint64_t count) {
    const uint8_t* at = a.data + row * rowBytes(a);
    const uint8_t* bt = b.data + row * rowBytes(b);
    const bool isSame = (a.type == b.type && std::memcmp(at, bt, count * rowBytes(a)) == 0) ||
                        decoded(a, at, count, valuesA) == decoded(b, bt, count, valuesB);
    MappedFile::release(at, count * rowBytes(a));
    MappedFile::release(bt, count * rowBytes(b));
    return isSame;
  }

  uint64_t rowBytes(const SourceTensor& tensor) const {
    const SourceTypeInfo& type = sourceTypeInfo(*tensor.type);
    return cols / type.block.elements * type.block.bytes;
  }

  const std::vector<float>& decoded(const SourceTensor& tensor, const uint8_t* data, uint64_t count,
                                    std::vector<float>& out) const {
    out.resize(count * cols);
    sourceTypeInfo(*tensor.type).decode(data, out.data(), out.size());
    return out;
  }

  const SourceTensor& a;
  const SourceTensor& b;
  uint64_t cols;
  uint64_t rows;
  std::vector<float> valuesA;
  std::vector<float> valuesB;
};

bool canCompare(const SourceTensor& head, const SourceTensor& embedding) {
  return head.type && embedding.type && head.dims.size() == 2 && head.dims == embedding.dims &&
         head.dims[0] != 0;
}

}  // namespace

Status decideOutputHead(SourceModel& source, ProgressSink& progress) {
  source.shape.ownOutput = false;
  const auto embedding = source.tensors.find(tensorName(tensorOf(TensorRole::Embedding)));
  if (!source.outputHead || embedding == source.tensors.end()) {
    return source.statesOwnOutput && !source.outputHead
               ? unsupported("{} is false, but there is no lm_head.weight", source.tiedField)
               : Status::success();
  }
  SourceTensor& head = *source.outputHead;
  if (canCompare(head, embedding->second)) {
    const bool isTied = Comparison(head, embedding->second).isEqual(progress);
    if (progress.cancelled()) {
      return Status::ioError("cancelled");
    }
    if (isTied) {
      ++source.skipped["output head"];
      source.remarks.push_back(fmt::format("{} holds the values of {}: it is left out, as tied",
                                           head.name, embedding->second.name));
      source.outputHead.reset();
      return Status::success();
    }
  }
  source.shape.ownOutput = true;
  source.tensors.emplace(tensorName(tensorOf(TensorRole::Output)), std::move(head));
  source.outputHead.reset();
  return Status::success();
}

}  // namespace kel::convert
