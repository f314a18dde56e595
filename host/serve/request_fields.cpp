#include "host/serve/request_fields.h"

#include <fmt/core.h>

#include <array>
#include <charconv>
#include <limits>
#include <utility>

namespace zym {

namespace {

constexpr int64_t kMostTokens = int64_t{1} << 31;
constexpr double kPenalty = 2;
constexpr double kBias = 100;
constexpr double kMostTemperature = 2;
constexpr double kMostRepetition = 10;
constexpr int64_t kMostTopK = int64_t{1} << 20;

void readLogitBias(Fields& body, const ServedModel& served, GenerationRequest& out) {
  const std::optional<std::string_view> object = body.object("logit_bias");
  if (!object) {
    return;
  }
  const std::string path = body.pathOf("logit_bias");
  if (jsonItems(*object) > served.services.limits.logitBiases) {
    body.fail("logit_bias",
              fmt::format("has more than {} tokens", served.services.limits.logitBiases));
    return;
  }
  const std::vector<engine::JsonMember> members = engine::jsonMembers(*object);
  Fields biases(*object, path, body.errors());
  const auto vocabulary = static_cast<int64_t>(served.model().sizes().vocab);
  for (const engine::JsonMember& member : members) {
    int32_t id = -1;
    const char* end = member.key.data() + member.key.size();
    const auto result = std::from_chars(member.key.data(), end, id);
    if (result.ec != std::errc() || result.ptr != end || id < 0 || id >= vocabulary) {
      biases.fail(member.key, fmt::format("is no token: ids go from 0 to {}", vocabulary - 1));
      return;
    }
    if (const auto bias = biases.number(member.key, -kBias, kBias)) {
      out.options.sampling.logitBias[id] = static_cast<float>(*bias);
    }
  }
}

template <typename Number, typename Value>
void set(Number& setting, const std::optional<Value>& value) {
  if (value) {
    setting = static_cast<Number>(*value);
  }
}

bool mayThink(Fields& fields, std::string_view key, const ServedModel& served) {
  if (!served.canThink) {
    fields.fail(key, "asks for reasoning, which this model does not do");
  }
  return served.canThink;
}

}  // namespace

void readModelName(Fields& body, const ServedModel& served) {
  const std::optional<std::string> name = body.string("model");
  if (name && !served.hasName(*name)) {
    constexpr int kNotFound = 404;
    body.errors() = {
        kNotFound,
        fmt::format("the model \"{}\" is not served here; \"{}\" is", *name, served.name()),
        body.pathOf("model"), "model_not_found"};
  }
}

void readSampling(Fields& body, const ServedModel& served, bool thinking, GenerationRequest& out) {
  engine::SamplerSettings& sampling = out.options.sampling;
  sampling = thinking ? served.thinkingSampling : served.plainSampling;
  set(sampling.temperature, body.number("temperature", 0, kMostTemperature));
  if (const auto topP = body.number("top_p", 0, 1)) {
    // Of no share at all the best token is left.
    sampling.topP = std::max(static_cast<float>(*topP), std::numeric_limits<float>::min());
  }
  set(sampling.topK, body.whole("top_k", -1, kMostTopK));
  set(sampling.minP, body.number("min_p", 0, 1));
  set(sampling.presencePenalty, body.number("presence_penalty", -kPenalty, kPenalty));
  set(sampling.frequencyPenalty, body.number("frequency_penalty", -kPenalty, kPenalty));
  constexpr double kLeastRepetition = 0.01;
  set(sampling.repetitionPenalty,
      body.number("repetition_penalty", kLeastRepetition, kMostRepetition));
  readLogitBias(body, served, out);
  const auto seed =
      body.whole("seed", std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max());
  out.seed = seed ? static_cast<uint64_t>(*seed) : served.services.random();
}

void readEffort(Fields& fields, std::string_view key, const ServedModel& served, Thinking& out) {
  static constexpr std::array<std::string_view, 7> kEfforts = {"none", "minimal", "low", "medium",
                                                               "high", "xhigh",   "max"};
  enum : size_t { Minimal = 1, Low = 2, Medium = 3 };
  const std::optional<size_t> effort = fields.word(key, kEfforts);
  if (!effort) {
    return;
  }
  out.tokens.reset();
  if (*effort <= Minimal) {
    out.enabled = false;
  } else if (mayThink(fields, key, served)) {
    out.enabled = true;
    if (*effort == Low) {
      out.tokens = kLowEffortTokens;
    } else if (*effort == Medium) {
      out.tokens = kMediumEffortTokens;
    }
  }
}

void readTemplateArguments(Fields& body, const ServedModel& served, Thinking& out) {
  const std::optional<std::string_view> object = body.object("chat_template_kwargs");
  if (!object) {
    return;
  }
  Fields arguments(*object, body.pathOf("chat_template_kwargs"), body.errors());
  if (const auto enabled = arguments.boolean("enable_thinking")) {
    out.enabled = *enabled && mayThink(arguments, "enable_thinking", served);
  }
  out.preserved = arguments.boolean("preserve_thinking").value_or(false);
  arguments.finish();
}

void applyThinking(const Thinking& thinking, GenerationRequest& out) {
  out.thinking = thinking.enabled;
  out.preserveThinking = thinking.preserved;
  if (thinking.enabled) {
    out.options.thinkingTokens = thinking.tokens;
  }
}

void readStops(Fields& body, std::string_view key, const ApiLimits& limits,
               GenerationRequest& out) {
  const std::optional<std::string_view> value = body.value(key);
  if (!value) {
    return;
  }
  std::vector<std::string_view> strings = {*value};
  if (kindOf(*value) == engine::JsonKind::Array) {
    if (jsonItems(*value) > limits.stops) {
      body.fail(key, fmt::format("has more than {} strings", limits.stops));
      return;
    }
    strings = engine::jsonElements(*value);
  }
  for (const std::string_view text : strings) {
    std::string stop =
        kindOf(text) == engine::JsonKind::String ? engine::unquotedJson(text) : std::string();
    if (stop.empty() || stop.size() > limits.stopBytes) {
      body.fail(key, fmt::format("must be a string of 1 to {} bytes, or a list of such strings",
                                 limits.stopBytes));
      return;
    }
    out.options.stops.push_back(std::move(stop));
  }
}

uint64_t readTokenLimit(Fields& body, std::string_view key) {
  return static_cast<uint64_t>(body.whole(key, 1, kMostTokens).value_or(0));
}

std::optional<std::string_view> readSchema(Fields& fields, std::string_view key,
                                           const ApiLimits& limits) {
  const std::optional<std::string_view> schema = fields.object(key);
  if (schema && schema->size() > limits.schemaBytes) {
    fields.fail(key, fmt::format("has more than {} bytes", limits.schemaBytes));
    return std::nullopt;
  }
  if (schema && jsonDepth(*schema) > limits.schemaDepth) {
    fields.fail(key, fmt::format("is nested deeper than {} levels", limits.schemaDepth));
    return std::nullopt;
  }
  return schema;
}

std::optional<AnswerForm> readAnswerForm(Fields& body, std::string_view key, SchemaPlace place,
                                         const ApiLimits& limits) {
  static constexpr std::array<std::string_view, 3> kTypes = {"text", "json_object", "json_schema"};
  // Of a schema: its name, and whether it is followed to the letter, which it always is.
  static constexpr std::array<std::string_view, 3> kOfSchema = {"name", "description", "strict"};
  const std::optional<std::string_view> object = body.object(key);
  if (!object) {
    return std::nullopt;
  }
  Fields format(*object, body.pathOf(key), body.errors());
  const bool hasType = format.require("type");
  const std::optional<size_t> type = hasType ? format.word("type", kTypes) : std::nullopt;
  std::optional<AnswerForm> form;
  std::span<const std::string_view> harmless;
  if (type == 1) {
    form = {{.form = ConstraintRequest::Form::Object}, format.pathOf("type")};
  } else if (type == 2 && place == SchemaPlace::Inside) {
    format.require("schema");
    const auto schema = readSchema(format, "schema", limits);
    form = {{.form = ConstraintRequest::Form::Schema, .schema = std::string(schema.value_or(""))},
            format.pathOf("schema")};
    harmless = kOfSchema;
  } else if (type == 2) {
    format.require("json_schema");
    Fields wrapped(format.object("json_schema").value_or("{}"), format.pathOf("json_schema"),
                   body.errors());
    wrapped.require("schema");
    const auto schema = readSchema(wrapped, "schema", limits);
    form = {{.form = ConstraintRequest::Form::Schema, .schema = std::string(schema.value_or(""))},
            wrapped.pathOf("schema")};
    wrapped.finish(kOfSchema);
  }
  format.finish(harmless);
  return body.ok() ? form : std::nullopt;
}

void constrain(const ServedModel& served, const AnswerForm& form, ApiError& error,
               GenerationRequest& out) {
  if (error) {
    return;
  }
  ConstraintRequest request = form.request;
  request.followsReasoning = out.thinking;
  const kel::Status status = served.services.constrain(request, out.makeConstraint);
  if (!status.ok()) {
    failAt(error, form.param, fmt::format("cannot be followed: {}", status.message));
  }
}

}  // namespace zym
