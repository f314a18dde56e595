#include "tokenizer/bpe_merger.h"

#include <algorithm>
#include <cassert>

#include "tokenizer/utf8.h"

namespace kel {

const std::vector<size_t>& BpeMerger::merge(std::string_view piece) {
  cutCharacters(piece);
  const size_t nSymbols = starts.size() - 1;
  if (nSymbols < 2 || rules.empty()) {
    return starts;
  }
  if (nSymbols <= maxScanned) {
    mergeByScan(piece);
  } else {
    mergeByQueue(piece);
  }
  return starts;
}

void BpeMerger::cutCharacters(std::string_view piece) {
  starts.clear();
  for (size_t at = 0; at < piece.size(); at = characterEnd(piece, at)) {
    starts.push_back(at);
  }
  starts.push_back(piece.size());
}

uint32_t BpeMerger::pairRank(std::string_view piece, size_t begin, size_t middle,
                             size_t end) const {
  return static_cast<uint32_t>(
      rules.findPair(piece.substr(begin, middle - begin), piece.substr(middle, end - middle)));
}

void BpeMerger::mergeByScan(std::string_view piece) {
  pairRanks.clear();
  for (size_t i = 0; i + 2 < starts.size(); ++i) {
    pairRanks.push_back(pairRank(piece, starts[i], starts[i + 1], starts[i + 2]));
  }

  while (!pairRanks.empty()) {
    // min_element answers the first of equals, which is the leftmost.
    const auto best = std::min_element(pairRanks.begin(), pairRanks.end());
    if (*best == kNoRank) {
      return;
    }
    const auto left = static_cast<size_t>(best - pairRanks.begin());
    starts.erase(starts.begin() + static_cast<std::ptrdiff_t>(left) + 1);
    pairRanks.erase(best);
    if (left < pairRanks.size()) {
      pairRanks[left] = pairRank(piece, starts[left], starts[left + 1], starts[left + 2]);
    }
    if (left > 0) {
      pairRanks[left - 1] = pairRank(piece, starts[left - 1], starts[left], starts[left + 1]);
    }
  }
}

// A candidate is stale when the rank of its pair has changed since it was queued. One that has
// regained the same rank is as good as the fresh candidate for it: both name the same merge, and
// whichever comes second finds the rank changed.
void BpeMerger::mergeByQueue(std::string_view piece) {
  const auto worse = [](const Candidate& a, const Candidate& b) {
    return a.rank != b.rank ? a.rank > b.rank : a.left > b.left;
  };
  linkSymbols(piece);
  std::make_heap(candidates.begin(), candidates.end(), worse);

  while (!candidates.empty()) {
    std::pop_heap(candidates.begin(), candidates.end(), worse);
    const Candidate best = candidates.back();
    candidates.pop_back();
    if (symbols[best.left].pairRank != best.rank) {
      continue;
    }
    const size_t queued = candidates.size();
    joinWithNext(piece, best.left);
    for (size_t n = queued + 1; n <= candidates.size(); ++n) {
      std::push_heap(candidates.begin(), candidates.begin() + static_cast<std::ptrdiff_t>(n),
                     worse);
    }
  }

  starts.clear();
  for (size_t i = 0; i != kNone; i = symbols[i].next) {
    starts.push_back(symbols[i].begin);
  }
  starts.push_back(piece.size());
}

void BpeMerger::linkSymbols(std::string_view piece) {
  const size_t nSymbols = starts.size() - 1;
  symbols.clear();
  symbols.reserve(nSymbols);
  candidates.clear();
  for (size_t i = 0; i < nSymbols; ++i) {
    symbols.push_back(
        {starts[i], i == 0 ? kNone : i - 1, i + 1 == nSymbols ? kNone : i + 1, kNoRank});
  }
  for (size_t i = 0; i < nSymbols; ++i) {
    rankPair(piece, i);
  }
}

// Joins left with its right neighbour and ranks the two pairs that changed.
void BpeMerger::joinWithNext(std::string_view piece, size_t left) {
  const size_t gone = symbols[left].next;
  assert(gone != kNone);
  const size_t next = symbols[gone].next;
  symbols[gone].pairRank = kNoRank;
  symbols[left].next = next;
  if (next != kNone) {
    symbols[next].prev = left;
  }
  rankPair(piece, left);
  if (symbols[left].prev != kNone) {
    rankPair(piece, symbols[left].prev);
  }
}

// Looks up the rank of left and its right neighbour and appends a candidate when they have one.
void BpeMerger::rankPair(std::string_view piece, size_t left) {
  Symbol& symbol = symbols[left];
  symbol.pairRank = kNoRank;
  if (symbol.next == kNone) {
    return;
  }
  symbol.pairRank =
      pairRank(piece, symbol.begin, symbols[symbol.next].begin, symbolEnd(piece, symbol.next));
  if (symbol.pairRank != kNoRank) {
    candidates.push_back({symbol.pairRank, left});
  }
}

size_t BpeMerger::symbolEnd(std::string_view piece, size_t index) const {
  const size_t next = symbols[index].next;
  return next == kNone ? piece.size() : symbols[next].begin;
}

}  // namespace kel
