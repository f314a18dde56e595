#include "host/cli/token_ids.h"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <string>
#include <system_error>

#include "host/terminal/utf8.h"

namespace zym {
namespace {

constexpr std::string_view kBetween = " \t\r\n,[]";

kel::Status appendId(std::string_view word, size_t nTokens, std::vector<int32_t>& ids) {
  size_t id = 0;
  const char* const end = word.data() + word.size();
  const auto [stopped, error] = std::from_chars(word.data(), end, id);
  const bool isNumber = stopped == end && error != std::errc::invalid_argument;
  if (!isNumber) {
    return kel::Status::invalid(
        fmt::format("\"{}\" is no token id; ids are whole numbers from 0", replaceInvalid(word)));
  }
  if (error != std::errc() || id >= nTokens) {
    return kel::Status::invalid(
        fmt::format("the vocabulary has no token {}; its last one is {}", word, nTokens - 1));
  }
  ids.push_back(static_cast<int32_t>(id));
  return kel::Status::success();
}

}  // namespace

kel::Status parseTokenIds(std::string_view text, size_t nTokens, std::vector<int32_t>& ids) {
  kel::Status status;
  size_t at = text.find_first_not_of(kBetween);
  while (status.ok() && at < text.size()) {
    const size_t end = std::min(text.find_first_of(kBetween, at), text.size());
    status = appendId(text.substr(at, end - at), nTokens, ids);
    at = text.find_first_not_of(kBetween, end);
  }
  return status;
}

}  // namespace zym
