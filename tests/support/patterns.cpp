#include "tests/support/patterns.h"

#include <regex>

namespace kel::test {
namespace {

PatternMatch copied(const std::smatch& match) {
  return {match.begin(), match.end()};
}

}  // namespace

PatternMatch wholeMatch(const std::string& text, const std::string& pattern) {
  std::smatch match;
  return std::regex_match(text, match, std::regex(pattern)) ? copied(match) : PatternMatch();
}

bool matches(const std::string& text, const std::string& pattern) {
  return !wholeMatch(text, pattern).empty();
}

std::vector<PatternMatch> matchesIn(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  std::vector<PatternMatch> found;
  for (std::sregex_iterator at(text.begin(), text.end(), regex), none; at != none; ++at) {
    found.push_back(copied(*at));
  }
  return found;
}

}  // namespace kel::test
