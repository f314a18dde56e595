// JSON as text: checked as a whole, and then cut and laid out without building values, so that keys
// keep their order, numbers their digits, and no depth of nesting costs stack.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace engine {

enum class JsonKind : uint8_t { String, Number, Boolean, Null, Array, Object };

// Of a text that is one JSON value in UTF-8, white space around it aside; none for any other text.
std::optional<JsonKind> jsonKind(std::string_view text);

// The kind of a JSON value by the first character of its text.
JsonKind kindByFirst(char first);

// The functions below take text that is JSON of the kind they name; anything else gives some result
// without meaning.

// On one line, with ", " and ": " between things: the layout that models of this family are trained
// on. Characters beyond ASCII are written as they are, escapes in their shortest form.
std::string spacedJson(std::string_view json);

// A JSON string and the text that it stands for. Bytes that are not UTF-8 become U+FFFD when
// quoted.
std::string quotedJson(std::string_view text);
std::string unquotedJson(std::string_view json);

struct JsonMember {
  std::string key;
  std::string_view value;  // into the text, without white space around it
};

// The members of an object in order. A key that occurs again gives its value to the first.
std::vector<JsonMember> jsonMembers(std::string_view object);

// The value of a member; empty where json is no object or has none of that key.
std::string_view jsonMember(std::string_view json, std::string_view key);

// The elements of an array, into the text.
std::vector<std::string_view> jsonElements(std::string_view array);

}  // namespace engine
