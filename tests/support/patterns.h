// Regular expressions of ECMAScript, compiled once for all tests: the standard library's are
// templates that a source takes seconds to instantiate.
//
// A match is the text that was found, [0], followed by that of every group of the pattern; a group
// that took no part is empty. Throws what std::regex throws when a pattern is none.
#pragma once

#include <string>
#include <vector>

namespace kel::test {

using PatternMatch = std::vector<std::string>;

// The match of the whole text, or an empty vector.
PatternMatch wholeMatch(const std::string& text, const std::string& pattern);

// Whether the pattern describes the whole text.
bool matches(const std::string& text, const std::string& pattern);

// The matches within the text, in its order; none overlaps another.
std::vector<PatternMatch> matchesIn(const std::string& text, const std::string& pattern);

}  // namespace kel::test
