// Byte-pair merging of one piece of text under ranked merge rules.
//
// The result is that of this plain procedure: cut the piece into characters; find the adjacent pair
// with the lowest rank, the leftmost among equals; join it; start over until no pair has a rank.
// That rescan costs quadratic time, and a piece may be a whole line of a prompt, so short pieces
// keep the ranks of their pairs between the passes and long ones keep them in a priority queue.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

#include "tokenizer/string_index.h"

namespace kel {

// Scratch for any number of pieces, one after the other; no allocation per piece once it has seen
// the longest one. One thread at a time; the rules may be shared.
//
// mergeRules: the position of a rule is its rank. The pair (left, right) is ruled by the text
// left + ' ' + right, whatever spaces the two hold themselves. A reference to it is kept.
class BpeMerger {
 public:
  // Words hardly ever have more symbols than this; up to there scanning the stored ranks is cheaper
  // than a queue.
  static constexpr size_t kMaxScannedSymbols = 32;

  // maxScannedSymbols decides the cost only, never the result.
  explicit BpeMerger(const StringIndex& mergeRules, size_t maxScannedSymbols = kMaxScannedSymbols)
      : rules(mergeRules), maxScanned(maxScannedSymbols) {}

  // Start offsets of the final symbols of piece, then piece.size() as the end of the last one; one
  // entry (0) for an empty piece. Valid until the next call. Any bytes.
  const std::vector<size_t>& merge(std::string_view piece);

 private:
  // Worse than every rank.
  static constexpr uint32_t kNoRank = static_cast<uint32_t>(StringIndex::kAbsent);
  static constexpr size_t kNone = std::numeric_limits<size_t>::max();

  // A symbol of a long piece, linked to its neighbours (kNone at either end). Symbols are named by
  // their index and never move; a merged pair lives on as its left symbol.
  struct Symbol {
    size_t begin;
    size_t prev;
    size_t next;
    uint32_t pairRank;  // of (this symbol, next); kNoRank once this symbol has been merged away
  };

  struct Candidate {
    uint32_t rank;
    size_t left;
  };

  void cutCharacters(std::string_view piece);
  uint32_t pairRank(std::string_view piece, size_t begin, size_t middle, size_t end) const;
  void mergeByScan(std::string_view piece);
  void mergeByQueue(std::string_view piece);
  void linkSymbols(std::string_view piece);
  void joinWithNext(std::string_view piece, size_t left);
  void rankPair(std::string_view piece, size_t left);
  size_t symbolEnd(std::string_view piece, size_t index) const;

  const StringIndex& rules;
  size_t maxScanned;
  std::vector<size_t> starts;         // of the symbols, then the piece's size
  std::vector<uint32_t> pairRanks;    // mergeByScan: of symbol i and i + 1
  std::vector<Symbol> symbols;        // mergeByQueue
  std::vector<Candidate> candidates;  // mergeByQueue: a heap, best candidate first
};

}  // namespace kel
