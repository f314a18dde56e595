#include "engine/grammar_constraint.h"

#include <algorithm>
#include <utility>

#include "engine/chat_format.h"

namespace engine {

namespace {

using kel::Status;

constexpr size_t kManyFrames = 4'096;

// Both marks are tokens, or both are spelt.
bool spellsCalls(const VocabularyTrie& trie) {
  return trie.controlToken(kCallBegin) < 0 || trie.controlToken(kCallEnd) < 0;
}

}  // namespace

Status GrammarConstraint::check(const Grammar& grammar, const VocabularyTrie& trie) {
  if (!trie.writesAscii()) {
    return Status::invalid("constraint: the vocabulary has no token for some printable characters");
  }
  if (!grammar.isAscii && !trie.writesAllBytes()) {
    return Status::invalid(
        "constraint: words of the schema are not ASCII, and the vocabulary has no token for some "
        "bytes");
  }
  if (trie.endTokens().empty()) {
    return Status::invalid("constraint: the vocabulary has no token that ends a turn");
  }
  return Status::success();
}

GrammarConstraint::GrammarConstraint(std::shared_ptr<const Grammar> textGrammar,
                                     std::shared_ptr<const VocabularyTrie> vocabularyTrie,
                                     const ConstraintOptions& options)
    : grammar(std::move(textGrammar)),
      trie(std::move(vocabularyTrie)),
      machine(*grammar, spellsCalls(*trie)),
      places(machine.begin(options.followsReasoning)),
      masked(trie->vocabulary(), false) {}

void GrammarConstraint::allowed(TokenMask& mask) {
  if (places.empty() || places != maskedPlaces) {
    masked.setAll(false);
    for (const GrammarMachine::Place place : places) {
      allowFrom(place, masked);
    }
    if (places.empty() || isComplete()) {
      for (const int32_t id : trie->endTokens()) {
        masked.allow(static_cast<size_t>(id));
      }
    }
    maskedPlaces = places;
  }
  mask = masked;
}

void GrammarConstraint::allowFrom(GrammarMachine::Place place, TokenMask& mask) {
  const GrammarMachine::Bookmark before = machine.bookmark();
  const std::string_view control = machine.controlAt(place);
  GrammarMachine::Inside inside;
  if (!control.empty()) {
    mask.allow(static_cast<size_t>(trie->controlToken(control)));
  } else if (machine.inside(place, inside)) {
    allowWithin(place, inside, mask);
  } else {
    walk(VocabularyTrie::kRoot, {place}, 0, mask);
  }
  machine.forgetSince(before);
}

// Most tokens go on with a string without ending it, and whether they do depends on nothing but the
// place within it: they have been found before. What ends it goes on with what is around.
void GrammarConstraint::allowWithin(GrammarMachine::Place place,
                                    const GrammarMachine::Inside& inside, TokenMask& mask) {
  const VocabularyTrie::StringTokens& known = trie->stringTokens(inside.scan);
  const auto tooLong =
      std::partition_point(known.counted.begin(), known.counted.end(),
                           [&](const auto& token) { return token.characters <= inside.maxLength; });
  if (tooLong == known.counted.end()) {
    mask.allowAll(known.within);
  } else {
    for (auto token = known.counted.begin(); token != tooLong; ++token) {
      mask.allow(static_cast<size_t>(token->id));
    }
  }
  GrammarMachine::Places around;
  const auto allowExit = [&](const VocabularyTrie::StringTokens::Exit& exit) {
    for (const int32_t id : trie->tokensOf(exit.node)) {
      mask.allow(static_cast<size_t>(id));
    }
    walk(exit.node, around, 0, mask);
  };
  if (!inside.isKey) {
    machine.leave(place, {}, around);
  }
  for (const VocabularyTrie::StringTokens::Exit& exit : known.exits) {
    if (exit.characters < inside.minLength || exit.characters > inside.maxLength) {
      continue;
    }
    const GrammarMachine::Bookmark before = machine.bookmark();
    if (inside.isKey) {
      machine.leave(place, std::string_view(known.texts).substr(exit.text, exit.textBytes), around);
    }
    if (!around.empty()) {
      allowExit(exit);
    }
    machine.forgetSince(before);
  }
}

// Allows the tokens below a node of the trie whose bytes lead on.
void GrammarConstraint::walk(size_t node, const Places& from, size_t depth, TokenMask& mask) {
  while (levels.size() <= depth) {
    levels.emplace_back();
  }
  Places& next = levels[depth];
  for (size_t child = VocabularyTrie::firstChild(node); child < trie->subtreeEnd(node);
       child = trie->subtreeEnd(child)) {
    const GrammarMachine::Bookmark before = machine.bookmark();
    machine.step(from, trie->byteOf(child), next);
    if (!next.empty()) {
      if (trie->writesAllBytes() || !machine.isWithinCharacter(next)) {
        for (const int32_t id : trie->tokensOf(child)) {
          mask.allow(static_cast<size_t>(id));
        }
      }
      walk(child, next, depth + 1, mask);
    }
    machine.forgetSince(before);
  }
}

void GrammarConstraint::accept(int32_t id) {
  Places next;
  if (const std::string_view text = trie->bytesOf(id); !text.empty()) {
    machine.advance(places, text, next);
  } else {
    for (const std::string_view mark : {kCallBegin, kCallEnd}) {
      if (id == trie->controlToken(mark)) {
        machine.advanceControl(places, mark, next);
      }
    }
  }
  places = std::move(next);
  if (machine.size() > kManyFrames) {
    machine.keepOnly(places);
    maskedPlaces.clear();
  }
}

}  // namespace engine
