#include "host/inspect/container_report.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <map>

#include "host/chat/text_map.h"
#include "host/inspect/shape_report.h"
#include "host/terminal/units.h"
#include "host/terminal/utf8.h"
#include "quant/quant_type.h"

namespace zym {
namespace {

using Json = nlohmann::ordered_json;
using MetaEntry = kel::ZYM2Reader::MetaEntryView;
using kel::zym2::MetaType;

constexpr size_t kShownText = 80;
constexpr size_t kShownElements = 8;

struct TypeTotal {
  uint64_t tensors = 0;
  uint64_t bytes = 0;
};

std::map<std::string, TypeTotal> totalsByType(const kel::ZYMLoader& loader) {
  std::map<std::string, TypeTotal> totals;
  for (const kel::TensorView& tensor : loader.tensors) {
    TypeTotal& total = totals[kel::quantTypeName(tensor.type)];
    ++total.tensors;
    total.bytes += tensor.byteSize;
  }
  return totals;
}

size_t specialCount(const kel::TokenizerData& tables) {
  return static_cast<size_t>(
      std::count_if(tables.tokenTypes.begin(), tables.tokenTypes.end(), kel::isSpecialTokenType));
}

std::string idText(const kel::TokenizerData& tables, int32_t id) {
  if (id < 0) {
    return "none";
  }
  if (static_cast<size_t>(id) >= tables.tokens.size()) {
    return fmt::format("{} (no such token)", id);
  }
  return fmt::format("{} {}", id, withoutControls(tables.tokens[static_cast<size_t>(id)]));
}

Json metaJson(const MetaEntry& entry) {
  switch (entry.type) {
    case MetaType::U32:
      return entry.u32;
    case MetaType::I32:
      return entry.i32;
    case MetaType::F32:
      return entry.f32;
    case MetaType::U64:
      return entry.u64;
    case MetaType::Str:
      return replaceInvalid(entry.str);
    case MetaType::U32Array:
      return entry.array;
  }
  return nullptr;
}

std::string arrayText(const std::vector<uint32_t>& array) {
  const size_t shown = std::min(array.size(), kShownElements);
  std::string text = fmt::format(
      "[{}", fmt::join(array.begin(), array.begin() + static_cast<std::ptrdiff_t>(shown), ", "));
  if (shown < array.size()) {
    text += fmt::format(", .. {} in all", array.size());
  }
  return text + "]";
}

std::vector<MetaEntry> metaEntries(const kel::ZYM2Reader& reader) {
  std::vector<MetaEntry> entries;
  MetaEntry entry;
  for (size_t i = 0; reader.metaAt(i, entry); ++i) {
    entries.push_back(entry);
  }
  return entries;
}

void appendHeader(const kel::ZYM2Reader& reader, std::string& out) {
  const kel::zym2::Header& header = reader.header();
  auto to = std::back_inserter(out);
  fmt::format_to(to, "file        {} ({} bytes)\n", bytesText(reader.fileSize()),
                 reader.fileSize());
  fmt::format_to(to, "header      ZYM2 version {}, {} sections, {} tensors\n", header.version,
                 header.sectionCount, header.tensorCount);
  fmt::format_to(to, "\nsection       offset          bytes\n");
  for (uint32_t i = 0; i < header.sectionCount; ++i) {
    const kel::zym2::SectionEntry& entry = reader.sectionTable()[i];
    fmt::format_to(to, "{:<12} {:>8} {:>14}\n", sectionName(entry.type), entry.offset, entry.size);
  }
}

void appendMeta(const kel::ZYM2Reader& reader, std::string& out) {
  out += "\nmetadata\n";
  for (const MetaEntry& entry : metaEntries(reader)) {
    fmt::format_to(std::back_inserter(out), "{:<40} {}\n",
                   withoutControls(replaceInvalid(entry.key)), metaText(entry));
  }
}

void appendTokenizer(const kel::TokenizerData& tables, std::string& out) {
  auto to = std::back_inserter(out);
  fmt::format_to(to, "\ntokenizer\n");
  fmt::format_to(to, "label    {}\n", withoutControls(tables.label));
  fmt::format_to(to, "tokens   {}, {} special\n", tables.tokens.size(), specialCount(tables));
  fmt::format_to(to, "merges   {}\n", tables.merges.size());
  fmt::format_to(to, "begin    {}\n", idText(tables, tables.bosId));
  fmt::format_to(to, "end      {}\n", idText(tables, tables.eosId));
  fmt::format_to(to, "unknown  {}\n", idText(tables, tables.unkId));
}

void appendTypes(const kel::ZYMLoader& loader, std::string& out) {
  out += "\ntype    tensors           size\n";
  for (const auto& [name, total] : totalsByType(loader)) {
    fmt::format_to(std::back_inserter(out), "{:<7} {:>7} {:>14}\n", name, total.tensors,
                   bytesText(total.bytes));
  }
}

Json tensorJson(const kel::TensorView& tensor) {
  return {{"name", replaceInvalid(tensor.name)},
          {"type", kel::quantTypeName(tensor.type)},
          {"shape", std::vector<uint64_t>(tensor.dims, tensor.dims + tensor.rank)},
          {"bytes", tensor.byteSize}};
}

}  // namespace

bool matchesPattern(const std::string& name, const std::string& pattern) {
  return pattern.empty() || fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

bool anyTensorMatches(const kel::ZYMLoader& loader, const std::string& pattern) {
  return std::any_of(
      loader.tensors.begin(), loader.tensors.end(),
      [&](const kel::TensorView& tensor) { return matchesPattern(tensor.name, pattern); });
}

std::string shapeText(const kel::TensorView& tensor) {
  if (tensor.rank == 0) {
    return "scalar";
  }
  return fmt::format("{}", fmt::join(tensor.dims, tensor.dims + tensor.rank, " x "));
}

const char* sectionName(uint32_t type) {
  constexpr std::array<const char*, 7> kNames = {"other",        "metadata", "tokenizer", "text",
                                                 "tensor index", "weights",  "quant info"};
  return type < kNames.size() ? kNames[type] : kNames[0];
}

std::string metaText(const MetaEntry& entry) {
  if (entry.type == MetaType::U32Array) {
    return arrayText(entry.array);
  }
  if (entry.type != MetaType::Str) {
    return metaJson(entry).dump();
  }
  std::string text = entry.str.substr(0, kShownText);
  text.erase(text.size() - incompleteTail(text));
  text = replaceInvalid(text);
  std::replace(text.begin(), text.end(), '\n', ' ');
  text = withoutControls(text);
  if (entry.str.size() > kShownText) {
    text += fmt::format(" .. ({} bytes)", entry.str.size());
  }
  return text;
}

std::string summaryText(const kel::ZYMLoader& loader) {
  std::string out;
  appendHeader(loader.reader, out);
  out += "\n" + modelText(loader);
  appendMeta(loader.reader, out);
  appendTokenizer(loader.tokenizer, out);
  appendTypes(loader, out);
  return out;
}

std::string tensorTableText(const kel::ZYMLoader& loader, const std::string& pattern) {
  std::string out = fmt::format("{:<32} {:<7} {:<16} {:>12}\n", "tensor", "type", "shape", "bytes");
  for (const kel::TensorView& tensor : loader.tensors) {
    if (!matchesPattern(tensor.name, pattern)) {
      continue;
    }
    fmt::format_to(std::back_inserter(out), "{:<32} {:<7} {:<16} {:>12}\n",
                   withoutControls(replaceInvalid(tensor.name)), kel::quantTypeName(tensor.type),
                   shapeText(tensor), tensor.byteSize);
  }
  return out;
}

Json reportJson(const kel::ZYMLoader& loader, const std::string& pattern) {
  const kel::ZYM2Reader& reader = loader.reader;
  Json report = {{"bytes", reader.fileSize()}, {"version", reader.header().version}};
  Json& sections = report["sections"] = Json::array();
  for (uint32_t i = 0; i < reader.header().sectionCount; ++i) {
    const kel::zym2::SectionEntry& entry = reader.sectionTable()[i];
    sections.push_back({{"name", sectionName(entry.type)},
                        {"type", entry.type},
                        {"offset", entry.offset},
                        {"bytes", entry.size}});
  }
  Json& metadata = report["metadata"] = Json::object();
  for (const MetaEntry& entry : metaEntries(reader)) {
    metadata[replaceInvalid(entry.key)] = metaJson(entry);
  }
  report["shape"] = shapeJson(loader);
  const kel::TokenizerData& tables = loader.tokenizer;
  report["tokenizer"] = {{"label", replaceInvalid(tables.label)},
                         {"tokens", tables.tokens.size()},
                         {"special", specialCount(tables)},
                         {"merges", tables.merges.size()},
                         {"bosId", tables.bosId},
                         {"eosId", tables.eosId},
                         {"unkId", tables.unkId}};
  Json& types = report["types"] = Json::object();
  for (const auto& [name, total] : totalsByType(loader)) {
    types[name] = {{"tensors", total.tensors}, {"bytes", total.bytes}};
  }
  Json& tensors = report["tensors"] = Json::array();
  for (const kel::TensorView& tensor : loader.tensors) {
    if (matchesPattern(tensor.name, pattern)) {
      tensors.push_back(tensorJson(tensor));
    }
  }
  return report;
}

}  // namespace zym
