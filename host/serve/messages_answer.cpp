// The answer of POST /v1/messages: blocks, told one after the other.
#include <utility>

#include "engine/chat_tokens.h"
#include "engine/json_tree.h"
#include "host/serve/api_output.h"
#include "host/serve/messages_api.h"

namespace zym {

namespace {

using Kind = engine::ReplyEvent::Kind;

class MessageSink : public ApiSink {
 public:
  MessageSink(SharedModel servedModel, std::shared_ptr<HttpExchange> answered, bool streams)
      : ApiSink(std::move(servedModel), std::move(answered), ErrorForm::Messages, streams),
        id(served->newId("msg_")) {}

  void event(size_t /*choice*/, const engine::ReplyEvent& event) override {
    switch (event.kind) {
      case Kind::Reasoning:
        addText(Part::Thinking, event.text);
        break;
      case Kind::Answer:
        addText(Part::Text, event.text);
        break;
      case Kind::CallComplete:
        addCall(event);
        break;
      case Kind::CallIncomplete:
        brokenCall = event.text;
        break;
      default:
        // A call that has begun may yet turn out to be none, which could not be taken back.
        break;
    }
  }

 protected:
  void opened() override {
    Json message = messageObject();
    message["usage"] = usage();
    tell("message_start", {{"message", message}});
    tell("ping", Json::object());
  }

  void ended(size_t /*choice*/, const engine::Reply& reply) override {
    const bool isCutShort =
        reply.end == engine::ReplyEnd::Limit || reply.end == engine::ReplyEnd::ContextFull;
    if (!isCutShort && !brokenCall.empty()) {
      // The model left it at that: its words are all there is to show.
      addText(Part::Text, brokenCall);
    }
    endBlock();
    if (isCutShort) {
      stopReason = "max_tokens";
    } else if (reply.end == engine::ReplyEnd::StopString) {
      stopReason = "stop_sequence";
      stopSequence = reply.stopString;
    } else {
      stopReason = called ? "tool_use" : "end_turn";
    }
  }

  void closed() override {
    if (!isStreamed()) {
      Json message = messageObject();
      message["usage"] = usage();
      answerWhole(message);
      return;
    }
    tell("message_delta",
         {{"delta", {{"stop_reason", stopReason}, {"stop_sequence", stopSequence}}},
          {"usage", usage()}});
    tell("message_stop", Json::object());
  }

  void broken(const ApiError& error) override {
    send("error", errorBody(ErrorForm::Messages, error));
  }

 private:
  enum class Part : uint8_t { None, Thinking, Text };

  void tell(const char* type, const Json& fields) {
    if (isStreamed()) {
      Json event = {{"type", type}};
      event.update(fields);
      send(type, event);
    }
  }

  Json messageObject() const {
    return {{"id", id},
            {"type", "message"},
            {"role", "assistant"},
            {"model", served->name()},
            {"content", content},
            {"stop_reason", stopReason},
            {"stop_sequence", stopSequence}};
  }

  // Tokens that were in place count apart from those that were read.
  Json usage() const {
    return {{"input_tokens", promptTokens - cachedTokens},
            {"cache_creation_input_tokens", 0},
            {"cache_read_input_tokens", cachedTokens},
            {"output_tokens", replyTokens}};
  }

  Json blockOf(const std::string& words) const {
    if (part == Part::Thinking) {
      return {{"type", "thinking"}, {"thinking", words}, {"signature", ""}};
    }
    return {{"type", "text"}, {"text", words}};
  }

  void addText(Part wanted, const std::string& piece) {
    if (part != wanted) {
      endBlock();
      part = wanted;
      tell("content_block_start", {{"index", content.size()}, {"content_block", blockOf("")}});
    }
    text += piece;
    const Json delta = part == Part::Thinking
                           ? Json({{"type", "thinking_delta"}, {"thinking", piece}})
                           : Json({{"type", "text_delta"}, {"text", piece}});
    tell("content_block_delta", {{"index", content.size()}, {"delta", delta}});
  }

  void endBlock() {
    if (part != Part::None) {
      tell("content_block_stop", {{"index", content.size()}});
      content.push_back(blockOf(text));
      part = Part::None;
      text.clear();
    }
  }

  void addCall(const engine::ReplyEvent& event) {
    endBlock();
    called = true;
    Json block = {{"type", "tool_use"},
                  {"id", served->newId("toolu_")},
                  {"name", event.name},
                  {"input", Json::object()}};
    tell("content_block_start", {{"index", content.size()}, {"content_block", block}});
    tell("content_block_delta",
         {{"index", content.size()},
          {"delta", {{"type", "input_json_delta"}, {"partial_json", event.json}}}});
    tell("content_block_stop", {{"index", content.size()}});
    block["input"] = inputOf(event.json);
    content.push_back(std::move(block));
  }

  // Empty where a number is beyond what a double holds, and where there are more brackets within
  // one another than a request may give back: each of them takes stack.
  Json inputOf(const std::string& json) const {
    if (engine::jsonDepth(json) > served->services.limits.depth) {
      return Json::object();
    }
    const auto input = nlohmann::json::parse(json, nullptr, false);
    return input.is_discarded() ? Json::object() : Json(input);
  }

  std::string id;
  Json content = Json::array();
  Part part = Part::None;  // of the block that is being told
  std::string text;        //
  bool called = false;
  std::string brokenCall;  // as the model wrote it
  Json stopReason;
  Json stopSequence;
};

}  // namespace

void answerMessage(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange) {
  MessageRequest asked;
  const ApiError error =
      readMessageRequest(exchange->request().body, *served, MessagePurpose::Answer, asked);
  if (error) {
    answerError(*exchange, ErrorForm::Messages, error);
    return;
  }
  auto sink = std::make_shared<MessageSink>(served, exchange, asked.streams);
  submit(served, std::move(asked.request), std::move(sink), *exchange, ErrorForm::Messages);
}

void answerTokenCount(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange) {
  MessageRequest asked;
  ApiError error =
      readMessageRequest(exchange->request().body, *served, MessagePurpose::Count, asked);
  engine::ChatTokens tokens;
  if (!error) {
    const GenerationRequest& request = asked.request;
    const kel::Status status = engine::encodeChat(served->model(),
                                                  {.messages = request.messages,
                                                   .tools = request.tools,
                                                   .thinking = request.thinking,
                                                   .preserveThinking = request.preserveThinking},
                                                  tokens);
    if (!status.ok()) {
      error = errorOf(GenerationFault::Request, status.message, "messages");
    }
  }
  if (error) {
    answerError(*exchange, ErrorForm::Messages, error);
    return;
  }
  answerJson(*exchange, {{"input_tokens", tokens.tokens.size()}});
}

}  // namespace zym
