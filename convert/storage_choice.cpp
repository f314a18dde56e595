#include "convert/storage_choice.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "convert/errors.h"
#include "quant/block_sizes.h"

namespace kel::convert {

namespace {

struct Named {
  std::string_view name;
  QuantType type;
};

constexpr Named kTypeNames[] = {{"f32", QuantType::F32},
                                {"bf16", QuantType::BF16},
                                {"q8_0", QuantType::Q8_0},
                                {"q5_k", QuantType::Q5_K},
                                {"q4_k", QuantType::Q4_K}};

// In the order of the enumeration.
constexpr std::string_view kPresetNames[] = {"small", "balanced", "best", "full"};

QuantType smallType(TensorRole role) {
  switch (role) {
    case TensorRole::Embedding:
    case TensorRole::SsmOut:
      return QuantType::Q8_0;
    case TensorRole::SsmAlpha:
    case TensorRole::SsmBeta:
      return QuantType::BF16;
    case TensorRole::FfnGate:
    case TensorRole::FfnUp:
      return QuantType::Q4_K;
    default:
      return QuantType::Q5_K;
  }
}

QuantType balancedType(TensorRole role) {
  switch (role) {
    case TensorRole::Embedding:
    case TensorRole::SsmOut:
    case TensorRole::AttnQkv:
    case TensorRole::AttnGate:
      return QuantType::Q8_0;
    default:
      return QuantType::Q5_K;
  }
}

QuantType presetType(TensorRole role, Preset preset) {
  switch (preset) {
    case Preset::Small:
      return smallType(role);
    case Preset::Balanced:
      return balancedType(role);
    case Preset::Best:
      return QuantType::Q8_0;
    case Preset::Full:
      break;
  }
  return QuantType::BF16;
}

bool isLossy(SourceType type) {
  return sourceTypeInfo(type).block.elements > 1;
}

// The smallest type that keeps the precision of a source type which products cannot use: encoding
// its values anew adds less than a tenth to the squared error that the source type itself has on
// normally distributed weights. tests/convert/added_error_test.cpp measures both.
QuantType keepingType(SourceType source) {
  switch (source) {
    case SourceType::Q2_K:
    case SourceType::Q4_0:
    case SourceType::Q4_1:
      return QuantType::Q4_K;
    case SourceType::Q3_K:
    case SourceType::MXFP4:
      return QuantType::Q5_K;
    default:
      return QuantType::Q8_0;
  }
}

// Where nothing is asked for: the source's type if possible.
Storage keptStorage(const MatrixToStore& matrix) {
  const SourceTypeInfo& source = sourceTypeInfo(matrix.source);
  if (source.kept && !matrix.blocksSplit) {
    return {*source.kept, ""};
  }
  if (source.kept) {
    return {QuantType::Q8_0,
            fmt::format("blocks of {} are split when value heads are reordered", source.name)};
  }
  const QuantType type = keepingType(matrix.source);
  std::string reason = fmt::format("matrix products cannot use {}", source.name);
  if (type != QuantType::Q8_0) {
    reason += fmt::format("; {} keeps its precision", quantTypeName(type));
  } else if (isLossy(matrix.source)) {
    reason += "; Q5_K would lose precision";
  }
  return {type, reason};
}

Storage wantedStorage(const MatrixToStore& matrix, const StorageChoice& choice) {
  if (matrix.role == TensorRole::Embedding && choice.embeddingType) {
    return {*choice.embeddingType, "embedding type as asked for"};
  }
  if (choice.type) {
    return {*choice.type, "type as asked for"};
  }
  if (choice.preset) {
    return {presetType(matrix.role, *choice.preset),
            fmt::format("preset {}", presetName(*choice.preset))};
  }
  return keptStorage(matrix);
}

// The nearest format whose blocks divide the row.
QuantType fittingType(QuantType wanted, uint64_t cols) {
  const size_t blockLen = quant::blockFormat(wanted).elements;
  if (blockLen > 0 && cols % blockLen == 0) {
    return wanted;
  }
  return cols % quant::kBlockLen == 0 ? QuantType::Q8_0 : QuantType::BF16;
}

// Capitals of ASCII count as small letters: other tools and file names write Q8_0.
bool isNamed(std::string_view known, std::string_view typed) {
  return std::equal(known.begin(), known.end(), typed.begin(), typed.end(), [](char a, char b) {
    return a == (b >= 'A' && b <= 'Z' ? static_cast<char>(b - 'A' + 'a') : b);
  });
}

}  // namespace

Storage chooseStorage(const MatrixToStore& matrix, const StorageChoice& choice) {
  const SourceTypeInfo& source = sourceTypeInfo(matrix.source);
  Storage storage = wantedStorage(matrix, choice);
  const QuantType wanted = std::exchange(storage.type, fittingType(storage.type, matrix.cols));
  if (source.kept == storage.type && !matrix.blocksSplit) {
    return {storage.type, ""};
  }
  if (storage.type != wanted) {
    storage.reason +=
        fmt::format("; rows of {} are no whole blocks of {}", matrix.cols, quantTypeName(wanted));
  }
  if (isLossy(matrix.source)) {
    storage.reason += fmt::format("; quality stays that of {}", source.name);
  }
  return storage;
}

std::string_view presetName(Preset preset) {
  return kPresetNames[static_cast<size_t>(preset)];
}

std::optional<QuantType> storageTypeByName(std::string_view name) {
  for (const Named& known : kTypeNames) {
    if (isNamed(known.name, name)) {
      return known.type;
    }
  }
  return std::nullopt;
}

std::optional<Preset> presetByName(std::string_view name) {
  const auto* found = std::find_if(std::begin(kPresetNames), std::end(kPresetNames),
                                   [&](std::string_view known) { return isNamed(known, name); });
  if (found == std::end(kPresetNames)) {
    return std::nullopt;
  }
  return static_cast<Preset>(found - std::begin(kPresetNames));
}

}  // namespace kel::convert
