// Byte-pair merging by plain rescan: the definition that the fast merge is measured against.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kel::testing {

using ReferenceRanks = std::unordered_map<std::string, int32_t>;

inline ReferenceRanks referenceRanks(const std::vector<std::string>& merges) {
  ReferenceRanks ranks;
  for (size_t rank = 0; rank < merges.size(); ++rank) {
    ranks.emplace(merges[rank], static_cast<int32_t>(rank));
  }
  return ranks;
}

inline std::vector<std::string> referenceCharacters(std::string_view piece) {
  std::vector<std::string> characters;
  for (size_t at = 0; at < piece.size();) {
    const auto lead = static_cast<unsigned char>(piece[at]);
    size_t size = 1;
    if (lead >= 0xC0 && lead <= 0xDF) {
      size = 2;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
      size = 3;
    }
    if (lead >= 0xF0 && lead <= 0xF7) {
      size = 4;
    }
    characters.emplace_back(piece.substr(at, size));
    at += size;
  }
  return characters;
}

// The final symbols of piece: one merge per pass, lowest rank first, leftmost among equals.
inline std::vector<std::string> referenceMerge(std::string_view piece,
                                               const ReferenceRanks& ranks) {
  std::vector<std::string> symbols = referenceCharacters(piece);
  for (;;) {
    size_t best = symbols.size();
    int32_t bestRank = 0;
    for (size_t i = 0; i + 1 < symbols.size(); ++i) {
      const auto found = ranks.find(symbols[i] + " " + symbols[i + 1]);
      if (found != ranks.end() && (best == symbols.size() || found->second < bestRank)) {
        best = i;
        bestRank = found->second;
      }
    }
    if (best == symbols.size()) {
      return symbols;
    }
    symbols[best] += symbols[best + 1];
    symbols.erase(symbols.begin() + static_cast<std::ptrdiff_t>(best) + 1);
  }
}

}  // namespace kel::testing
