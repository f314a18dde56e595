#include "host/inspect/container_check.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <utility>

#include "container/model_fit.h"
#include "container/model_tensors.h"
#include "host/inspect/container_report.h"
#include "host/inspect/damage_check.h"
#include "host/inspect/value_check.h"
#include "quant/block_sizes.h"

namespace zym {
namespace {

using kel::QuantType;
using kel::TensorView;
using kel::zym2::SectionType;
using kel::zym2::TensorEntry;

constexpr uint16_t kLastType = static_cast<uint16_t>(QuantType::IQ4_XS);

// A range of bytes with its owner's name.
struct Range {
  uint64_t begin;
  uint64_t end;
  std::string name;
};

void checkOverlaps(std::vector<Range> ranges, std::vector<Fault>& faults) {
  std::sort(ranges.begin(), ranges.end(),
            [](const Range& a, const Range& b) { return a.begin < b.begin; });
  for (size_t i = 1; i < ranges.size(); ++i) {
    if (ranges[i].begin < ranges[i - 1].end) {
      faults.push_back({ranges[i].name, "overlaps " + ranges[i - 1].name});
    }
    // The longest reach so far is what the next range is held against.
    if (ranges[i].end < ranges[i - 1].end) {
      ranges[i].end = ranges[i - 1].end;
      ranges[i].name = ranges[i - 1].name;
    }
  }
}

bool fitsSection(const TensorEntry& entry, uint64_t sectionBytes) {
  return entry.offset <= sectionBytes && entry.byteSize <= sectionBytes - entry.offset;
}

// Faults of one entry that can be seen without its neighbours.
void checkEntry(const TensorEntry& entry, uint64_t sectionBytes, std::vector<Fault>& faults) {
  const std::string name(entry.nameText());
  const auto fault = [&](std::string what) { faults.push_back({name, std::move(what)}); };
  if (name.empty()) {
    fault("has an empty name");
  }
  if (entry.nameLength > sizeof(entry.name)) {
    fault(fmt::format("has a name length of {}, at most 64 is possible", entry.nameLength));
  }
  if (name.size() != strnlen(entry.name, sizeof(entry.name))) {
    fault("has a name length that differs from its name");
  }
  if (!fitsSection(entry, sectionBytes)) {
    fault("lies outside the weight section");
  }
  if (entry.type > kLastType) {
    fault(fmt::format("has type {}, which is none", entry.type));
    return;
  }
  if (entry.rank > kel::zym2::kMaxRank) {
    fault(fmt::format("has rank {}, at most 4 is possible", entry.rank));
    return;
  }
  const auto type = static_cast<QuantType>(entry.type);
  const std::optional<uint64_t> elements = kel::elementCount(entry.dims, entry.rank);
  // Two bytes an element is the most beyond which a size cannot be computed either.
  if (!elements || *elements > (uint64_t{1} << 60)) {
    fault("has a shape that overflows");
    return;
  }
  const uint64_t needed = kel::quant::quantizedBytes(type, *elements);
  if (entry.byteSize != needed) {
    fault(fmt::format("has {} bytes, its shape and type {} need {}", entry.byteSize,
                      kel::quantTypeName(type), needed));
  }
}

bool isNamed(const std::string& name, const std::vector<Fault>& faults) {
  return std::any_of(faults.begin(), faults.end(),
                     [&](const Fault& fault) { return fault.where == name; });
}

// Labels that are not true of what the tensor is read as.
void checkLabelsOf(const kel::ZYMLoader& loader, kel::TensorGroup group, uint32_t layer,
                   std::vector<Fault>& faults) {
  for (const kel::ModelTensor& tensor : kel::tensorsOf(group)) {
    const TensorView* view = loader.findTensor(kel::tensorName(tensor, layer));
    if (view != nullptr && tensor.kind != kel::TensorKind::Matrix && view->type != QuantType::F32) {
      faults.push_back(
          {view->name, fmt::format("is {}, but is read as F32", kel::quantTypeName(view->type))});
    }
  }
}

}  // namespace

void checkSections(const kel::ZYM2Reader& reader, std::vector<Fault>& faults) {
  const kel::zym2::Header& header = reader.header();
  const uint64_t head =
      kel::zym2::kHeaderBytes + uint64_t{header.sectionCount} * sizeof(kel::zym2::SectionEntry);
  std::vector<Range> ranges = {{0, head, "header"}};
  for (uint32_t i = 0; i < header.sectionCount; ++i) {
    const kel::zym2::SectionEntry& entry = reader.sectionTable()[i];
    if (entry.size > 0) {
      ranges.push_back({entry.offset, entry.offset + entry.size,
                        std::string("section ") + sectionName(entry.type)});
    }
  }
  checkOverlaps(std::move(ranges), faults);
}

void checkIndex(const kel::ZYM2Reader& reader, std::vector<Fault>& faults) {
  const uint64_t sectionBytes = reader.sectionSize(SectionType::WeightData);
  std::vector<Range> ranges;
  std::string previous;
  for (uint32_t i = 0; i < reader.header().tensorCount; ++i) {
    const TensorEntry& entry = *reader.tensorEntry(i);
    const std::string name(entry.nameText());
    checkEntry(entry, sectionBytes, faults);
    if (i > 0 && name == previous) {
      faults.push_back({name, "occurs twice"});
    }
    if (i > 0 && name < previous) {
      faults.push_back({name, "stands behind " + previous + ": the index is not sorted"});
    }
    if (entry.byteSize > 0 && fitsSection(entry, sectionBytes)) {
      ranges.push_back({entry.offset, entry.offset + entry.byteSize, name});
    }
    previous = name;
  }
  checkOverlaps(std::move(ranges), faults);
}

bool checkShape(const kel::ZYM2Reader& reader, kel::StatedShape& stated,
                std::vector<Fault>& faults) {
  kel::Status status = kel::readShape(reader, stated);
  if (!status.ok()) {
    faults.push_back({"metadata", std::move(status.message)});
  }
  return status.ok();
}

void checkArchitecture(const kel::ZYM2Reader& reader, std::vector<Fault>& faults) {
  std::string architecture;
  reader.getMetaStr("general.architecture", architecture);
  if (architecture != "qwen35") {
    faults.push_back(
        {"metadata", "general.architecture is \"" + architecture + "\", needs \"qwen35\""});
  }
}

void checkModel(const kel::ZYMLoader& loader, const kel::StatedShape& stated,
                std::vector<Fault>& faults) {
  const size_t before = faults.size();
  for (kel::ModelFault& fault : kel::findModelFaults(loader, stated.shape)) {
    // The index has its own words for data in the wrong place.
    if (!fault.isOfBounds || !isNamed(fault.tensor, faults)) {
      faults.push_back({std::move(fault.tensor), std::move(fault.what)});
    }
  }
  for (std::string& contradiction : kel::findContradictions(loader, stated)) {
    faults.push_back({"metadata", std::move(contradiction)});
  }
  const TensorView* embedding =
      loader.findTensor(kel::tensorName(kel::tensorOf(kel::TensorRole::Embedding)));
  const size_t tokens = loader.tokenizer.tokens.size();
  if (faults.size() == before && embedding->dims[1] != tokens) {
    faults.push_back({"tokenizer", fmt::format("has {} tokens, token_embd.weight has {} rows",
                                               tokens, embedding->dims[1])});
  }
}

void checkLabels(const kel::ZYMLoader& loader, const kel::ModelShape& shape,
                 std::vector<Fault>& faults) {
  using kel::TensorGroup;
  checkLabelsOf(loader, TensorGroup::Model, 0, faults);
  for (uint32_t layer = 0; layer < shape.layers; ++layer) {
    for (const auto group : {TensorGroup::Common, TensorGroup::Linear, TensorGroup::Full}) {
      checkLabelsOf(loader, group, layer, faults);
    }
  }
}

CheckResult checkContainer(const kel::ZYMLoader& loader, const CheckOptions& options,
                           const CheckProgress& progress) {
  const kel::ZYM2Reader& reader = loader.reader;
  CheckResult result;
  checkSections(reader, result.faults);
  checkIndex(reader, result.faults);
  checkArchitecture(reader, result.faults);
  kel::StatedShape stated;
  if (checkShape(reader, stated, result.faults)) {
    checkModel(loader, stated, result.faults);
    checkLabels(loader, stated.shape, result.faults);
  }
  checkUnusedBytes(reader, result.faults);

  const ValueCheck values(reader, options.allValues ? ValueScope::All : ValueScope::Quick);
  Reading reading(progress);
  reading.expect(values.nBytes() + bytesUnderChecksums(reader));
  values.run(options.threads, reading, result.faults);
  if (!reading.isEnded()) {
    checkChecksums(reader, reading, result.faults);
  }
  result.stopped = reading.isEnded();
  result.unguarded = sectionsWithoutChecksum(reader);
  if (result.faults.empty()) {
    result.library = judgeForLibrary(loader, stated);
  }
  return result;
}

}  // namespace zym
