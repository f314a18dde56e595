#include "host/serve/chat_api.h"

#include <array>
#include <utility>
#include <vector>

#include "host/serve/answer_tokens.h"
#include "host/serve/api_output.h"
#include "host/serve/conversation_fields.h"
#include "host/serve/harmless_fields.h"
#include "host/serve/request_fields.h"
#include "host/serve/stream_options.h"
#include "host/serve/tool_fields.h"

namespace zym {

namespace {

using Kind = engine::ReplyEvent::Kind;

void readLogProbabilities(Fields& body, const ServedModel& served, GenerationRequest& out) {
  const bool wanted = body.boolean("logprobs").value_or(false);
  const auto most = static_cast<int64_t>(served.services.limits.topLogProbabilities);
  const auto best = body.whole("top_logprobs", 0, most);
  if (best && !wanted) {
    body.fail("top_logprobs", "needs logprobs to be true");
  }
  if (wanted) {
    out.logProbabilities = static_cast<size_t>(best.value_or(0));
  }
}

void readTokens(Fields& body, GenerationRequest& out) {
  out.options.maxTokens = readTokenLimit(body, "max_tokens");
  if (const uint64_t most = readTokenLimit(body, "max_completion_tokens"); most != 0) {
    out.options.maxTokens = most;
  }
}

// A call as messages hold it.
Json callObject(const std::string& id, const std::string& name, const std::string& arguments) {
  return {
      {"id", id}, {"type", "function"}, {"function", {{"name", name}, {"arguments", arguments}}}};
}

class ChatSink : public ApiSink {
 public:
  ChatSink(SharedModel servedModel, std::shared_ptr<HttpExchange> answered,
           const ChatCompletion& chat)
      : ApiSink(std::move(servedModel), std::move(answered), ErrorForm::Completions, chat.streams),
        showsUsage(chat.showsUsage),
        id(served->newId("chatcmpl-")),
        created(served->services.now()),
        hasLogProbabilities(chat.request.logProbabilities.has_value()),
        choices(chat.request.choices, Choice(*served, chat.request.thinking)) {}

  void token(size_t choice, const engine::LogProbabilities& chosen) override {
    choices[choice].tokens.add(chosen);
  }

  void event(size_t index, const engine::ReplyEvent& event) override {
    Choice& choice = choices[index];
    std::vector<engine::LogProbabilities> tokens = choice.tokens.take(event);
    switch (event.kind) {
      case Kind::Reasoning:
        tell(index, {{"reasoning_content", event.text}});
        choice.reasoning += event.text;
        break;
      case Kind::Answer:
        answer(index, event.text, std::move(tokens));
        break;
      case Kind::CallComplete:
        call(index, event);
        break;
      case Kind::CallIncomplete:
        choice.brokenCall = event.text;
        break;
      default:
        // A call that has begun may yet turn out to be none, which could not be taken back.
        break;
    }
  }

 protected:
  void opened() override {
    for (size_t i = 0; i < choices.size(); ++i) {
      tell(i, {{"role", "assistant"}, {"content", ""}});
    }
  }

  void ended(size_t index, const engine::Reply& reply) override {
    Choice& choice = choices[index];
    const bool isCutShort =
        reply.end == engine::ReplyEnd::Limit || reply.end == engine::ReplyEnd::ContextFull;
    if (!isCutShort && !choice.brokenCall.empty()) {
      // The model left it at that: its words are all there is to show.
      answer(index, choice.brokenCall, {});
    }
    choice.finishReason = isCutShort ? "length" : choice.calls.empty() ? "stop" : "tool_calls";
    if (isStreamed()) {
      sendChunk(Json::array({{{"index", index},
                              {"delta", Json::object()},
                              {"logprobs", nullptr},
                              {"finish_reason", choice.finishReason}}}));
    }
  }

  void closed() override {
    if (!isStreamed()) {
      Json body = head("chat.completion");
      body["choices"] = Json::array();
      for (size_t i = 0; i < choices.size(); ++i) {
        body["choices"].push_back(choiceObject(i));
      }
      body["usage"] = usage();
      answerWhole(body);
      return;
    }
    if (showsUsage) {
      Json chunk = head("chat.completion.chunk");
      chunk["choices"] = Json::array();
      chunk["usage"] = usage();
      send({}, chunk);
    }
    exchange->write("data: [DONE]\n\n");
  }

  void broken(const ApiError& error) override {
    send({}, errorBody(ErrorForm::Completions, error));
  }

 private:
  struct Choice {
    Choice(const ServedModel& model, bool thinking) : tokens(model, thinking && model.canThink) {}

    AnswerTokens tokens;
    std::string reasoning;
    std::string content;
    Json calls = Json::array();
    std::vector<engine::LogProbabilities> logProbabilities;
    std::string brokenCall;  // as the model wrote it
    std::string finishReason;
  };

