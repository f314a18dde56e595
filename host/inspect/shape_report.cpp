#include "host/inspect/shape_report.h"

#include <fmt/core.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "container/model_fit.h"
#include "container/model_tensors.h"
#include "container/shape_metadata.h"
#include "host/chat/text_map.h"
#include "host/inspect/container_report.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

using Json = nlohmann::ordered_json;
using kel::ModelShape;
using kel::StatedShape;

constexpr size_t kLabelWidth = 17;

// What the metadata say or, where they say nothing, the tensors.
StatedShape completed(const kel::ZYMLoader& loader, StatedShape stated) {
  const auto find = [&](kel::TensorRole role) {
    return loader.findTensor(kel::tensorName(kel::tensorOf(role)));
  };
  if (const kel::TensorView* embedding = find(kel::TensorRole::Embedding)) {
    stated.sizes.vocab = embedding->dims[1];
    if (!stated.isStated) {
      stated.sizes.hidden = embedding->dims[0];
    }
  }
  const kel::TensorView* gate = find(kel::TensorRole::FfnGate);
  if (gate != nullptr && !stated.isStated) {
    stated.sizes.feedForward = gate->dims[1];
  }
  return stated;
}

uint64_t parameterCount(const kel::ZYMLoader& loader) {
  uint64_t count = 0;
  for (const kel::TensorView& tensor : loader.tensors) {
    count += kel::elementCount(tensor.dims, tensor.rank).value_or(0);
  }
  return count;
}

std::vector<uint32_t> fullLayers(const ModelShape& shape) {
  std::vector<uint32_t> layers;
  for (uint32_t layer = 0; layer < shape.layers; ++layer) {
    if (shape.isFull(layer)) {
      layers.push_back(layer);
    }
  }
  return layers;
}

// "36446", "17.9 million (17910304)".
std::string parametersText(uint64_t count) {
  constexpr uint64_t kMillion = 1000000;
  if (count < kMillion) {
    return fmt::format("{}", count);
  }
  const double millions = static_cast<double>(count) / kMillion;
  return millions < 1000 ? fmt::format("{:.3g} million ({})", millions, count)
                         : fmt::format("{:.3g} billion ({})", millions / 1000, count);
}

class Lines {
 public:
  void add(const char* label, const std::string& text) {
    fmt::format_to(std::back_inserter(out), "{:<{}}{}\n", label, kLabelWidth, text);
  }
  // A text of the file, a line of it on each line.
  void addText(const char* label, const std::string& text) {
    for (size_t at = 0; at < text.size();) {
      const size_t end = std::min(text.find('\n', at), text.size());
      add(at == 0 ? label : "", withoutControls(replaceInvalid(text.substr(at, end - at))));
      at = end + 1;
    }
  }
  std::string take() { return std::move(out); }

 private:
  std::string out;
};

// As metadata are shown: long texts are cut.
std::string shownMeta(const kel::ZYM2Reader& reader, std::string_view key) {
  kel::ZYM2Reader::MetaEntryView entry;
  for (size_t i = 0; reader.metaAt(i, entry); ++i) {
    if (entry.key == key && entry.type == kel::zym2::MetaType::Str) {
      return metaText(entry);
    }
  }
  return "";
}

std::string kindsText(const ModelShape& shape) {
  const std::vector<uint32_t> full = fullLayers(shape);
  return fmt::format(
      "{}: {} of linear attention, {} of full attention{}", shape.layers,
      shape.layers - full.size(), full.size(),
      shape.fullInterval() > 1 ? fmt::format(" (one in {})", shape.fullInterval()) : "");
}

