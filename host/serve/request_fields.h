// The fields that several interfaces have in common.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat_format.h"
#include "host/serve/generation.h"
#include "host/serve/json_fields.h"
#include "host/serve/served_model.h"

namespace zym {

// "model": one of the names, or absent. Another name gets status 404.
void readModelName(Fields& body, const ServedModel& served);

// temperature, top_p, top_k, min_p, the penalties, logit_bias and seed. What is absent is as the
// makers of the model recommend for replies with or without reasoning; the seed is drawn.
void readSampling(Fields& body, const ServedModel& served, bool thinking, GenerationRequest& out);

// How much effort reasoning is worth: whether there is any, and after how many tokens it is closed.
struct Thinking {
  bool enabled = false;
  bool preserved = false;
  std::optional<uint64_t> tokens = {};
};

// A field that names the effort: "none" and "minimal" do without reasoning, "low" closes it after
// kLowEffortTokens, "medium" after kMediumEffortTokens, anything above leaves it its time.
constexpr uint64_t kLowEffortTokens = 1024;
constexpr uint64_t kMediumEffortTokens = 8192;
void readEffort(Fields& fields, std::string_view key, const ServedModel& served, Thinking& out);

// chat_template_kwargs: enable_thinking, preserve_thinking.
void readTemplateArguments(Fields& body, const ServedModel& served, Thinking& out);

void applyThinking(const Thinking& thinking, GenerationRequest& out);

// A string, or a list of them.
void readStops(Fields& body, std::string_view key, const ApiLimits& limits, GenerationRequest& out);

// A number of tokens, 0 where it is absent.
uint64_t readTokenLimit(Fields& body, std::string_view key);

// A JSON schema: an object within the limits.
std::optional<std::string_view> readSchema(Fields& fields, std::string_view key,
                                           const ApiLimits& limits);

// "type": "text", "json_object", or "json_schema" with the schema in the object itself or, as the
// completions have it, in its member "json_schema". None: any text.
enum class SchemaPlace : uint8_t { Inside, Wrapped };
struct AnswerForm {
  ConstraintRequest request;
  std::string param;  // path of what it is made from
};
std::optional<AnswerForm> readAnswerForm(Fields& body, std::string_view key, SchemaPlace place,
                                         const ApiLimits& limits);

// Makes the constraint of an answer, or says of the field what is not supported.
void constrain(const ServedModel& served, const AnswerForm& form, ApiError& error,
               GenerationRequest& out);

}  // namespace zym
