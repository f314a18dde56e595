// JSON as values that know where they stand: for errors that name a place by its pointer, and for
// references to places (RFC 6901).
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/json_text.h"

namespace engine {

// Immutable once parsed. Values view the text, which stays where it is.
struct JsonValue {
  JsonKind kind = JsonKind::Null;
  std::string_view text;  // without space around it
  std::vector<std::pair<std::string, std::unique_ptr<JsonValue>>> members;  // of an object
  std::unordered_map<std::string_view, const JsonValue*> byKey;             //
  std::vector<std::unique_ptr<JsonValue>> elements;                         // of an array
  const JsonValue* parent = nullptr;
  std::string key;  // in the parent: name or index

  // nullptr where the value is no object or has none of that key.
  const JsonValue* member(std::string_view name) const;
  // The text that a string stands for.
  std::string string() const { return unquotedJson(text); }
  const JsonValue& root() const;
  // Of this value: "#/properties/a~1b".
  std::string pointer() const;
  // What a fragment such as "#/$defs/a%20b" leads to from this value, the root; nullptr where that
  // is nothing.
  const JsonValue* at(std::string_view fragment) const;
};

// The depth of brackets within one another, of text that is JSON.
size_t jsonDepth(std::string_view json);

// nullptr where the text is not JSON, or deeper than maxDepth.
std::unique_ptr<JsonValue> parseJsonTree(std::string_view json, size_t maxDepth);

}  // namespace engine
