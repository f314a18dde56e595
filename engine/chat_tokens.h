// Conversations as tokens: framing by ids, contents as text, whatever they spell.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "container/status.h"
#include "engine/chat_format.h"
#include "engine/context.h"
#include "engine/model.h"

namespace engine {

// How the turns of a model are framed.
enum class ChatStyle : uint8_t {
  Family,     // engine/chat_format.h
  OpenTurns,  // an assistant's turn ends with the next one; no reasoning, no tools
};

// By the container's template text; Family where it has none or another one.
ChatStyle chatStyleOf(const Model& model);

// Whether replies can begin with reasoning: the framing has it, and the vocabulary its marks.
bool canThink(const Model& model);

// Whether they do unless told not to.
bool thinksByDefault(const Model& model);

struct ChatRequest {
  std::span<const Message> messages;
  std::span<const Tool> tools = {};
  bool thinking = false;  // without effect on a model that has no token for it
  bool preserveThinking = false;
  // Control tokens that are spelt in contents take effect. Only for text of those who write the
  // framing themselves.
  bool readsMarks = false;
};

struct ChatTokens {
  std::vector<Token> tokens;
  std::vector<size_t> ends{};  // of the messages, ascending; the generation prompt follows the last
  bool opensReasoning = false;
};

// Messages and generation prompt. Tokens of assistant messages are marked as generated, as they
// were when the model wrote them. Failures are those of renderConversation, and a vocabulary
// without the tokens that frame turns.
kel::Status encodeChat(const Model& model, const ChatRequest& request, ChatTokens& out);

}  // namespace engine
