// The tensor index and the quant info records: lookup by name, and views of single tensors.
#include <algorithm>
#include <cstring>

#include "container/zym2_reader.h"

namespace kel {

using zym2::SectionType;
using zym2::TensorEntry;

const uint8_t* ZYM2Reader::findTensor(const char* name) const {
  if (!opened || name == nullptr) {
    return nullptr;
  }
  const uint8_t* index = sectionData(SectionType::TensorIndex);
  const auto compare = [&](size_t i) {
    const uint8_t* entry = index + i * zym2::kTensorEntryBytes;
    return std::strncmp(reinterpret_cast<const char*>(entry), name, zym2::kTensorNameBytes);
  };
  size_t lo = 0;
  size_t hi = headerCopy.tensorCount;
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    if (compare(mid) < 0) {
      lo = mid + 1;
    } else {
      hi = mid;
    }
  }
  if (lo == headerCopy.tensorCount || compare(lo) != 0) {
    return nullptr;
  }
  return index + lo * zym2::kTensorEntryBytes;
}

// Sections start at multiples of 64 bytes of a mapping of whole pages, so entries are aligned.
const TensorEntry* ZYM2Reader::tensorEntry(size_t index) const {
  if (!opened || index >= headerCopy.tensorCount) {
    return nullptr;
  }
  return reinterpret_cast<const TensorEntry*>(sectionData(SectionType::TensorIndex)) + index;
}

ZYM2Reader::TensorEntryView ZYM2Reader::tensorView(size_t index) const {
  TensorEntryView view;
  const TensorEntry* found = tensorEntry(index);
  if (found == nullptr) {
    return view;
  }
  const TensorEntry entry = *found;  // the rank that is checked is the rank that is used
  if (entry.rank > zym2::kMaxRank) {
    return view;
  }

  // The offset is the file's word: added as an integer, because it may lead anywhere.
  const auto weights = reinterpret_cast<uintptr_t>(sectionData(SectionType::WeightData));
  view.data = reinterpret_cast<const uint8_t*>(weights + entry.offset);
  view.byteSize = entry.byteSize;
  view.type = entry.type;
  view.rank = entry.rank;
  std::copy_n(entry.dims, entry.rank, view.dims);
  if (index < quantInfo.size()) {
    std::memcpy(&view.quantInfo, &quantInfo[index], sizeof(view.quantInfo));
  }
  return view;
}

ZYM2Reader::TensorEntryView ZYM2Reader::tensorView(const char* name) const {
  const uint8_t* entry = findTensor(name);
  if (entry == nullptr) {
    return {};
  }
  const auto distance = static_cast<size_t>(entry - sectionData(SectionType::TensorIndex));
  return tensorView(distance / zym2::kTensorEntryBytes);
}

Status ZYM2Reader::parseQuantInfo() {
  const uint8_t* records = sectionData(SectionType::QuantInfo);
  if (records == nullptr) {
    return Status::success();
  }
  // A trailing partial record is dropped.
  quantInfo.resize(sectionSize(SectionType::QuantInfo) / zym2::kQuantRecordBytes);
  if (!quantInfo.empty()) {
    std::memcpy(quantInfo.data(), records, quantInfo.size() * zym2::kQuantRecordBytes);
  }
  return Status::success();
}

}  // namespace kel
