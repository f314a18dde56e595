// The byte-pair-encoding tokenizer of a model: text to token ids and back.
//
//   kel::Tokenizer tokenizer;
//   if (!tokenizer.load(std::move(loader.tokenizer)).ok()) ...
//   std::vector<int32_t> ids;
//   if (!tokenizer.encode("Hello world", ids, true).ok()) ...
//
// Text is a byte string, normally UTF-8, that is neither normalised nor validated: any bytes
// encode. Vocabulary strings hold a visible marker in place of a space. A vocabulary uses one of
// two: "▁", where a run of text is merged as one piece, or "Ġ" (byteLevel), where it is cut into
// words first. Characters are looked up as they are; unknown ones become unkId or vanish.
//
// After load every operation is const, keeps its scratch to itself and reads nothing that changes,
// so one tokenizer serves any number of threads, each with its own outputs. load and buildIndexes
// must not overlap with any other call. Failures carry StatusCode::InvalidFormat; allocation
// failure is thrown through.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "container/tokenizer_data.h"
#include "tokenizer/bpe_merger.h"
#include "tokenizer/special_tokens.h"
#include "tokenizer/string_index.h"

namespace kel {

// Movable, not copyable: the indexes view the stored strings, which a move leaves in place.
class Tokenizer {
 public:
  Tokenizer() = default;
  Tokenizer(const Tokenizer&) = delete;
  Tokenizer& operator=(const Tokenizer&) = delete;
  Tokenizer(Tokenizer&&) = default;
  Tokenizer& operator=(Tokenizer&&) = default;
  ~Tokenizer() = default;

  // Takes over the tables of data and builds the indexes. A type list whose length is not the token
  // count is dropped, which turns special tokens off. "tokenizer: empty token list" leaves the
  // tokenizer as it was.
  Status load(TokenizerData data);

  // Rebuilds byteLevel, tokenIndex, mergeRanks and specialTokens from the tables. Whoever changes
  // the tables calls it before any other operation. Always succeeds.
  Status buildIndexes();

  // Id of the exact token string (the lowest of equals), -1 when there is none.
  int32_t tokenToId(std::string_view token) const;

  // The stored token string, still escaped. out is untouched on "tokenizer: token id out of range".
  Status tokenToString(int id, std::string& out) const;

  // In place: every space becomes the marker of this vocabulary.
  void escapeWhitespace(std::string& s) const;

  // In place: every "▁" becomes a space. Deliberate: "Ġ" stays, whatever byteLevel says, so the
  // decoded text of a "Ġ" vocabulary keeps its markers; hosts convert them.
  void unescapeWhitespace(std::string& s) const;

  // Merges one escaped piece and appends its ids. A final symbol that is no token appends unkId, or
  // nothing when unkId is negative; there is no fallback to byte tokens. Always succeeds.
  Status tokenizeBpe(std::string_view piece, std::vector<int32_t>& out) const;

  // Appends the ids of a run of text without special tokens: as one piece, already escaped, in a
  // "▁" vocabulary; word by word, escaped here, in a "Ġ" vocabulary.
  Status tokenizePlain(std::string_view text, std::vector<int32_t>& ids) const;

  // Appends the ids of one line, or of a run of newlines: special tokens that are written out
  // become their ids, what lies between goes to tokenizePlain. A segment of newlines alone that is
  // a token becomes that token.
  Status tokenizeSegment(std::string_view segment, std::vector<int32_t>& ids) const;

  // Replaces ids by those of text, after bosId when addBos is set and there is one. Nothing is
  // appended at the end. "tokenizer: not loaded" leaves ids untouched.
  //
  // Deliberate: a "▁" vocabulary escapes spaces before special tokens are looked for, so there a
  // special token that holds a space matches nothing.
  Status encode(std::string_view text, std::vector<int32_t>& ids, bool addBos) const;

  // Replaces text by the strings of ids one after the other, "▁" turned into a space except in
  // special tokens. Nothing is stripped. On "tokenizer: token id out of range" text holds what came
  // before the bad id; "tokenizer: not loaded" leaves it untouched.
  Status decode(const std::vector<int32_t>& ids, std::string& text) const;

  bool byteLevel = false;           // spaces are "Ġ" (true) or "▁" (false)
  std::vector<std::string> tokens;  // token id -> string
  std::vector<int32_t> auxValues;   // carried, not interpreted
  std::vector<int32_t> tokenTypes;  // empty, or one per token; see isSpecialTokenType
  std::vector<std::string> merges;  // rank -> rule
  int32_t bosId = -1;               // negative: none
  int32_t eosId = -1;               // negative: none
  int32_t unkId = -1;               // negative: unknown symbols are dropped
  int32_t extraId = -1;             // carried, not read
  bool flag = false;                // carried, not read
  std::string label;                // carried, not interpreted

  StringIndex tokenIndex;       // token -> lowest id; views tokens
  StringIndex mergeRanks;       // rule -> lowest rank; views merges
  SpecialTokens specialTokens;  // in matching order, none empty

 private:
  std::string_view spaceMarker() const;
  bool isSpecial(size_t id) const;
  void appendPiece(BpeMerger& merger, std::string_view piece, std::vector<int32_t>& out) const;
  Status encodeLines(std::string_view text, std::vector<int32_t>& ids) const;

  SpecialTokenFinder specialTokenFinder;
};

}  // namespace kel
