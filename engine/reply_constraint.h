// A form that the answer of a reply must have: asked before every token of the answer what may
// follow, told of every one that was chosen.
#pragma once

#include <cstdint>

#include "engine/token_mask.h"

namespace engine {

// Of one reply; one thread at a time. Reasoning is not constrained: the first token that is asked
// for is the first of the answer, which stands right behind the one that closes reasoning. Where a
// budget closes it, the line feeds of the framing are behind it already; where the model does,
// white space in front of the answer is what the constraint makes of it.
class ReplyConstraint {
 public:
  virtual ~ReplyConstraint() = default;

  // Sets the mask, which is of the size of the vocabulary, to the tokens that may follow: those
  // that end a turn where the answer may end here. There is always one.
  virtual void allowed(TokenMask& mask) = 0;

  // One of the tokens that were allowed has been chosen.
  virtual void accept(int32_t id) = 0;
};

}  // namespace engine
