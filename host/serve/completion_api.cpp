#include "host/serve/completion_api.h"

#include <fmt/core.h>

#include <charconv>
#include <utility>
#include <vector>

#include "engine/text_decoder.h"
#include "engine/text_encoder.h"
#include "host/serve/answer_tokens.h"
#include "host/serve/api_output.h"
#include "host/serve/harmless_fields.h"
#include "host/serve/request_fields.h"
#include "host/serve/stream_options.h"

namespace zym {

namespace {

using engine::JsonKind;

// The interface's own, where a request names no limit.
constexpr uint64_t kDefaultTokens = 16;

void readPrompt(Fields& body, const ServedModel& served, GenerationRequest& out) {
  constexpr std::string_view kWhat =
      "must be a string or an array of token ids; several prompts are several requests";
  body.require("prompt");
  std::optional<std::string_view> value = body.value("prompt");
  if (!value) {
    return;
  }
  // One prompt may stand in a list.
  if (kindOf(*value) == JsonKind::Array) {
    if (jsonItems(*value) == 1) {
      const std::string_view only = engine::jsonElements(*value).front();
      value = kindOf(only) == JsonKind::Number ? *value : only;
    }
  }
  if (kindOf(*value) == JsonKind::String) {
    encodePrompt(served, engine::unquotedJson(*value), out.prompt);
  } else if (kindOf(*value) == JsonKind::Array) {
    readTokenIds(body, "prompt", *value, served, out.prompt);
  } else {
    body.fail("prompt", kWhat);
  }
  if (body.ok() && out.prompt.empty()) {
    body.fail("prompt", "must not be empty");
  }
}

// The text of a prompt as the caller gave it, without what stands in front of every text.
std::string echoOf(const ServedModel& served, const std::vector<int32_t>& prompt) {
  const int32_t begin = served.model().tokenizer().bosId;
  const bool hasBegin = begin >= 0 && !prompt.empty() && prompt[0] == begin;
  return decodeTokens(served, {prompt.begin() + static_cast<ptrdiff_t>(hasBegin), prompt.end()});
}

class CompletionSink : public ApiSink {
 public:
  CompletionSink(SharedModel servedModel, std::shared_ptr<HttpExchange> answered,
                 TextCompletion& completion)
      : ApiSink(std::move(servedModel), std::move(answered), ErrorForm::Completions,
                completion.streams),
        echo(std::move(completion.echo)),
        showsUsage(completion.showsUsage),
        id(served->newId("cmpl-")),
        created(served->services.now()),
        hasLogProbabilities(completion.request.logProbabilities.has_value()) {
    choices.resize(completion.request.choices);
  }

  void token(size_t choice, const engine::LogProbabilities& chosen) override {
    choices[choice].pending.push_back(chosen);
  }

  void event(size_t index, const engine::ReplyEvent& event) override {
    if (event.kind != engine::ReplyEvent::Kind::Answer) {
      return;  // a plain text has nothing else
    }
    Choice& choice = choices[index];
    choice.text += event.text;
    choice.tokens.insert(choice.tokens.end(), choice.pending.begin(), choice.pending.end());
    choice.pending.clear();
    if (isStreamed()) {
      sendChunk(index, event.text, "");
    }
  }

 protected:
  std::string_view promptField() const override { return "prompt"; }

  void opened() override {
    for (size_t i = 0; i < choices.size() && !echo.empty(); ++i) {
      sendChunk(i, echo, "");
    }
  }

  void ended(size_t index, const engine::Reply& reply) override {
    const bool isCutShort =
        reply.end == engine::ReplyEnd::Limit || reply.end == engine::ReplyEnd::ContextFull;
    choices[index].finishReason = isCutShort ? "length" : "stop";
    if (isStreamed()) {
      sendChunk(index, "", choices[index].finishReason);
    }
  }

