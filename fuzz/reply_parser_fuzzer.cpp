// Any text as a reply, read whole and in pieces. First byte: bit 0 opens reasoning; the others are
// the length of a piece less one.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "engine/json_text.h"
#include "engine/reply_parser.h"

namespace {

using engine::ReplyEvent;
using Kind = ReplyEvent::Kind;
using Events = std::vector<ReplyEvent>;

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

const engine::ReplyParser& parserOf(bool reasoning) {
  static const std::vector<engine::Tool> tools = {
      {R"({"name":"f","parameters":{"properties":{"s":{"type":"string"},"n":{"type":"number"},)"
       R"("b":{"type":["boolean","null"]},"a":{"type":"array"},"o":{"type":"object"}}}})"}};
  static const engine::ReplyParser parsers[] = {engine::ReplyParser(false, tools),
                                                engine::ReplyParser(true, tools)};
  return parsers[static_cast<size_t>(reasoning)];
}

bool isText(Kind kind) {
  return kind == Kind::Reasoning || kind == Kind::Answer;
}

// Text of one kind in a row becomes one event.
void append(const Events& told, Events& events) {
  for (const ReplyEvent& event : told) {
    if (!events.empty() && isText(event.kind) && event.kind == events.back().kind) {
      events.back().text += event.text;
    } else {
      events.push_back(event);
    }
  }
}

Events parse(std::string_view reply, bool reasoning, size_t pieceBytes) {
  engine::ReplyParser parser = parserOf(reasoning);
  Events events;
  Events told;
  for (; !reply.empty(); reply.remove_prefix(std::min(pieceBytes, reply.size()))) {
    told.clear();
    parser.text(reply.substr(0, pieceBytes), told);
    append(told, events);
  }
  told.clear();
  parser.finish(told);
  append(told, events);
  return events;
}

std::string withoutLineFeeds(std::string_view text) {
  std::string rest(text);
  std::erase(rest, '\n');
  return rest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view reply(reinterpret_cast<const char*>(data + 1), size - 1);
  const bool reasoning = (data[0] & 1U) != 0;
  const Events events = parse(reply, reasoning, reply.size());
  require(events == parse(reply, reasoning, 1 + (data[0] >> 1U)));

  require(events.back().kind == Kind::End);
  std::string answer;
  bool calls = false;
  bool open = false;  // a call has begun
  for (const ReplyEvent& event : events) {
    require(!isText(event.kind) || !event.text.empty());
    answer += event.kind == Kind::Answer ? event.text : "";
    switch (event.kind) {
      case Kind::CallBegin:
        require(!open && !event.name.empty());
        open = true;
        break;
      case Kind::CallArgument:
        require(open && engine::jsonKind(event.json).has_value());
        break;
      case Kind::CallComplete:
      case Kind::CallIncomplete:
        require(open == !event.name.empty());
        require(engine::jsonKind(event.json) == engine::JsonKind::Object);
        calls = true;
        open = false;
        break;
      case Kind::CallMalformed:
        require(open);
        open = false;
        break;
      default:
        require(!open);
    }
  }
  // Without calls and reasoning all of it is answer.
  if (!reasoning && !calls && reply.find("<think>") == std::string_view::npos) {
    require(withoutLineFeeds(answer) == withoutLineFeeds(reply));
  }
  return 0;
}
