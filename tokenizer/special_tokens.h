// Special tokens: vocabulary entries that are recognised as they are written, wherever they stand.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kel {

// (text, id) pairs in matching order: longer text first, equal lengths in ascending byte order,
// equal texts by id. The first match of a front-to-back scan is then the longest one.
using SpecialTokens = std::vector<std::pair<std::string, int32_t>>;

// The tokens that their types mark as special, in matching order; empty ones are left out, since
// they would match everywhere without getting any further. None where there is not one type per
// token.
SpecialTokens specialTokensOf(const std::vector<std::string>& tokens,
                              const std::vector<int32_t>& types);

// Puts a list into matching order.
void sortSpecialTokens(SpecialTokens& tokens);

// Finds special tokens in text in one pass: a byte that starts none is passed at once, and at any
// other the list is searched by length, not entry by entry, since vocabularies reserve thousands of
// special tokens that start alike.
class SpecialTokenFinder {
 public:
  struct Match {
    size_t begin = 0;
    size_t size = 0;  // 0: no match, begin is then the text's size
    int32_t id = -1;
  };

  // tokens: in matching order, none empty. The list is not kept; find takes it again.
  void build(const SpecialTokens& tokens);

  // The first match in tokens order at the smallest position from `from` on where any token
  // matches. tokens is the list that build saw. Any thread.
  Match find(const SpecialTokens& tokens, std::string_view text, size_t from) const;

 private:
  // Tokens of one length: a range of the list, sorted by bytes.
  struct LengthGroup {
    size_t length;
    size_t first;
    size_t last;
  };

  Match matchAt(const SpecialTokens& tokens, std::string_view text, size_t at) const;

  std::array<bool, 256> startsToken{};  // by first byte
  std::vector<LengthGroup> groups;      // longest first
};

}  // namespace kel