  void closed() override {
    if (!isStreamed()) {
      Json body = head();
      for (size_t i = 0; i < choices.size(); ++i) {
        body["choices"].push_back(choiceObject(i, echo + choices[i].text, choices[i].finishReason));
      }
      body["usage"] = usage();
      answerWhole(body);
      return;
    }
    if (showsUsage) {
      Json chunk = head();
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
    std::vector<engine::LogProbabilities> pending;  // their text, if any, is yet to come
    std::vector<engine::LogProbabilities> tokens;   // yet to be told
    std::string text;
    size_t offset = 0;         // of the next token
    std::string finishReason;  // empty: not yet
  };

  Json head() const {
    return {{"id", id},
            {"object", "text_completion"},
            {"created", created},
            {"model", served->name()},
            {"system_fingerprint", served->services.fingerprint},
            {"choices", Json::array()}};
  }

  Json choiceObject(size_t index, const std::string& text, const std::string& finishReason) {
    Choice& choice = choices[index];
    Json logProbabilities;
    if (hasLogProbabilities) {
      logProbabilities =
          completionLogProbabilities(*served, std::exchange(choice.tokens, {}), choice.offset);
    }
    return {{"index", index},
            {"text", text},
            {"logprobs", std::move(logProbabilities)},
            {"finish_reason", finishReason.empty() ? Json() : Json(finishReason)}};
  }

  void sendChunk(size_t index, const std::string& text, const std::string& finishReason) {
    Json chunk = head();
    chunk["choices"].push_back(choiceObject(index, text, finishReason));
    if (showsUsage) {
      chunk["usage"] = nullptr;
    }
    send({}, chunk);
  }

  Json usage() const {
    return {{"prompt_tokens", promptTokens},
            {"completion_tokens", replyTokens},
            {"total_tokens", promptTokens + replyTokens},
            {"prompt_tokens_details", {{"cached_tokens", cachedTokens}}}};
  }

  std::string echo;
  bool showsUsage;
  std::string id;
  int64_t created;
  bool hasLogProbabilities;
  std::vector<Choice> choices;
};

}  // namespace

void encodePrompt(const ServedModel& served, std::string_view text, std::vector<int32_t>& out) {
  const engine::Model& model = served.model();
  if (model.tokenizer().bosId >= 0) {
    out.push_back(model.tokenizer().bosId);
  }
  model.textEncoder().encodeWithSpecials(text, out);
}

void readTokenIds(Fields& fields, std::string_view key, std::string_view array,
                  const ServedModel& served, std::vector<int32_t>& out) {
  const uint64_t vocabulary = served.model().sizes().vocab;
  if (jsonItems(array) > served.services.limits.tokenIds) {
    fields.fail(key, fmt::format("has more than {} tokens", served.services.limits.tokenIds));
    return;
  }
  for (const std::string_view text : engine::jsonElements(array)) {
    uint32_t id = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), id);
    const bool isWhole = result.ec == std::errc() && result.ptr == text.data() + text.size();
    if (!isWhole || id >= vocabulary) {
      fields.fail(key, fmt::format("must hold one text or token ids, whole numbers from 0 to {}",
                                   vocabulary - 1));
      return;
    }
    out.push_back(static_cast<int32_t>(id));
  }
}

std::string decodeTokens(const ServedModel& served, const std::vector<int32_t>& ids) {
  engine::TextDecoder decoder(served.model().tokenizer(), engine::TextDecoder::Specials::Shown);
  std::string text;
  for (const int32_t id : ids) {
    text += decoder.feed(id);
  }
  return text + decoder.finish();
}

ApiError readTextCompletion(std::string_view text, const ServedModel& served, TextCompletion& out) {
  const ApiLimits& limits = served.services.limits;
  ApiError error;
  if (!isJsonObject(text, limits.depth, error)) {
    return error;
  }
  Fields body(text, "", error);
  GenerationRequest& request = out.request;
  readModelName(body, served);
  readPrompt(body, served, request);
  readSampling(body, served, false, request);
  request.options.maxTokens = readTokenLimit(body, "max_tokens");
  if (request.options.maxTokens == 0) {
    request.options.maxTokens = kDefaultTokens;
  }
  readStops(body, "stop", limits, request);
  if (const auto best =
          body.whole("logprobs", 0, static_cast<int64_t>(limits.topLogProbabilities))) {
    request.logProbabilities = static_cast<size_t>(*best);
  }
  request.choices =
      static_cast<size_t>(body.whole("n", 1, static_cast<int64_t>(limits.choices)).value_or(1));
  body.whole("best_of", 1, 1);
  body.refuse("suffix", "is not supported: the model writes from left to right");
  if (body.boolean("echo").value_or(false)) {
    if (request.logProbabilities) {
      body.fail("echo", "cannot be had with logprobs");
    }
    out.echo = echoOf(served, request.prompt);
  }
  out.streams = body.boolean("stream").value_or(false);
  out.showsUsage = readStreamOptions(body, out.streams);
  body.finish(kHarmlessInCompletions);
  return error;
}

void answerTextCompletion(const SharedModel& served,
                          const std::shared_ptr<HttpExchange>& exchange) {
  TextCompletion completion;
  const ApiError error = readTextCompletion(exchange->request().body, *served, completion);
  if (error) {
    answerError(*exchange, ErrorForm::Completions, error);
    return;
  }
  auto sink = std::make_shared<CompletionSink>(served, exchange, completion);
  submit(served, std::move(completion.request), std::move(sink), *exchange, ErrorForm::Completions);
}

}  // namespace zym
