#include "convert/storage_plan.h"

#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <optional>

#include "convert/errors.h"
#include "convert/mapped_file.h"

namespace kel::convert {

namespace {

constexpr std::string_view kBlanks = " \t\r";
constexpr uint64_t kMaxFileBytes = uint64_t{1} << 20;

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return lower;
}

std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  line = line.substr(0, line.find('#'));
  for (size_t at = line.find_first_not_of(kBlanks); at != std::string_view::npos;
       at = line.find_first_not_of(kBlanks, at)) {
    const size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
    words.push_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

Status readLine(std::string_view text, const std::string& path, size_t line,
                std::vector<PlanRule>& out) {
  const std::vector<std::string_view> words = wordsOf(text);
  if (words.empty()) {
    return Status::success();
  }
  if (words.size() != 2) {
    return malformed("{}:{}: a line is a pattern and a type, as in \"*.ffn_down.weight q5_k\"",
                     path, line);
  }
  const std::optional<QuantType> type = storageTypeByName(lowerCase(words[1]));
  if (!type) {
    return malformed("{}:{}: \"{}\" is not a type that matrices are stored in", path, line,
                     printable(words[1]));
  }
  out.push_back({std::string(words[0]), lowerCase(words[1]), *type});
  return Status::success();
}

}  // namespace

Status readStoragePlan(const std::string& path, std::vector<PlanRule>& out) {
  MappedFile file;
  Status status = file.open(path);
  if (!status.ok()) {
    return status;
  }
  if (file.size() > kMaxFileBytes) {
    return malformed("{} has {} bytes, more than a plan of types can have", path, file.size());
  }
  std::string_view text = file.text();
  for (size_t line = 1; !text.empty(); ++line) {
    const size_t end = std::min(text.find('\n'), text.size());
    status = readLine(text.substr(0, end), path, line, out);
    if (!status.ok()) {
      return status;
    }
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return out.empty() ? malformed("{} holds no line with a pattern and a type", path)
                     : Status::success();
}

size_t findRule(const std::vector<PlanRule>& rules, const std::string& tensor) {
  const auto found = std::find_if(rules.begin(), rules.end(), [&](const PlanRule& rule) {
    return ::fnmatch(rule.pattern.c_str(), tensor.c_str(), 0) == 0;
  });
  return static_cast<size_t>(found - rules.begin());
}

std::string planText(const std::vector<PlanRule>& rules) {
  std::string text;
  for (const PlanRule& rule : rules) {
    text += fmt::format("{}{} {}", text.empty() ? "" : "\n", rule.pattern, rule.typeName);
  }
  return text;
}

}  // namespace kel::convert
