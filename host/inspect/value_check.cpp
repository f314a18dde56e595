#include "host/inspect/value_check.h"

#include <fmt/core.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>

#include "container/model_fit.h"
#include "quant/block_sizes.h"
#include "quant/non_finite.h"

namespace zym {
namespace {

using kel::QuantType;
using kel::zym2::SectionType;
using kel::zym2::TensorEntry;

constexpr uint64_t kStretchBytes = uint64_t{4} << 20;
constexpr uint64_t kNone = std::numeric_limits<uint64_t>::max();

}  // namespace

ValueCheck::ValueCheck(const kel::ZYM2Reader& reader, ValueScope scope) {
  const uint64_t sectionBytes = reader.sectionSize(SectionType::WeightData);
  const uint8_t* weights = reader.sectionData(SectionType::WeightData);
  for (uint32_t i = 0; i < reader.header().tensorCount; ++i) {
    const TensorEntry& entry = *reader.tensorEntry(i);
    const bool isInside =
        entry.offset <= sectionBytes && entry.byteSize <= sectionBytes - entry.offset;
    const bool isWanted =
        scope == ValueScope::All || entry.type == static_cast<uint16_t>(QuantType::F32);
    if (isInside && isWanted) {
      addTensor(entry, weights);
    }
  }
}

void ValueCheck::addTensor(const TensorEntry& entry, const uint8_t* weights) {
  if (entry.type > static_cast<uint16_t>(QuantType::IQ4_XS) || entry.rank > kel::zym2::kMaxRank) {
    return;
  }
  const auto type = static_cast<QuantType>(entry.type);
  const std::optional<uint64_t> elements = kel::elementCount(entry.dims, entry.rank);
  const uint64_t columns = entry.rank == 0 ? 1 : entry.dims[0];
  if (!elements || *elements == 0) {
    return;
  }
  const uint64_t rows = *elements / columns;
  const uint64_t rowBytes = kel::quant::quantizedBytes(type, columns);
  if (rowBytes == 0 || rows > entry.byteSize / rowBytes) {
    return;
  }
  tensors.push_back({std::string(entry.nameText()), type, entry.rank < 2, columns, rowBytes, rows,
                     weights + entry.offset});
  const uint64_t perStretch = std::max<uint64_t>(kStretchBytes / rowBytes, 1);
  for (uint64_t row = 0; row < rows; row += perStretch) {
    stretches.push_back({tensors.size() - 1, row, std::min(perStretch, rows - row)});
  }
  total += rows * rowBytes;
}

uint64_t ValueCheck::badRow(const Tensor& tensor, const Stretch& stretch) {
  for (uint64_t row = 0; row < stretch.rows; ++row) {
    const uint8_t* data = tensor.data + (stretch.firstRow + row) * tensor.rowBytes;
    if (kel::quant::firstNonFinite(tensor.type, data, tensor.columns)) {
      return row;
    }
  }
  return stretch.rows;
}

std::string ValueCheck::faultText(const Tensor& tensor, uint64_t row) {
  const uint64_t column =
      kel::quant::firstNonFinite(tensor.type, tensor.data + row * tensor.rowBytes, tensor.columns)
          .value_or(0);
  const std::string where = tensor.isVector ? "" : fmt::format("row {}, ", row);
  const uint64_t blockLen = kel::quant::blockFormat(tensor.type).elements;
  if (blockLen == 1) {
    return fmt::format("{}value {} is not finite", where, column);
  }
  return fmt::format("{}values {} to {} are not finite, by their scale", where, column,
                     std::min(column + blockLen, tensor.columns) - 1);
}

void ValueCheck::run(unsigned threads, Reading& reading, std::vector<Fault>& faults) const {
  std::vector<uint64_t> badRows(tensors.size(), kNone);
  std::mutex badRowsLock;
  std::atomic<size_t> taken = 0;
  std::atomic<uint64_t> unreported = 0;
  std::atomic<bool> goesOn = true;
  const auto takeStretch = [&] {
    const size_t index = taken++;
    if (!goesOn || index >= stretches.size()) {
      return false;
    }
    const Stretch& stretch = stretches[index];
    const Tensor& tensor = tensors[stretch.tensor];
    const uint64_t row = badRow(tensor, stretch);
    if (row < stretch.rows) {
      const std::lock_guard lock(badRowsLock);
      uint64_t& first = badRows[stretch.tensor];
      first = std::min(first, stretch.firstRow + row);
    }
    unreported += stretch.rows * tensor.rowBytes;
    return true;
  };
  {
    std::vector<std::jthread> others;
    const size_t most = std::min<size_t>(threads, stretches.size());
    for (size_t t = 1; t < most; ++t) {
      others.emplace_back([&] {
        while (takeStretch()) {
        }
      });
    }
    // This thread alone reports.
    while (takeStretch()) {
      goesOn = reading.advance(unreported.exchange(0));
    }
  }
  reading.advance(unreported);
  for (size_t i = 0; i < tensors.size(); ++i) {
    if (badRows[i] != kNone) {
      faults.push_back({tensors[i].name, faultText(tensors[i], badRows[i])});
    }
  }
}

}  // namespace zym