  void answer(size_t index, const std::string& text, std::vector<engine::LogProbabilities> tokens) {
    Choice& choice = choices[index];
    Json logProbabilities;
    if (hasLogProbabilities && isStreamed()) {
      logProbabilities = {{"content", chatLogProbabilities(*served, tokens)}, {"refusal", nullptr}};
    }
    tell(index, {{"content", text}}, std::move(logProbabilities));
    choice.content += text;
    std::move(tokens.begin(), tokens.end(), std::back_inserter(choice.logProbabilities));
  }

  void call(size_t index, const engine::ReplyEvent& event) {
    Json& calls = choices[index].calls;
    const size_t number = calls.size();
    const std::string callId = served->newId("call_");
    Json first = {{"index", number}};
    first.update(callObject(callId, event.name, ""));
    tell(index, {{"tool_calls", Json::array({first})}});
    const Json rest = {{"index", number}, {"function", {{"arguments", event.json}}}};
    tell(index, {{"tool_calls", Json::array({rest})}});
    calls.push_back(callObject(callId, event.name, event.json));
  }

  Json head(std::string_view object) const {
    return {{"id", id},
            {"object", object},
            {"created", created},
            {"model", served->name()},
            {"system_fingerprint", served->services.fingerprint}};
  }

  void tell(size_t index, Json delta, Json logProbabilities = nullptr) {
    if (isStreamed()) {
      sendChunk(Json::array({{{"index", index},
                              {"delta", std::move(delta)},
                              {"logprobs", std::move(logProbabilities)},
                              {"finish_reason", nullptr}}}));
    }
  }

  void sendChunk(Json chunkChoices) {
    Json chunk = head("chat.completion.chunk");
    chunk["choices"] = std::move(chunkChoices);
    if (showsUsage) {
      chunk["usage"] = nullptr;
    }
    send({}, chunk);
  }

  Json choiceObject(size_t index) const {
    const Choice& choice = choices[index];
    Json message = {{"role", "assistant"}};
    const bool isNull = choice.content.empty() && !choice.calls.empty();
    message["content"] = isNull ? Json() : Json(choice.content);
    message["refusal"] = nullptr;
    if (!choice.reasoning.empty()) {
      message["reasoning_content"] = choice.reasoning;
    }
    if (!choice.calls.empty()) {
      message["tool_calls"] = choice.calls;
    }
    Json logProbabilities;
    if (hasLogProbabilities) {
      logProbabilities = {{"content", chatLogProbabilities(*served, choice.logProbabilities)},
                          {"refusal", nullptr}};
    }
    return {{"index", index},
            {"message", std::move(message)},
            {"logprobs", std::move(logProbabilities)},
            {"finish_reason", choice.finishReason}};
  }

  Json usage() const {
    return {{"prompt_tokens", promptTokens},
            {"completion_tokens", replyTokens},
            {"total_tokens", promptTokens + replyTokens},
            {"prompt_tokens_details", {{"cached_tokens", cachedTokens}}},
            {"completion_tokens_details", {{"reasoning_tokens", reasoningTokens}}}};
  }

  bool showsUsage;
  std::string id;
  int64_t created;
  bool hasLogProbabilities;
  std::vector<Choice> choices;
};

}  // namespace

ApiError readChatCompletion(std::string_view text, const ServedModel& served, ChatCompletion& out) {
  const ApiLimits& limits = served.services.limits;
  ApiError error;
  if (!isJsonObject(text, limits.depth, error)) {
    return error;
  }
  Fields body(text, "", error);
  GenerationRequest& request = out.request;
  readModelName(body, served);
  request.messages = readChatMessages(body, served);
  Thinking thinking{.enabled = served.thinksByDefault};
  readEffort(body, "reasoning_effort", served, thinking);
  readTemplateArguments(body, served, thinking);
  applyThinking(thinking, request);
  readSampling(body, served, request.thinking, request);
  readTokens(body, request);
  readStops(body, "stop", limits, request);
  readLogProbabilities(body, served, request);
  request.choices =
      static_cast<size_t>(body.whole("n", 1, static_cast<int64_t>(limits.choices)).value_or(1));
  out.streams = body.boolean("stream").value_or(false);
  out.showsUsage = readStreamOptions(body, out.streams);
  const ToolUse tools = readTools(body, ToolPlace::Function, served);
  const auto form = readAnswerForm(body, "response_format", SchemaPlace::Wrapped, limits);
  refuseStoring(body);
  body.refuse("functions", "is not supported: use tools");
  body.refuse("function_call", "is not supported: use tool_choice");
  body.refuse("audio", "is not supported: answers are text");
  readTextModalities(body);
  readVerbosity(body);
  body.finish(kHarmlessInChat);
  applyTools(tools, form, served, error, request);
  return error;
}

void answerChatCompletion(const SharedModel& served,
                          const std::shared_ptr<HttpExchange>& exchange) {
  ChatCompletion chat;
  const ApiError error = readChatCompletion(exchange->request().body, *served, chat);
  if (error) {
    answerError(*exchange, ErrorForm::Completions, error);
    return;
  }
  auto sink = std::make_shared<ChatSink>(served, exchange, chat);
  submit(served, std::move(chat.request), std::move(sink), *exchange, ErrorForm::Completions);
}

}  // namespace zym
