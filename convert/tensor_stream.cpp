#include "convert/tensor_stream.h"

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "convert/errors.h"
#include "convert/mapped_file.h"
#include "convert/tensor_rows.h"

namespace kel::convert {

namespace {

constexpr uint64_t kStretchBytes = uint64_t{8} << 20;  // of decoded floats, or of copied bytes
constexpr uint64_t kSmallBytes = uint64_t{256} << 10;  // of decoded floats

// row: of the source.
Status badRow(const PlannedTensor& plan, RowFault fault, uint64_t row) {
  const std::string where =
      plan.spec.dims.size() < 2 ? std::string() : fmt::format(" in row {}", row);
  if (fault == RowFault::TooLarge) {
    return unsupported("{} holds a value{} that is too large for {}; choose another type for it",
                       plan.source->name, where, quantTypeName(plan.stored));
  }
  return unsupported(
      "{} holds a value that is not finite{}{}, with which no reply succeeds; fetch the source "
      "anew, or choose another",
      plan.source->name, plan.spec.form == ValueForm::Decay ? " or gives no negative decay" : "",
      where);
}

Status copyStretches(const PlannedTensor& plan, const TensorRows& rows,
                     const StoredBytesSink& sink) {
  const size_t rowBytes = rows.sourceRowBytes();
  const uint64_t perStretch = std::max<uint64_t>(kStretchBytes / rowBytes, 1);
  for (uint64_t first = 0; first < rows.rows(); first += perStretch) {
    const uint64_t count = std::min(perStretch, rows.rows() - first);
    const uint8_t* data = plan.source->data + first * rowBytes;
    for (uint64_t i = 0; i < count; ++i) {
      if (!rows.isFinite(data + i * rowBytes)) {
        return badRow(plan, RowFault::BadValue, first + i);
      }
    }
    Status status = sink(data, count * rowBytes, count * rowBytes);
    if (!status.ok()) {
      return status;
    }
    MappedFile::release(data, count * rowBytes);
  }
  return Status::success();
}

// A stretch of rows on its way: each thread converts its own contiguous part.
class Stretch {
 public:
  Stretch(const TensorRows& tensorRows, uint64_t mostRows, unsigned mostThreads)
      : rows(tensorRows),
        threads(static_cast<unsigned>(std::clamp<uint64_t>(mostThreads, 1, mostRows))),
        stored(mostRows * rows.storedRowBytes()),
        scratch(size_t{threads} * 2 * rows.cols()) {}

  // The row that cannot be stored, the first where there are several; count when all can.
  uint64_t convert(uint64_t first, uint64_t count, RowFault& fault) {
    std::vector<Outcome> outcomes(threads);
    {
      std::vector<std::jthread> others;
      for (unsigned t = 1; t < threads; ++t) {
        others.emplace_back([&, t] { outcomes[t] = convertPart(first, count, t); });
      }
      outcomes[0] = convertPart(first, count, 0);
    }
    // The parts of the threads are in the order of the rows.
    for (const Outcome& outcome : outcomes) {
      if (outcome.fault != RowFault::None) {
        fault = outcome.fault;
        return outcome.row;
      }
    }
    return count;
  }

  const uint8_t* data() const { return stored.data(); }

 private:
  struct Outcome {
    RowFault fault = RowFault::None;
    uint64_t row = 0;  // of the stretch
  };

  Outcome convertPart(uint64_t first, uint64_t count, unsigned thread) {
    float* own = scratch.data() + size_t{thread} * 2 * rows.cols();
    const uint64_t end = count * (thread + 1) / threads;
    for (uint64_t i = count * thread / threads; i < end; ++i) {
      const RowFault fault =
          rows.convertRow(first + i, stored.data() + i * rows.storedRowBytes(), own);
      if (fault != RowFault::None) {
        return {fault, i};
      }
    }
    return {};
  }

  const TensorRows& rows;
  unsigned threads;
  std::vector<uint8_t> stored;
  std::vector<float> scratch;  // two rows a thread
};

}  // namespace

Status streamTensor(const PlannedTensor& plan, const SourceModel& source, unsigned threads,
                    const StoredBytesSink& sink) {
  const TensorRows rows(plan, source);
  if (rows.isPlainCopy()) {
    return copyStretches(plan, rows, sink);
  }
  const uint64_t rowBytes = rows.cols() * sizeof(float);
  const uint64_t perStretch =
      std::clamp<uint64_t>(kStretchBytes / rowBytes, 1, std::max<uint64_t>(rows.rows(), 1));
  // Threads for what is soon done would cost more than they give.
  const bool small = rows.rows() * rowBytes < kSmallBytes;
  Stretch stretch(rows, perStretch, small ? 1 : threads);
  for (uint64_t row = 0; row < rows.rows(); row += perStretch) {
    const uint64_t count = std::min(perStretch, rows.rows() - row);
    RowFault fault = RowFault::None;
    const uint64_t bad = stretch.convert(row, count, fault);
    if (bad < count) {
      return badRow(plan, fault, rows.sourceRowNumber(row + bad));
    }
    Status status =
        sink(stretch.data(), count * rows.storedRowBytes(), count * rows.sourceRowBytes());
    if (!status.ok()) {
      return status;
    }
    rows.releaseRows(row, count);
  }
  return Status::success();
}

}  // namespace kel::convert
