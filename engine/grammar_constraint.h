// A reply that is a text of a grammar: token masks from the grammar's automaton and the
// vocabulary's trie.
//
//   auto trie = std::make_shared<const VocabularyTrie>(model->tokenizer(), model->sizes().vocab);
//   ...                                                        // once per model, for all requests
//   kel::Status status = GrammarConstraint::check(*grammar, *trie);
//   auto constraint = std::make_unique<GrammarConstraint>(grammar, trie, ConstraintOptions{});
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "container/status.h"
#include "engine/grammar.h"
#include "engine/grammar_machine.h"
#include "engine/reply_constraint.h"
#include "engine/vocabulary_trie.h"

namespace engine {

struct ConstraintOptions {
  // The answer comes behind reasoning: up to two line feeds, which no reader of replies counts as
  // answer, may stand in front of it.
  bool followsReasoning = false;
};

// Of one reply; one thread at a time. Grammar and trie are shared by any number of them.
//
// Tokens are allowed where the text so far and theirs is the beginning of a text of the grammar,
// wherever within a token one part of it ends and the next begins. Special tokens are none but
// those that frame calls and those that end a turn; the latter are allowed where the text is
// complete, and where nothing can follow nothing else is.
class GrammarConstraint final : public ReplyConstraint {
 public:
  // Whether the vocabulary can write every text of the grammar to its end. It needs a token for
  // every printable ASCII character and the line feed, one that ends a turn, and for the words of a
  // schema that are not ASCII one for every byte. "constraint: ...".
  static kel::Status check(const Grammar& grammar, const VocabularyTrie& trie);

  // check() must have succeeded.
  GrammarConstraint(std::shared_ptr<const Grammar> grammar,
                    std::shared_ptr<const VocabularyTrie> trie, const ConstraintOptions& options);

  void allowed(TokenMask& mask) override;
  // A token that was not allowed ends the text: only tokens that end a turn follow.
  void accept(int32_t id) override;

  // The text so far is one of the grammar.
  bool isComplete() const { return machine.isComplete(places); }
  // Of the automaton, what this one holds; bounded whatever the length of the text.
  size_t heldFrames() const { return machine.size(); }

 private:
  using Places = GrammarMachine::Places;

  void allowFrom(GrammarMachine::Place place, TokenMask& mask);
  void allowWithin(GrammarMachine::Place place, const GrammarMachine::Inside& inside,
                   TokenMask& mask);
  void walk(size_t node, const Places& from, size_t depth, TokenMask& mask);

  std::shared_ptr<const Grammar> grammar;
  std::shared_ptr<const VocabularyTrie> trie;
  GrammarMachine machine;
  Places places;

  // The mask of the last call, and where it was asked for: text within a string stays in one place.
  Places maskedPlaces;
  TokenMask masked;

  std::deque<Places> levels;  // scratch of walk, by bytes of a token
};

}  // namespace engine
