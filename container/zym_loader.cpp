#include "container/zym_loader.h"

#include <algorithm>

namespace kel {

namespace {

// Deliberate: every stored type that is none becomes the last defined one. It is clamped while 16
// bits wide, so that 256 does not pass for F32.
QuantType clampType(uint16_t stored) {
  return static_cast<QuantType>(
      std::min<uint16_t>(stored, static_cast<uint16_t>(QuantType::IQ4_XS)));
}

TensorView makeRecord(const ZYM2Reader& reader, size_t index) {
  const zym2::TensorEntry& entry = *reader.tensorEntry(index);
  TensorView record;
  record.name = entry.nameText();
  if (entry.rank > zym2::kMaxRank) {
    return record;
  }

  const ZYM2Reader::TensorEntryView view = reader.tensorView(index);
  record.data = view.data;
  record.byteSize = view.byteSize;
  record.type = clampType(view.type);
  std::copy_n(view.dims, zym2::kMaxRank, record.dims);
  record.rank = view.rank;
  record.quant.type = static_cast<uint16_t>(record.type);
  if (index < reader.quantRecords().size()) {
    const zym2::QuantRecord& quant = reader.quantRecords()[index];
    record.quant.word0 = quant.word0;
    record.quant.word1 = quant.words[0];
    std::copy_n(quant.words + 1, 3, record.quantWords);
  }
  return record;
}

}  // namespace

ZYMLoader::~ZYMLoader() {
  close();
}

Status ZYMLoader::open(const char* path) {
  close();
  Status status = reader.open(path);
  if (!status.ok()) {
    return status;
  }

  wordA = reader.header().wordA;
  wordB = reader.header().wordB;
  wordC = reader.header().wordC;
  tensorCount = reader.header().tensorCount;
  tensors.reserve(tensorCount);
  for (size_t i = 0; i < tensorCount; ++i) {
    tensors.push_back(makeRecord(reader, i));
  }

  // Deliberate: the file stays mapped and the records stay in place; only the lookups are off.
  if (!reader.readTokenizer(tokenizer)) {
    return Status::invalid("ZYMLoader: no tokenizer section");
  }
  tokenizerLabel = tokenizer.label;
  const uint64_t textBytes = reader.sectionSize(zym2::SectionType::Text);
  if (textBytes != 0) {
    const uint8_t* bytes = reader.sectionData(zym2::SectionType::Text);
    text.assign(reinterpret_cast<const char*>(bytes), textBytes);
  }
  opened = true;
  return Status::success();
}

void ZYMLoader::close() {
  reader.close();
  tensors.clear();
  tokenizer = TokenizerData();
  tokenizerLabel.clear();
  text.clear();
  wordA = 0;
  wordB = 0;
  wordC = 0;
  tensorCount = 0;
  opened = false;
}

const TensorView* ZYMLoader::findTensor(const std::string& name) const {
  if (!opened) {
    return nullptr;
  }
  const auto found = std::lower_bound(
      tensors.begin(), tensors.end(), name,
      [](const TensorView& record, const std::string& key) { return record.name < key; });
  return found != tensors.end() && found->name == name ? &*found : nullptr;
}

}  // namespace kel