void addShape(const kel::ZYMLoader& loader, const StatedShape& stated, Lines& lines) {
  const ModelShape& shape = stated.shape;
  lines.add("layers", kindsText(shape));
  if (stated.predictionLayers != 0) {
    lines.add("prediction", fmt::format("{} more for multi-token prediction, which are not used",
                                        stated.predictionLayers));
  }
  lines.add("hidden size", fmt::format("{}", stated.sizes.hidden));
  lines.add("feed-forward", fmt::format("{}", stated.sizes.feedForward));
  lines.add(
      "full attention",
      fmt::format("{} query heads on {} key/value heads of {} dimensions, {} of them rotated "
                  "(base {:.9g})",
                  shape.queryHeads, shape.kvHeads, shape.headDim, shape.ropeDim, shape.ropeBase));
  lines.add("linear attention",
            fmt::format("{} value heads of {} dimensions on {} key heads of {}, {} taps",
                        shape.linearValueHeads, shape.linearValueDim, shape.linearKeyHeads,
                        shape.linearKeyDim, shape.convTaps));
  lines.add("vocabulary", fmt::format("{}", stated.sizes.vocab));
  lines.add("output head", shape.ownOutput ? "its own" : "the embedding");
  lines.add("context", fmt::format("{} positions", shape.contextLength));
  lines.add("parameters", parametersText(parameterCount(loader)));
  if (!stated.isStated) {
    lines.add("", "(the metadata state no shape: it is taken for that of the 4B)");
  }
}

// "<|im_end|> 767, .."
std::string controlIds(const kel::ZYMLoader& loader) {
  constexpr std::string_view kPrefix = "zym.token.";
  const std::vector<std::string>& tokens = loader.tokenizer.tokens;
  std::string text;
  kel::ZYM2Reader::MetaEntryView entry;
  for (size_t i = 0; loader.reader.metaAt(i, entry); ++i) {
    if (entry.key.starts_with(kPrefix) && entry.type == kel::zym2::MetaType::U32) {
      text += fmt::format(
          "{}{} {}", text.empty() ? "" : ", ",
          entry.u32 < tokens.size() ? tokens[entry.u32] : entry.key.substr(kPrefix.size()),
          entry.u32);
    }
  }
  return text;
}

void addOrigin(const kel::ZYMLoader& loader, Lines& lines) {
  const kel::ZYM2Reader& reader = loader.reader;
  lines.addText("control tokens", controlIds(loader));
  lines.addText("license", shownMeta(reader, "general.license"));
  const std::string format = shownMeta(reader, "zym.source.format");
  if (!format.empty()) {
    lines.addText("made from", format + ": " + shownMeta(reader, "zym.source.files"));
  }
  lines.addText("stored",
                shownMeta(reader, "zym.convert.preset") + shownMeta(reader, "zym.convert.type"));
  std::string reencoded;
  reader.getMetaStr("zym.convert.reencoded", reencoded);
  lines.addText("encoded anew", reencoded);
}

}  // namespace

std::string modelText(const kel::ZYMLoader& loader) {
  Lines lines;
  lines.addText("name", shownMeta(loader.reader, "general.name"));
  lines.addText("architecture", shownMeta(loader.reader, "general.architecture"));
  StatedShape stated;
  const kel::Status status = kel::readShape(loader.reader, stated);
  if (status.ok()) {
    addShape(loader, completed(loader, stated), lines);
  } else {
    lines.addText("shape", "none: " + status.message);
  }
  addOrigin(loader, lines);
  return "model\n" + lines.take();
}

Json shapeJson(const kel::ZYMLoader& loader) {
  StatedShape stated;
  const kel::Status status = kel::readShape(loader.reader, stated);
  if (!status.ok()) {
    return {{"fault", replaceInvalid(status.message)}};
  }
  stated = completed(loader, stated);
  const ModelShape& shape = stated.shape;
  return {{"isStated", stated.isStated},
          {"layers", shape.layers},
          {"fullAttentionLayers", fullLayers(shape)},
          {"predictionLayers", stated.predictionLayers},
          {"hidden", stated.sizes.hidden},
          {"feedForward", stated.sizes.feedForward},
          {"vocabulary", stated.sizes.vocab},
          {"context", shape.contextLength},
          {"ownOutputHead", shape.ownOutput},
          {"queryHeads", shape.queryHeads},
          {"keyValueHeads", shape.kvHeads},
          {"headDimensions", shape.headDim},
          {"rotatedDimensions", shape.ropeDim},
          {"rotaryBase", shape.ropeBase},
          {"linearKeyHeads", shape.linearKeyHeads},
          {"linearValueHeads", shape.linearValueHeads},
          {"linearKeyDimensions", shape.linearKeyDim},
          {"linearValueDimensions", shape.linearValueDim},
          {"convolutionTaps", shape.convTaps},
          {"normEpsilon", shape.normEps},
          {"parameters", parameterCount(loader)}};
}

}  // namespace zym
