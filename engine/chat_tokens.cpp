#include "engine/chat_tokens.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "engine/text_encoder.h"

namespace engine {

namespace {

using kel::Status;

// The template of models whose turns stay open, to the byte.
constexpr std::string_view kOpenTurnsTemplate =
    "{% for message in messages %}{{ '<|im_start|>' + message['role'] + '\\n' + message['content'] "
    "}}{% if message['role'] != 'assistant' %}{{ '<|im_end|>\\n' }}{% endif %}{% endfor %}{% if "
    "add_generation_prompt %}{{ '<|im_start|>assistant\\n' }}{% endif %}";

std::string_view roleName(Role role) {
  switch (role) {
    case Role::System:
      return "system";
    case Role::User:
      return "user";
    case Role::Assistant:
      return "assistant";
    case Role::Tool:
      break;
  }
  return "tool";
}

class Encoder {
 public:
  Encoder(const Model& chatModel, bool readsMarks, ChatTokens& result)
      : model(chatModel), marks(readsMarks), out(result) {}

  // What the container asks for at the beginning of a text.
  void begin() {
    if (model.tokenizer().bosId >= 0) {
      out.tokens.push_back({model.tokenizer().bosId, false});
    }
  }

  void text(std::string_view content, bool generated) {
    ids.clear();
    if (marks && !generated) {
      model.textEncoder().encodeWithSpecials(content, ids);
    } else {
      model.textEncoder().encode(content, ids);
    }
    for (const int32_t id : ids) {
      out.tokens.push_back({id, generated});
    }
  }

  // A mark that the vocabulary lacks is spelt.
  void control(std::string_view mark, bool generated) {
    const int32_t id = model.tokenizer().tokenToId(mark);
    if (id < 0) {
      text(mark, generated);
    } else {
      out.tokens.push_back({id, generated});
    }
  }

  void segment(const Segment& part) {
    if (part.control) {
      control(part.text, part.generated);
    } else {
      text(part.text, part.generated);
    }
  }

  void endMessage() { out.ends.push_back(out.tokens.size()); }

 private:
  const Model& model;
  bool marks;
  ChatTokens& out;
  std::vector<int32_t> ids;
};

bool has(const Model& model, std::string_view mark) {
  return model.tokenizer().tokenToId(mark) >= 0;
}

Status encodeOpenTurns(const ChatRequest& request, Encoder& encoder) {
  if (!request.tools.empty()) {
    return Status::invalid("the model's chat template knows no tools");
  }
  if (request.messages.empty()) {
    return Status::invalid("No messages provided.");
  }
  for (const Message& message : request.messages) {
    const bool isReply = message.role == Role::Assistant;
    encoder.control(kTurnBegin, false);
    encoder.text(std::string(roleName(message.role)) + "\n", false);
    encoder.text(message.content, isReply);
    if (!isReply) {
      encoder.control(kTurnEnd, false);
      encoder.text("\n", false);
    }
    encoder.endMessage();
  }
  encoder.control(kTurnBegin, false);
  encoder.text("assistant\n", false);
  return Status::success();
}

Status encodeFamily(const Model& model, const ChatRequest& request, Encoder& encoder,
                    ChatTokens& out) {
  const bool ableToThink = canThink(model);
  const ChatOptions options{.thinking = request.thinking && ableToThink,
                            .preserveThinking = request.preserveThinking};
  Conversation conversation;
  Status status = renderConversation(request.messages, request.tools, options, conversation);
  if (!status.ok()) {
    return status;
  }
  size_t next = 0;  // of messageEnds
  for (size_t i = 0; i < conversation.segments.size(); ++i) {
    const Segment& segment = conversation.segments[i];
    const bool isPrompt = i >= conversation.promptBegin;
    if (isPrompt && !ableToThink && segment.control && segment.text == kThinkBegin) {
      break;  // such a model was trained without
    }
    encoder.segment(segment);
    while (next < conversation.messageEnds.size() && conversation.messageEnds[next] == i + 1) {
      encoder.endMessage();
      ++next;
    }
  }
  out.opensReasoning = options.thinking;
  return status;
}

}  // namespace

ChatStyle chatStyleOf(const Model& model) {
  std::string text;
  model.file().reader.getMetaStr("tokenizer.chat_template", text);
  return text == kOpenTurnsTemplate ? ChatStyle::OpenTurns : ChatStyle::Family;
}

bool canThink(const Model& model) {
  return chatStyleOf(model) == ChatStyle::Family && has(model, kThinkBegin) &&
         has(model, kThinkEnd);
}

bool thinksByDefault(const Model& model) {
  return thinksByDefault(model.sizes().hidden) && canThink(model);
}

Status encodeChat(const Model& model, const ChatRequest& request, ChatTokens& out) {
  out = {};
  for (const std::string_view mark : {kTurnBegin, kTurnEnd}) {
    if (!has(model, mark)) {
      return Status::invalid("the vocabulary has no \"" + std::string(mark) +
                             "\": the model was not made for conversations");
    }
  }
  Encoder encoder(model, request.readsMarks, out);
  encoder.begin();
  return chatStyleOf(model) == ChatStyle::OpenTurns ? encodeOpenTurns(request, encoder)
                                                    : encodeFamily(model, request, encoder, out);
}

}  // namespace engine
