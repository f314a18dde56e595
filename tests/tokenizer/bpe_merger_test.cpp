#include "tokenizer/bpe_merger.h"

#include <gtest/gtest.h>

#include <random>

#include "tests/tokenizer/reference_bpe.h"

namespace {

using kel::BpeMerger;
using kel::StringIndex;
using kel::testing::referenceMerge;
using kel::testing::ReferenceRanks;
using kel::testing::referenceRanks;
using Symbols = std::vector<std::string>;

// Sanitizer and debug builds are many times slower, and their finds do not need the numbers.
#ifdef NDEBUG
constexpr int kVocabularies = 4000;
#else
constexpr int kVocabularies = 150;
#endif
constexpr int kPiecesPerVocabulary = 300;

StringIndex rulesOf(const std::vector<std::string>& merges) {
  StringIndex rules;
  rules.build(merges);
  return rules;
}

Symbols symbolsOf(BpeMerger& merger, std::string_view piece) {
  const std::vector<size_t>& starts = merger.merge(piece);
  EXPECT_EQ(0U, starts.front());
  EXPECT_EQ(piece.size(), starts.back());
  Symbols symbols;
  for (size_t i = 0; i + 1 < starts.size(); ++i) {
    symbols.emplace_back(piece.substr(starts[i], starts[i + 1] - starts[i]));
  }
  return symbols;
}

// By scan and by queue; both must agree.
Symbols mergedBy(const std::vector<std::string>& merges, std::string_view piece) {
  const StringIndex rules = rulesOf(merges);
  BpeMerger byScan(rules, piece.size());
  BpeMerger byQueue(rules, 0);
  const Symbols symbols = symbolsOf(byScan, piece);
  EXPECT_EQ(symbols, symbolsOf(byQueue, piece));
  return symbols;
}

TEST(BpeMerger, EmptyPieceHasNoSymbols) {
  EXPECT_EQ(Symbols{}, mergedBy({"a b"}, ""));
}

TEST(BpeMerger, OneCharacterStays) {
  EXPECT_EQ(Symbols{"é"}, mergedBy({"a b"}, "é"));
}

TEST(BpeMerger, LowerRankMergesFirst) {
  EXPECT_EQ((Symbols{"ab", "c"}), mergedBy({"a b", "b c"}, "abc"));
  EXPECT_EQ((Symbols{"a", "bc"}), mergedBy({"b c", "a b"}, "abc"));
}

TEST(BpeMerger, MergedSymbolTakesPartInFurtherRules) {
  EXPECT_EQ(Symbols{"abc"}, mergedBy({"a b", "b c", "ab c"}, "abc"));
  EXPECT_EQ((Symbols{"ab", "c"}), mergedBy({"a b", "b c", "a bc"}, "abc"));
}

TEST(BpeMerger, RunsMergeFromTheLeft) {
  EXPECT_EQ((Symbols{"aa", "aa"}), mergedBy({"a a"}, "aaaa"));
  EXPECT_EQ((Symbols{"aa", "aa", "a"}), mergedBy({"a a"}, "aaaaa"));
}

TEST(BpeMerger, FirstOfDuplicateRulesCounts) {
  EXPECT_EQ((Symbols{"ab", "c"}), mergedBy({"a b", "b c", "b c", "a b"}, "abc"));
}

TEST(BpeMerger, CharactersAreCutByLeadByteAlone) {
  EXPECT_EQ((Symbols{"\x80", "a"}), mergedBy({},
                                             "\x80"
                                             "a"));
  EXPECT_EQ((Symbols{"a", "\xE2\x96"}), mergedBy({}, "a\xE2\x96"));
  EXPECT_EQ((Symbols{"\xC3"
                     "a",
                     "b"}),
            mergedBy({},
                     "\xC3"
                     "ab"));
  EXPECT_EQ((Symbols{"\xF0"
                     "abc",
                     "\xF8", "\xFF"}),
            mergedBy({},
                     "\xF0"
                     "abc\xF8\xFF"));
}

TEST(BpeMerger, RulesOfOddShapeMatchByTheirWholeText) {
  // Two spaces: "a" + " " + " b", or "a " + " " + "b"; neither side exists without a rule for it.
  EXPECT_EQ((Symbols{"a", " ", "b"}), mergedBy({"a  b"}, "a b"));
  EXPECT_EQ(Symbols{"a b"}, mergedBy({"a  ", "a  b"}, "a b"));
  EXPECT_EQ(Symbols{"a b"}, mergedBy({"  b", "a  b"}, "a b"));
  // Without a space, and with an empty side, a rule matches nothing.
  EXPECT_EQ((Symbols{"a", "b"}), mergedBy({"ab", "", " ", "a ", " b"}, "ab"));
}

TEST(BpeMerger, ScratchIsReusedAcrossPieces) {
  const std::vector<std::string> merges = {"a a", "aa aa"};
  const StringIndex rules = rulesOf(merges);
  BpeMerger merger(rules);
  EXPECT_EQ(Symbols(25, "aaaa"), symbolsOf(merger, std::string(100, 'a')));
  EXPECT_EQ((Symbols{"aa", "b"}), symbolsOf(merger, "aab"));
  EXPECT_EQ(Symbols{}, symbolsOf(merger, ""));
  EXPECT_EQ((Symbols{"aaaa", "b"}), symbolsOf(merger, "aaaab"));
}

// Characters that collide as much as possible: runs, spaces (which also separate the sides of a
// rule), stray continuation bytes and leads that take what follows.
constexpr std::string_view kAtoms[] = {"a",    "a",        "b",    "c",        " ",
                                       "\x80", "\xE2\x96", "\xC3", "\xC3\xA9", "\xF0\x9F\x98\x80"};

std::string randomText(std::mt19937& rng, size_t nAtoms) {
  const size_t nKinds = 1 + rng() % std::size(kAtoms);
  std::string text;
  for (size_t i = 0; i < nAtoms; ++i) {
    text += kAtoms[rng() % nKinds];
  }
  return text;
}

// Rules over characters and over what earlier rules make, so that merges chain and overlap; some
// repeated, some without a space or with an odd one.
std::vector<std::string> randomMerges(std::mt19937& rng) {
  std::vector<std::string> parts(std::begin(kAtoms), std::end(kAtoms));
  std::vector<std::string> merges;
  const size_t nMerges = 1 + rng() % 20;
  while (merges.size() < nMerges) {
    const std::string& left = parts[rng() % parts.size()];
    const std::string& right = parts[rng() % parts.size()];
    const auto kind = rng() % 16;
    if (kind == 0 && !merges.empty()) {
      merges.push_back(merges[rng() % merges.size()]);
    } else if (kind == 1) {
      merges.push_back(randomText(rng, rng() % 4));
    } else {
      merges.push_back(left + " " + right);
      parts.push_back(left + right);
    }
  }
  std::shuffle(merges.begin(), merges.end(), rng);
  return merges;
}

TEST(BpeMerger, EqualsThePlainRescanOnRandomPieces) {
  std::mt19937 rng(20240607);
  for (int v = 0; v < kVocabularies; ++v) {
    const std::vector<std::string> merges = randomMerges(rng);
    const StringIndex rules = rulesOf(merges);
    const ReferenceRanks reference = referenceRanks(merges);
    BpeMerger merger(rules);
    BpeMerger byQueue(rules, 0);
    for (int p = 0; p < kPiecesPerVocabulary; ++p) {
      const size_t nAtoms = p == 0 ? 30 + rng() % 60 : rng() % 9;
      const std::string piece = randomText(rng, nAtoms);
      const Symbols expected = referenceMerge(piece, reference);
      ASSERT_EQ(expected, symbolsOf(merger, piece)) << "vocabulary " << v << " piece " << p;
      ASSERT_EQ(expected, symbolsOf(byQueue, piece)) << "vocabulary " << v << " piece " << p;
    }
  }
}

TEST(BpeMerger, EqualsThePlainRescanOnLongLines) {
  std::mt19937 rng(99);
  for (int v = 0; v < 8; ++v) {
    const std::vector<std::string> merges = randomMerges(rng);
    const StringIndex rules = rulesOf(merges);
    BpeMerger merger(rules);
    const std::string line = randomText(rng, 700);
    ASSERT_EQ(referenceMerge(line, referenceRanks(merges)), symbolsOf(merger, line)) << v;
  }
}

TEST(BpeMerger, EqualsThePlainRescanOnALongRun) {
  const std::vector<std::string> merges = {"a a", "aa a", "aa aa", "aaaa a", "aaaa aaa"};
  const StringIndex rules = rulesOf(merges);
  BpeMerger merger(rules);
  for (const size_t size : {33U, 64U, 501U}) {
    const std::string run(size, 'a');
    EXPECT_EQ(referenceMerge(run, referenceRanks(merges)), symbolsOf(merger, run)) << size;
  }
}

}  // namespace
