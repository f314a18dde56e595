#include "convert/tensor_stream.h"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "convert/errors.h"
#include "convert/mapped_file.h"
#include "convert/tensor_rows.h"

namespace kel::convert {

namespace {

constexpr uint64_t kStretchBytes = uint64_t{8} << 20;  // of decoded floats, or of copied bytes
constexpr uint64_t kSmallBytes = uint64_t{256} << 10;  // of decoded floats

Status badValue(const PlannedTensor& plan) {
  return unsupported("{} holds a value that is not finite{}", plan.source->name,
                     plan.spec.form == ValueForm::Decay ? " or gives no negative decay" : "");
}

Status copyStretches(const PlannedTensor& plan, const StoredBytesSink& sink) {
  const SourceTensor& source = *plan.source;
  for (uint64_t at = 0; at < source.nBytes; at += kStretchBytes) {
    const uint64_t length = std::min(kStretchBytes, source.nBytes - at);
    Status status = sink(source.data + at, length, length);
    if (!status.ok()) {
      return status;
    }
    MappedFile::release(source.data + at, length);
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

  // False when a row holds a bad value.
  bool convert(uint64_t first, uint64_t count) {
    std::atomic<bool> sound = true;
    {
      std::vector<std::jthread> others;
      for (unsigned t = 1; t < threads; ++t) {
        others.emplace_back([&, t] { convertPart(first, count, t, sound); });
      }
      convertPart(first, count, 0, sound);
    }
    return sound;
  }

  const uint8_t* data() const { return stored.data(); }

 private:
  void convertPart(uint64_t first, uint64_t count, unsigned thread, std::atomic<bool>& sound) {
    float* own = scratch.data() + size_t{thread} * 2 * rows.cols();
    const uint64_t end = count * (thread + 1) / threads;
    for (uint64_t i = count * thread / threads; i < end && sound; ++i) {
      if (!rows.convertRow(first + i, stored.data() + i * rows.storedRowBytes(), own)) {
        sound = false;
      }
    }
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
    return copyStretches(plan, sink);
  }
  const uint64_t rowBytes = rows.cols() * sizeof(float);
  const uint64_t perStretch =
      std::clamp<uint64_t>(kStretchBytes / rowBytes, 1, std::max<uint64_t>(rows.rows(), 1));
  // Threads for what is soon done would cost more than they give.
  const bool small = rows.rows() * rowBytes < kSmallBytes;
  Stretch stretch(rows, perStretch, small ? 1 : threads);
  for (uint64_t row = 0; row < rows.rows(); row += perStretch) {
    const uint64_t count = std::min(perStretch, rows.rows() - row);
    if (!stretch.convert(row, count)) {
      return badValue(plan);
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
