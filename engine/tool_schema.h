// What the schemas of tools say of the arguments of calls: models write every value as bare text.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "engine/chat_format.h"
#include "engine/json_tree.h"

namespace engine {

// Built once from the tools of a conversation; immutable, any thread.
//
// Read of a tool: its name and the properties of its parameters, either in a member "function" or
// in the tool itself; of a property, "type" (a name or a list of them), where there is none the
// kinds of what "enum" or "const" list, and the same of the schemas that "anyOf", "oneOf", "allOf"
// and "$ref" to a place in the parameters lead to. What is not of that form is passed over.
class ToolSchemas {
 public:
  explicit ToolSchemas(std::span<const Tool> tools);

  // The JSON of an argument that was written as text. It is what the text says where that is JSON
  // of a kind that the schema names ("number" and "integer" are one kind; True, False and None are
  // true, false and null), and a string of the whole text otherwise: also where the schema names
  // the kind "string" alone or nothing, or there is none.
  std::string argumentJson(std::string_view function, std::string_view parameter,
                           std::string_view text) const;

  // Whether the text of an argument may stand for a string, or cannot stand for anything else.
  bool admitsText(std::string_view function, std::string_view parameter) const;
  bool admitsOnlyText(std::string_view function, std::string_view parameter) const;

 private:
  using Kinds = uint8_t;  // a bit for every JsonKind
  using Parameters = std::map<std::string, Kinds, std::less<>>;

  void add(std::string_view tool);
  static Kinds ownKinds(const JsonValue& schema);
  static Kinds kindsOf(const JsonValue& schema);
  // 0 where the schemas name none.
  Kinds kindsOf(std::string_view function, std::string_view parameter) const;

  std::map<std::string, Parameters, std::less<>> functions;
};

}  // namespace engine
