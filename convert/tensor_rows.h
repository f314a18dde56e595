// One planned tensor, row by row: from the source's bytes and conventions to the stored bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "container/status.h"
#include "convert/source_model.h"
#include "convert/tensor_plan.h"

namespace kel::convert {

// Why a row cannot be stored: a value that is not finite, or a decay that is not negative; a value
// beyond what the stored type's scales hold.
enum class RowFault { None, BadValue, TooLarge };

// The transforms, applied to float values before any encoding:
// - norms: 1 + w, where the source stores the weight less 1;
// - decays: -exp(x) in single precision, where it stores the logarithm; the result is finite and
//   negative;
// - value heads: from grouped to tiled order (HeadAxis), where it has the former.
// Immutable after construction; any number of threads may convert rows at once. The plan and the
// source model outlive it.
class TensorRows {
 public:
  // A vector is one row, or as many rows of one element where its elements belong to value heads.
  TensorRows(const PlannedTensor& planned, const SourceModel& source);

  uint64_t rows() const { return rowCount; }
  uint64_t cols() const { return colCount; }
  size_t sourceRowBytes() const { return sourceBytes; }
  size_t storedRowBytes() const { return storedBytes; }
  // The stored bytes are the source's, in the same order.
  bool isPlainCopy() const;

  // Writes row `row` as stored: storedRowBytes() at out, unspecified when there is a fault.
  // scratch: 2 * cols() floats for this thread.
  RowFault convertRow(uint64_t row, uint8_t* out, float* scratch) const;
  // Whether all values of row `row`, as stored at data, are finite.
  bool isFinite(const uint8_t* data) const;
  // The source's number of the row that is stored as row `row`.
  uint64_t sourceRowNumber(uint64_t row) const;

  // Gives back the source's pages of rows that have been converted for good. Rows in another order
  // than the source's stay until all have been.
  void releaseRows(uint64_t first, uint64_t count) const;

 private:
  const uint8_t* sourceRow(uint64_t row) const;
  void copyRow(const uint8_t* from, uint8_t* out) const;
  bool transform(float* values) const;

  const PlannedTensor& plan;
  const ModelShape& shape;
  HeadAxis heads;  // none when the order is right already
  bool addOne;
  bool negateExp;
  uint64_t rowCount = 1;
  uint64_t colCount = 0;
  size_t sourceBytes = 0;
  size_t storedBytes = 0;
};

// Encodes n floats; out receives quantizedBytes(type, n) bytes. type: one that products accept.
void encodeRow(QuantType type, const float* values, size_t n, uint8_t* out);

}  // namespace kel::convert
