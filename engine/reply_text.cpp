#include "engine/reply_text.h"

#include <utility>

namespace engine {

ReplyText::ReplyText(const Model& model, bool opensReasoning, std::span<const Tool> tools,
                     const ReplyOptions& options, const ReplySinks& replySinks, Reply& result)
    : tokenizer(model.tokenizer()),
      decoder(tokenizer, TextDecoder::Specials::Hidden),
      parser(opensReasoning, tools),
      stops(options.stops),
      stopStrings(options.stops),
      sinks(replySinks),
      reply(result) {
  reply.message.role = Role::Assistant;
}

bool ReplyText::add(int32_t id) {
  if (isMark(id)) {
    addText(decoder.finish());
    parser.control(tokenizer.tokens[static_cast<size_t>(id)], events);
  } else {
    addText(decoder.feed(id));
  }
  deliver();
  return !stops.stopped();
}

void ReplyText::finish() {
  if (!stops.stopped()) {
    addText(decoder.finish());
    parser.finish(events);
    deliver();
    tell(ReplyEvent::Kind::Answer, stops.finish());
  }
  if (stops.stopped()) {
    reply.stopString = stopStrings[*stops.stopped()];
  }
}

bool ReplyText::isMark(int32_t id) const {
  const auto at = static_cast<size_t>(id);
  return at < tokenizer.tokenTypes.size() && kel::isSpecialTokenType(tokenizer.tokenTypes[at]);
}

void ReplyText::addText(const std::string& text) {
  if (!text.empty()) {
    parser.text(text, events);
  }
}

void ReplyText::deliver() {
  for (ReplyEvent& event : std::exchange(events, {})) {
    if (stops.stopped()) {
      return;
    }
    if (event.kind == ReplyEvent::Kind::Answer) {
      tell(event.kind, stops.feed(event.text));
    } else {
      take(std::move(event));
    }
  }
}

void ReplyText::take(ReplyEvent event) {
  // What might have begun a stop string did not: something else follows.
  if (event.kind != ReplyEvent::Kind::Reasoning) {
    tell(ReplyEvent::Kind::Answer, stops.finish());
  }
  Message& message = reply.message;
  if (event.kind == ReplyEvent::Kind::Reasoning) {
    message.reasoningContent = message.reasoningContent.value_or("") + event.text;
  } else if (event.kind == ReplyEvent::Kind::CallComplete) {
    message.toolCalls.push_back({event.name, event.json});
  } else if (event.kind == ReplyEvent::Kind::CallIncomplete) {
    reply.hasIncompleteCall = true;
  }
  if (sinks.event && event.kind != ReplyEvent::Kind::End) {
    sinks.event(event);
  }
}

void ReplyText::tell(ReplyEvent::Kind kind, const std::string& text) {
  if (text.empty()) {
    return;
  }
  reply.message.content += text;
  if (sinks.event) {
    sinks.event({kind, text, {}, {}});
  }
}

}  // namespace engine
