// The tokens of a vocabulary by their bytes, as a trie that an automaton walks, and what of it
// every walk through a string finds again.
//
// Of 248,320 tokens it takes about 12 MB, and up to 3 MB more for each of the places within a
// string that masks have been asked for at: mostly one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "engine/string_scan.h"
#include "engine/token_mask.h"
#include "tokenizer/tokenizer.h"

namespace engine {

// Made once per model; any number of threads.
//
// Special tokens and those that frame conversations are not in it, nor are those of no bytes or of
// more than 256.
class VocabularyTrie {
 public:
  // Ids are below `vocabulary`. The tokenizer is not kept.
  VocabularyTrie(const kel::Tokenizer& tokenizer, size_t vocabulary);
  VocabularyTrie(const VocabularyTrie&) = delete;
  VocabularyTrie& operator=(const VocabularyTrie&) = delete;

  size_t vocabulary() const { return nIds; }

  // Nodes are numbered in the order of their texts. Behind a node come those below it; children are
  // firstChild(n), then subtreeEnd of the one before, as far as subtreeEnd(n).
  static constexpr size_t kRoot = 0;
  static size_t firstChild(size_t node) { return node + 1; }
  size_t subtreeEnd(size_t node) const { return nodes[node].end; }
  uint8_t byteOf(size_t node) const { return nodes[node].byte; }
  // The tokens whose bytes lead from the root to the node.
  std::span<const int32_t> tokensOf(size_t node) const {
    const size_t first = nodes[node].firstToken;
    const size_t end = node + 1 < nodes.size() ? nodes[node + 1].firstToken : tokens.size();
    return std::span(tokens).subspan(first, end - first);
  }

  // What a token that is in the trie stands for; empty for any other.
  std::string_view bytesOf(int32_t id) const;

  // The token of a mark that frames calls, -1 where the vocabulary spells it.
  int32_t controlToken(std::string_view mark) const;
  // Tokens that end a turn.
  const std::vector<int32_t>& endTokens() const { return ends; }

  bool writesAscii() const { return hasAscii; }        // printable characters and the line feed
  bool writesAllBytes() const { return hasAllBytes; }  // those that UTF-8 has

  // The tokens that may follow at a place within a string.
  struct StringTokens {
    struct Counted {
      uint16_t characters;  // that begin within the token
      int32_t id;
    };
    // The string ends behind the node; below it are tokens that go on.
    struct Exit {
      uint32_t node;
      uint16_t characters;
      uint16_t textBytes;  // of what comes before the end
      uint32_t text;       // place in texts
    };

    explicit StringTokens(size_t vocabulary) : within(vocabulary, false) {}

    TokenMask within;              // the string does not end within these
    std::vector<Counted> counted;  // of them, by rising number of characters
    std::vector<Exit> exits;
    std::string texts;
  };
  const StringTokens& stringTokens(const StringScan& scan) const;

 private:
  struct Node {
    uint32_t end;
    uint32_t firstToken;
    uint8_t byte;
  };
  class Filling;

  void readTokens(const kel::Tokenizer& tokenizer);
  void build();

  size_t nIds;
  std::vector<Node> nodes;
  std::vector<int32_t> tokens;   // by their bytes
  std::string bytes;             // of all tokens, by id
  std::vector<uint32_t> begins;  // by id, in bytes; one more than there are tokens
  std::vector<int32_t> ends;
  int32_t callBeginId = -1;
  int32_t callEndId = -1;
  bool hasAscii = false;
  bool hasAllBytes = false;

  mutable std::mutex mutex;
  mutable std::map<size_t, std::unique_ptr<const StringTokens>> strings;  // by state of the scan
};

}  // namespace engine
