#include "convert/tensor_rows.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "convert/mapped_file.h"
#include "quant/bfloat16.h"
#include "quant/blocks.h"
#include "quant/least_squares_k.h"
#include "quant/non_finite.h"

namespace kel::convert {

namespace {

void encodeBfloat16(const float* values, size_t n, uint8_t* out) {
  for (size_t i = 0; i < n; ++i) {
    const uint16_t half = quant::f32ToBf16(values[i]);
    std::memcpy(out + 2 * i, &half, sizeof(half));
  }
}

// Without branches, so that it vectorises: the largest bit pattern without sign tells.
bool allFinite(const float* values, size_t n) {
  constexpr uint32_t kInfinity = 0x7F800000;
  uint32_t largest = 0;
  for (size_t i = 0; i < n; ++i) {
    largest = std::max(largest, std::bit_cast<uint32_t>(values[i]) & 0x7FFFFFFFU);
  }
  return largest < kInfinity;
}

// Whether a value exceeds all that super-blocks can hold: their encoders cut off what others let
// become infinite.
bool isBeyond(QuantType type, const float* values, size_t n) {
  constexpr float kLargestScale = 65504.0F * 63.0F;  // a half-precision scale and six bits
  const bool isSuperBlock = type == QuantType::Q4_K || type == QuantType::Q5_K;
  const float largest = kLargestScale * (type == QuantType::Q4_K ? 15.0F : 31.0F);
  return isSuperBlock &&
         std::any_of(values, values + n, [=](float x) { return std::fabs(x) > largest; });
}

// Columns of all value heads from grouped to tiled order; unitBytes: of one head.
void tileColumns(const uint8_t* from, uint8_t* out, const ModelShape& shape, size_t unitBytes) {
  for (uint64_t head = 0; head < shape.linearValueHeads; ++head) {
    std::memcpy(out + head * unitBytes, from + groupedHead(head, shape) * unitBytes, unitBytes);
  }
}

}  // namespace

void encodeRow(QuantType type, const float* values, size_t n, uint8_t* out) {
  switch (type) {
    case QuantType::BF16:
      return encodeBfloat16(values, n, out);
    case QuantType::Q8_0:
      return quant::quantQ80(values, out, n);
    case QuantType::Q4_K:
      return quant::leastSquaresQ4K(values, out, n);
    case QuantType::Q5_K:
      return quant::leastSquaresQ5K(values, out, n);
    default:
      std::memcpy(out, values, n * sizeof(float));
  }
}

TensorRows::TensorRows(const PlannedTensor& planned, const SourceModel& source)
    : plan(planned),
      shape(source.shape),
      heads(source.groupedHeads ? planned.spec.heads : HeadAxis{}),
      addOne(planned.spec.form == ValueForm::Norm && source.normsLessOne),
      negateExp(planned.spec.form == ValueForm::Decay && source.decaysAsLogs) {
  const std::vector<uint64_t>& dims = plan.spec.dims;
  const bool elementPerRow = dims.size() == 1 && heads.kind == HeadAxis::Kind::Rows;
  colCount = elementPerRow ? 1 : dims[0];
  rowCount = elementPerRow ? dims[0] : dims.size() == 1 ? 1 : dims[1];
  const SourceTypeInfo& from = sourceTypeInfo(*plan.source->type);
  sourceBytes = colCount / from.block.elements * from.block.bytes;
  storedBytes = quant::quantizedBytes(plan.stored, colCount);
}

bool TensorRows::isPlainCopy() const {
  return plan.copied && heads.kind == HeadAxis::Kind::None;
}

uint64_t TensorRows::sourceRowNumber(uint64_t row) const {
  uint64_t from = row;
  if (heads.kind == HeadAxis::Kind::Rows && row >= heads.first) {
    const uint64_t past = row - heads.first;
    from = heads.first + groupedHead(past / heads.unit, shape) * heads.unit + past % heads.unit;
  }
  return from;
}

const uint8_t* TensorRows::sourceRow(uint64_t row) const {
  return plan.source->data + sourceRowNumber(row) * sourceBytes;
}

bool TensorRows::isFinite(const uint8_t* data) const {
  return !quant::firstNonFinite(plan.stored, data, colCount);
}

void TensorRows::copyRow(const uint8_t* from, uint8_t* out) const {
  if (heads.kind == HeadAxis::Kind::Columns) {
    tileColumns(from, out, shape, sourceBytes / shape.linearValueHeads);
  } else {
    std::memcpy(out, from, sourceBytes);
  }
}

bool TensorRows::transform(float* values) const {
  if (addOne) {
    for (uint64_t i = 0; i < colCount; ++i) {
      values[i] = 1.0F + values[i];
    }
  }
  if (negateExp) {
    for (uint64_t i = 0; i < colCount; ++i) {
      values[i] = -std::exp(values[i]);
    }
  }
  if (plan.spec.form == ValueForm::Decay) {
    for (uint64_t i = 0; i < colCount; ++i) {
      if (!(values[i] < 0)) {
        return false;
      }
    }
  }
  return allFinite(values, colCount);
}

RowFault TensorRows::convertRow(uint64_t row, uint8_t* out, float* scratch) const {
  const uint8_t* from = sourceRow(row);
  if (plan.copied) {
    copyRow(from, out);
    return isFinite(out) ? RowFault::None : RowFault::BadValue;
  }
  float* values = scratch;
  sourceTypeInfo(*plan.source->type).decode(from, values, colCount);
  if (heads.kind == HeadAxis::Kind::Columns) {
    float* tiled = scratch + colCount;
    tileColumns(reinterpret_cast<const uint8_t*>(values), reinterpret_cast<uint8_t*>(tiled), shape,
                colCount / shape.linearValueHeads * sizeof(float));
    values = tiled;
  }
  if (!transform(values)) {
    return RowFault::BadValue;
  }
  if (isBeyond(plan.stored, values, colCount)) {
    return RowFault::TooLarge;
  }
  encodeRow(plan.stored, values, colCount, out);
  return isFinite(out) ? RowFault::None : RowFault::TooLarge;
}

void TensorRows::releaseRows(uint64_t first, uint64_t count) const {
  if (heads.kind != HeadAxis::Kind::Rows) {
    MappedFile::release(plan.source->data + first * sourceBytes, count * sourceBytes);
  } else if (first + count == rowCount) {
    MappedFile::release(plan.source->data, plan.source->nBytes);
  }
}

}  // namespace kel::convert
