// Replies that are calls of tools, as a grammar: `tool_choice` "required", or a tool by name.
//
//   std::shared_ptr<const Grammar> grammar;
//   kel::Status status = compileToolCalls(tools, {.name = "get_weather"}, grammar);
//
// The reply is a call, or several with a line feed between them, as engine/chat_format.h has them:
// a function that is named, its parameters in the order of its schema, each at most once, those
// that are required at least once, and no others. Values are what ReplyParser reads them as:
//
// - where the parameter may be a string: its words where the schema lists words and nothing else,
//   otherwise any text without the end mark;
// - otherwise JSON of the parameter's schema (engine/json_schema.h). Keywords that are not
// supported
//   there are passed over, unless the tool says "strict": true.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "container/status.h"
#include "engine/chat_format.h"
#include "engine/grammar.h"

namespace engine {

constexpr size_t kMaxCallsOfReply = 32;

struct ToolCallOptions {
  std::string name = {};               // of the one function that may be called; empty: any
  size_t maxCalls = kMaxCallsOfReply;  // 1: exactly one
};

// "tools: there is none to call", "tools: there is none of the name \"x\"", "tools: the name
// \"x\" cannot be written in a call", and the failures of compileSchema with the tool's name in
// front. Failures leave out as it was.
kel::Status compileToolCalls(std::span<const Tool> tools, const ToolCallOptions& options,
                             std::shared_ptr<const Grammar>& out);

}  // namespace engine
