// The answer of POST /v1/responses: items, told one after the other.
#include <iterator>
#include <utility>
#include <vector>

#include "host/serve/answer_tokens.h"
#include "host/serve/responses_api.h"

namespace zym {

namespace {

using Kind = engine::ReplyEvent::Kind;

class ResponseSink : public ApiSink {
 public:
  ResponseSink(SharedModel servedModel, std::shared_ptr<HttpExchange> answered,
               ResponseRequest& asked)
      : ApiSink(std::move(servedModel), std::move(answered), ErrorForm::Completions, asked.streams),
        settings(std::move(asked.settings)),
        id(served->newId("resp_")),
        created(served->services.now()),
        tokens(*served, asked.request.thinking && served->canThink) {}

  void token(size_t /*choice*/, const engine::LogProbabilities& chosen) override {
    tokens.add(chosen);
  }

  void event(size_t /*choice*/, const engine::ReplyEvent& event) override {
    std::vector<engine::LogProbabilities> chosen = tokens.take(event);
    switch (event.kind) {
      case Kind::Reasoning:
        addText(Part::Reasoning, event.text, {});
        break;
      case Kind::Answer:
        addText(Part::Answer, event.text, std::move(chosen));
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
  std::string_view promptField() const override { return "input"; }

  void opened() override {
    tell("response.created", {{"response", response("in_progress")}});
    tell("response.in_progress", {{"response", response("in_progress")}});
  }

  void ended(size_t /*choice*/, const engine::Reply& reply) override {
    isCutShort = reply.end == engine::ReplyEnd::Limit || reply.end == engine::ReplyEnd::ContextFull;
    if (!isCutShort && !brokenCall.empty()) {
      // The model left it at that: its words are all there is to show.
      addText(Part::Answer, brokenCall, {});
    }
    endItem(isCutShort ? "incomplete" : "completed");
  }

  void closed() override {
    const char* status = isCutShort ? "incomplete" : "completed";
    Json body = response(status);
    if (isCutShort) {
      body["incomplete_details"] = {{"reason", "max_output_tokens"}};
    }
    body["usage"] = {{"input_tokens", promptTokens},
                     {"input_tokens_details", {{"cached_tokens", cachedTokens}}},
                     {"output_tokens", replyTokens},
                     {"output_tokens_details", {{"reasoning_tokens", reasoningTokens}}},
                     {"total_tokens", promptTokens + replyTokens}};
    if (isStreamed()) {
      tell(isCutShort ? "response.incomplete" : "response.completed", {{"response", body}});
    } else {
      answerWhole(body);
    }
  }

  void broken(const ApiError& error) override {
    Json body = response("failed");
    body["error"] = {{"code", "server_error"}, {"message", error.message}};
    tell("response.failed", {{"response", body}});
  }

 private:
  // What the item that is being told consists of.
  enum class Part : uint8_t { None, Reasoning, Answer };

  void tell(const char* type, const Json& fields) {
    if (!isStreamed()) {
      return;
    }
    Json event = {{"type", type}, {"sequence_number", sequence++}};
    event.update(fields);
    send(type, event);
  }

  Json response(const char* status) const {
    Json body = {{"id", id},
                 {"object", "response"},
                 {"created_at", created},
                 {"status", status},
                 {"background", false},
                 {"error", nullptr},
                 {"incomplete_details", nullptr},
                 {"model", served->name()},
                 {"output", output}};
    body.update(*settings);
    body["usage"] = nullptr;
    return body;
  }

  Json partOf(const std::string& content) const {
    if (part == Part::Reasoning) {
      return {{"type", "reasoning_text"}, {"text", content}};
    }
    return {{"type", "output_text"},
            {"text", content},
            {"annotations", Json::array()},
            {"logprobs", chatLogProbabilities(*served, logProbabilities)}};
  }

  Json itemOf(const char* status, Json content) const {
    if (part == Part::Reasoning) {
      return {{"id", itemId},
              {"type", "reasoning"},
              {"summary", Json::array()},
              {"content", std::move(content)},
              {"status", status}};
    }
    return {{"id", itemId},
            {"type", "message"},
            {"status", status},
            {"role", "assistant"},
            {"content", std::move(content)}};
  }

  // Where in the output the part is that an event is about.
  Json placed(Json fields) const {
    Json place = {{"item_id", itemId}, {"output_index", output.size()}, {"content_index", 0}};
    place.update(fields);
    return place;
  }

  void beginItem(Part wanted) {
    endItem("completed");
    part = wanted;
    itemId = served->newId(part == Part::Reasoning ? "rs_" : "msg_");
    tell("response.output_item.added",
         {{"output_index", output.size()}, {"item", itemOf("in_progress", Json::array())}});
    tell("response.content_part.added", placed({{"part", partOf("")}}));
  }

  void addText(Part wanted, const std::string& piece,
               std::vector<engine::LogProbabilities> chosen) {
    if (part != wanted) {
      beginItem(wanted);
    }
    text += piece;
    Json delta = placed({{"delta", piece}});
    if (part == Part::Answer) {
      delta["logprobs"] = chatLogProbabilities(*served, chosen);
    }
    tell(part == Part::Answer ? "response.output_text.delta" : "response.reasoning_text.delta",
         delta);
    std::move(chosen.begin(), chosen.end(), std::back_inserter(logProbabilities));
  }

  void endItem(const char* status) {
    if (part == Part::None) {
      return;
    }
    const Json whole = partOf(text);
    Json done = placed({{"text", text}});
    if (part == Part::Answer) {
      done["logprobs"] = whole["logprobs"];
    }
    tell(part == Part::Answer ? "response.output_text.done" : "response.reasoning_text.done", done);
    tell("response.content_part.done", placed({{"part", whole}}));
    addItem(itemOf(status, Json::array({whole})));
    part = Part::None;
    text.clear();
    logProbabilities.clear();
  }

  void addItem(Json item) {
    tell("response.output_item.done", {{"output_index", output.size()}, {"item", item}});
    output.push_back(std::move(item));
  }

  void addCall(const engine::ReplyEvent& event) {
    endItem("completed");
    itemId = served->newId("fc_");
    Json item = {{"id", itemId},
                 {"type", "function_call"},
                 {"status", "in_progress"},
                 {"call_id", served->newId("call_")},
                 {"name", event.name},
                 {"arguments", ""}};
    const Json place = {{"item_id", itemId}, {"output_index", output.size()}};
    tell("response.output_item.added", {{"output_index", output.size()}, {"item", item}});
    Json delta = place;
    delta["delta"] = event.json;
    tell("response.function_call_arguments.delta", delta);
    Json done = place;
    done["name"] = event.name;
    done["arguments"] = event.json;
    tell("response.function_call_arguments.done", done);
    item["status"] = "completed";
    item["arguments"] = event.json;
    addItem(std::move(item));
  }

  std::shared_ptr<const Json> settings;
  std::string id;
  int64_t created;
  AnswerTokens tokens;
  uint64_t sequence = 0;
  Json output = Json::array();

  Part part = Part::None;
  std::string itemId;
  std::string text;
  std::vector<engine::LogProbabilities> logProbabilities;  // of text
  std::string brokenCall;                                  // as the model wrote it
  bool isCutShort = false;
};

}  // namespace

void answerResponse(const SharedModel& served, const std::shared_ptr<HttpExchange>& exchange) {
  ResponseRequest asked;
  const ApiError error = readResponseRequest(exchange->request().body, *served, asked);
  if (error) {
    answerError(*exchange, ErrorForm::Completions, error);
    return;
  }
  auto sink = std::make_shared<ResponseSink>(served, exchange, asked);
  submit(served, std::move(asked.request), std::move(sink), *exchange, ErrorForm::Completions);
}

}  // namespace zym
