#include "host/inspect/conversion_report.h"

#include <fmt/core.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "host/terminal/units.h"
#include "host/terminal/utf8.h"
#include "quant/quant_type.h"

namespace zym {
namespace {

using kel::convert::ConvertSummary;
using kel::convert::TensorGroup;

constexpr std::string_view kTotal = "in all";
constexpr std::string_view kLine = "{:<{}}  {:>7}  {:<6} {:>8}  {:<6} {:>8}";

size_t nameWidth(const ConvertSummary& summary) {
  size_t width = kTotal.size();
  for (const TensorGroup& group : summary.groups) {
    width = std::max(width, group.name.size());
  }
  return width;
}

void appendGroup(const TensorGroup& group, size_t width, std::string& out) {
  fmt::format_to(std::back_inserter(out), kLine, group.name, width, group.count, group.sourceType,
                 bytesText(group.sourceBytes), kel::quantTypeName(group.storedType),
                 bytesText(group.storedBytes));
  fmt::format_to(std::back_inserter(out), "  {}\n", group.reason.empty() ? "kept" : group.reason);
}

void appendTotals(const ConvertSummary& summary, size_t width, std::string& out) {
  uint64_t tensors = 0;
  for (const TensorGroup& group : summary.groups) {
    tensors += group.count;
  }
  fmt::format_to(std::back_inserter(out), kLine, kTotal, width, tensors, "",
                 bytesText(summary.sourceBytes), "", bytesText(summary.storedBytes));
  out += '\n';
}

}  // namespace

std::string conversionText(const ConvertSummary& summary) {
  const size_t width = nameWidth(summary);
  std::string out = fmt::format("{} ({})\n\n", withoutControls(replaceInvalid(summary.modelName)),
                                summary.sourceFormat);
  fmt::format_to(std::back_inserter(out), kLine, "tensor", width, "number", "source", "", "stored",
                 "");
  out += "  why\n";
  for (const TensorGroup& group : summary.groups) {
    appendGroup(group, width, out);
  }
  appendTotals(summary, width, out);
  for (const auto& [kind, count] : summary.skipped) {
    fmt::format_to(std::back_inserter(out), "left out: {} {} tensor{}\n", count, kind,
                   count == 1 ? "" : "s");
  }
  for (const std::string& remark : summary.remarks) {
    fmt::format_to(std::back_inserter(out), "remark: {}\n",
                   withoutControls(replaceInvalid(remark)));
  }
  return out;
}

}  // namespace zym
