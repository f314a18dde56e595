#include "host/serve/api_keys.h"

#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>

namespace zym {
namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// 1 where they are equal, else 0. The time depends on the length of given alone.
unsigned equals(std::string_view given, std::string_view key) {
  size_t difference = given.size() ^ key.size();
  for (size_t i = 0; i < given.size(); ++i) {
    const char expected = key.empty() ? '\0' : key[i % key.size()];
    difference |= static_cast<unsigned char>(given[i] ^ expected);
  }
  return difference == 0 ? 1 : 0;
}

}  // namespace

kel::Status ApiKeys::read(const std::string& path, ApiKeys& keys) {
  std::ifstream file(path);
  if (!file) {
    return kel::Status::invalid("api keys: cannot read " + path);
  }
  std::vector<std::string> found;
  std::string line;
  while (std::getline(file, line)) {
    const std::string_view key = trimmed(line);
    if (!key.empty() && key.front() != '#') {
      found.emplace_back(key);
    }
  }
  // A folder opens, and fails when it is read.
  if (file.bad()) {
    return kel::Status::invalid("api keys: cannot read " + path);
  }
  if (found.empty()) {
    return kel::Status::invalid("api keys: " + path + " has none");
  }
  keys = ApiKeys(std::move(found));
  return kel::Status::success();
}

bool ApiKeys::contain(std::string_view key) const {
  unsigned matches = 0;
  for (const std::string& known : keys) {
    matches |= equals(key, known);
  }
  return matches != 0;
}

}  // namespace zym
