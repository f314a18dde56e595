#include "tokenizer/special_tokens.h"

#include <algorithm>

#include "container/tokenizer_data.h"

namespace kel {
namespace {

bool matchesBefore(const SpecialTokens::value_type& a, const SpecialTokens::value_type& b) {
  if (a.first.size() != b.first.size()) {
    return a.first.size() > b.first.size();
  }
  const int order = a.first.compare(b.first);
  return order != 0 ? order < 0 : a.second < b.second;
}

}  // namespace

SpecialTokens specialTokensOf(const std::vector<std::string>& tokens,
                              const std::vector<int32_t>& types) {
  SpecialTokens special;
  if (types.size() != tokens.size()) {
    return special;
  }
  for (size_t id = 0; id < tokens.size(); ++id) {
    if (isSpecialTokenType(types[id]) && !tokens[id].empty()) {
      special.emplace_back(tokens[id], static_cast<int32_t>(id));
    }
  }
  sortSpecialTokens(special);
  return special;
}

void sortSpecialTokens(SpecialTokens& tokens) {
  std::sort(tokens.begin(), tokens.end(), matchesBefore);
}

void SpecialTokenFinder::build(const SpecialTokens& tokens) {
  startsToken.fill(false);
  groups.clear();
  for (size_t i = 0; i < tokens.size(); ++i) {
    const std::string& text = tokens[i].first;
    startsToken[static_cast<unsigned char>(text.front())] = true;
    if (groups.empty() || groups.back().length != text.size()) {
      groups.push_back({text.size(), i, i});
    }
    groups.back().last = i + 1;
  }
}

SpecialTokenFinder::Match SpecialTokenFinder::find(const SpecialTokens& tokens,
                                                   std::string_view text, size_t from) const {
  for (size_t at = from; at < text.size(); ++at) {
    if (!startsToken[static_cast<unsigned char>(text[at])]) {
      continue;
    }
    const Match match = matchAt(tokens, text, at);
    if (match.size > 0) {
      return match;
    }
  }
  return {text.size(), 0, -1};
}

SpecialTokenFinder::Match SpecialTokenFinder::matchAt(const SpecialTokens& tokens,
                                                      std::string_view text, size_t at) const {
  for (const LengthGroup& group : groups) {
    if (text.size() - at < group.length) {
      continue;
    }
    const std::string_view candidate = text.substr(at, group.length);
    const auto last = tokens.begin() + static_cast<std::ptrdiff_t>(group.last);
    const auto found = std::lower_bound(
        tokens.begin() + static_cast<std::ptrdiff_t>(group.first), last, candidate,
        [](const auto& token, std::string_view wanted) { return token.first < wanted; });
    if (found != last && found->first == candidate) {
      return {at, group.length, found->second};
    }
  }
  return {};
}

}  // namespace kel
