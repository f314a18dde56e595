#include "engine/stop_strings.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace engine {
namespace {

struct Outcome {
  std::string text;
  std::optional<size_t> stopped;

  bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << '"' << outcome.text << "\" " << (outcome.stopped ? std::to_string(*outcome.stopped) : "");
}

Outcome inPieces(const std::vector<std::string>& strings, const std::vector<std::string>& pieces) {
  StopStrings stops(strings);
  Outcome outcome;
  for (const std::string& piece : pieces) {
    outcome.text += stops.feed(piece);
  }
  outcome.text += stops.finish();
  outcome.stopped = stops.stopped();
  return outcome;
}

// Cut at every pair of positions, and byte by byte.
void expectHoweverCut(const Outcome& expected, const std::vector<std::string>& strings,
                      const std::string& text) {
  for (size_t first = 0; first <= text.size(); ++first) {
    for (size_t second = first; second <= text.size(); ++second) {
      ASSERT_EQ(expected,
                inPieces(strings, {text.substr(0, first), text.substr(first, second - first),
                                   text.substr(second)}))
          << text << " " << first << " " << second;
    }
  }
  std::vector<std::string> bytes;
  for (const char byte : text) {
    bytes.emplace_back(1, byte);
  }
  ASSERT_EQ(expected, inPieces(strings, bytes)) << text;
}

TEST(StopStringsTest, TextEndsWhereAStopStringBegins) {
  expectHoweverCut({"one ", 0}, {"STOP"}, "one STOP two STOP");
  expectHoweverCut({"", 0}, {"STOP"}, "STOP");
  expectHoweverCut({"a STO P STO", {}}, {"STOP"}, "a STO P STO");
  expectHoweverCut({"", {}}, {"STOP"}, "");
}

TEST(StopStringsTest, AFalseBeginningMayHoldTheTrueOne) {
  expectHoweverCut({"a", 0}, {"aab"}, "aaab");
  expectHoweverCut({"aba", 0}, {"ababc"}, "abaababc");
  expectHoweverCut({"abab", {}}, {"ababc"}, "abab");
}

TEST(StopStringsTest, TheOneThatIsCompleteFirstStops) {
  expectHoweverCut({"xa", 1}, {"abcd", "bc"}, "xabcd");
  expectHoweverCut({"x", 0}, {"abc", "bcd"}, "xabcd");
  expectHoweverCut({"x", 1}, {"abcde", "ab"}, "xabcde");
}

TEST(StopStringsTest, OfThoseThatEndTogetherTheLongestStops) {
  expectHoweverCut({"x", 1}, {"cd", "abcd", "d"}, "xabcd");
  expectHoweverCut({"xyb", 0}, {"cd", "abcd"}, "xybcd");
  expectHoweverCut({"", 1}, {"x", "ab", "ab"}, "ab");
}

TEST(StopStringsTest, BytesAreAllThatCounts) {
  expectHoweverCut({"caf", 0}, {"\xC3\xA9!"}, "caf\xC3\xA9!");
  expectHoweverCut({"caf\xC3", 0}, {"\xA9"}, "caf\xC3\xA9");
  expectHoweverCut({"a", 0}, {std::string("\0\xFF", 2)}, std::string("a\0\xFF", 3));
}

TEST(StopStringsTest, EmptyOnesStopNothing) {
  expectHoweverCut({"abc", {}}, {}, "abc");
  expectHoweverCut({"abc", {}}, {""}, "abc");
  expectHoweverCut({"a", 1}, {"", "b"}, "abc");
}

TEST(StopStringsTest, OnlyAPossibleBeginningIsHeldBack) {
  StopStrings stops({"END.", "NO"});
  EXPECT_EQ("text ", stops.feed("text EN"));
  EXPECT_EQ("EN", stops.feed("E"));
  EXPECT_EQ("", stops.feed("ND"));
  EXPECT_EQ("END, ", stops.feed(", "));
  EXPECT_EQ("", stops.feed("N"));
  EXPECT_EQ("N", stops.finish());
  EXPECT_EQ("", stops.finish());
}

TEST(StopStringsTest, NothingFollowsAStop) {
  StopStrings stops({"ab"});
  EXPECT_EQ("x", stops.feed("xab y"));
  EXPECT_EQ(0U, stops.stopped());
  EXPECT_EQ("", stops.feed("more a"));
  EXPECT_EQ("", stops.finish());
  stops.reset();
  EXPECT_EQ(std::nullopt, stops.stopped());
  EXPECT_EQ("more ", stops.feed("more a"));
}

TEST(StopStringsTest, AResetForgetsWhatWasHeld) {
  StopStrings stops({"ab"});
  EXPECT_EQ("", stops.feed("a"));
  stops.reset();
  EXPECT_EQ("b", stops.feed("b"));
}

TEST(StopStringsTest, MovedFiltersGoOn) {
  StopStrings first({"ab", "a long one that lies elsewhere"});
  EXPECT_EQ("x", first.feed("xa"));
  StopStrings second = std::move(first);
  EXPECT_EQ("a", second.feed("a"));
  EXPECT_EQ("", second.feed("b"));
  EXPECT_EQ(0U, second.stopped());
}

// By looking for every string at every place.
Outcome byDefinition(const std::vector<std::string>& strings, const std::string& text) {
  for (size_t end = 1; end <= text.size(); ++end) {
    Outcome best;
    size_t longest = 0;
    for (size_t i = 0; i < strings.size(); ++i) {
      const size_t length = strings[i].size();
      if (length > longest && length <= end &&
          text.compare(end - length, length, strings[i]) == 0) {
        longest = length;
        best = {text.substr(0, end - length), i};
      }
    }
    if (longest > 0) {
      return best;
    }
  }
  return {text, {}};
}

TEST(StopStringsTest, RandomStringsOfFewLetters) {
  std::mt19937 random(9);
  const auto word = [&](size_t length) {
    std::string text;
    while (text.size() < length) {
      text += static_cast<char>('a' + random() % 3);
    }
    return text;
  };
  for (int round = 0; round < 2000; ++round) {
    std::vector<std::string> strings;
    for (size_t i = 0; i < 1 + random() % 4; ++i) {
      strings.push_back(word(2 + random() % 5));
    }
    const std::string text = word(25);
    std::vector<std::string> pieces;
    for (size_t at = 0; at < text.size();) {
      const size_t length = random() % 6;
      pieces.push_back(text.substr(at, length));
      at += length;
    }
    ASSERT_EQ(byDefinition(strings, text), inPieces(strings, pieces)) << text;
  }
}

}  // namespace
}  // namespace engine
