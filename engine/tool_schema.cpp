#include "engine/tool_schema.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "engine/json_text.h"

namespace engine {

namespace {

constexpr size_t kMaxDepth = 256;
constexpr size_t kMaxSchemas = 64;  // that one leads to

constexpr uint8_t bitOf(JsonKind kind) {
  return static_cast<uint8_t>(1U << static_cast<unsigned>(kind));
}

uint8_t kindNamed(std::string_view name) {
  constexpr std::array<std::pair<std::string_view, JsonKind>, 7> kNames = {{
      {"\"string\"", JsonKind::String},
      {"\"number\"", JsonKind::Number},
      {"\"integer\"", JsonKind::Number},
      {"\"boolean\"", JsonKind::Boolean},
      {"\"null\"", JsonKind::Null},
      {"\"array\"", JsonKind::Array},
      {"\"object\"", JsonKind::Object},
  }};
  for (const auto& [known, kind] : kNames) {
    if (name == known) {
      return bitOf(kind);
    }
  }
  return 0;
}

// The JSON word for a scalar as models write it; any other text unchanged.
std::string_view jsonWord(std::string_view text) {
  constexpr std::array<std::pair<std::string_view, std::string_view>, 3> kWords = {
      {{"True", "true"}, {"False", "false"}, {"None", "null"}}};
  constexpr std::string_view kSpace = " \t\r\n";
  const size_t begin = text.find_first_not_of(kSpace);
  if (begin != std::string_view::npos) {
    const std::string_view bare = text.substr(begin, text.find_last_not_of(kSpace) + 1 - begin);
    for (const auto& [written, word] : kWords) {
      if (bare == written) {
        return word;
      }
    }
  }
  return text;
}

}  // namespace

ToolSchemas::ToolSchemas(std::span<const Tool> tools) {
  for (const Tool& tool : tools) {
    if (jsonKind(tool.json) == JsonKind::Object) {
      add(tool.json);
    }
  }
}

void ToolSchemas::add(std::string_view tool) {
  const std::string_view wrapped = jsonMember(tool, "function");
  const std::string_view function = wrapped.empty() ? tool : wrapped;
  const std::string_view name = jsonMember(function, "name");
  const std::unique_ptr<JsonValue> schema =
      parseJsonTree(jsonMember(function, "parameters"), kMaxDepth);
  const JsonValue* properties = schema == nullptr ? nullptr : schema->member("properties");
  if (properties == nullptr || properties->kind != JsonKind::Object) {
    return;
  }
  Parameters& parameters = functions[unquotedJson(name)];
  for (const auto& [key, property] : properties->members) {
    parameters[key] = kindsOf(*property);
  }
}

// Of the schema alone, without those that it leads to.
ToolSchemas::Kinds ToolSchemas::ownKinds(const JsonValue& schema) {
  Kinds kinds = 0;
  if (const JsonValue* type = schema.member("type"); type != nullptr) {
    kinds |= kindNamed(type->text);
    for (const auto& name : type->elements) {
      kinds |= kindNamed(name->text);
    }
    return kinds;
  }
  if (const JsonValue* constant = schema.member("const"); constant != nullptr) {
    kinds |= bitOf(constant->kind);
  }
  if (const JsonValue* values = schema.member("enum"); values != nullptr) {
    for (const auto& value : values->elements) {
      kinds |= bitOf(value->kind);
    }
  }
  return kinds;
}

ToolSchemas::Kinds ToolSchemas::kindsOf(const JsonValue& schema) {
  Kinds kinds = 0;
  std::vector<const JsonValue*> seen = {&schema};
  const auto add = [&](const JsonValue* other) {
    if (other != nullptr && seen.size() < kMaxSchemas &&
        std::find(seen.begin(), seen.end(), other) == seen.end()) {
      seen.push_back(other);
    }
  };
  for (size_t i = 0; i < seen.size(); ++i) {
    const JsonValue& one = *seen[i];
    kinds |= ownKinds(one);
    for (const std::string_view choice : {"anyOf", "oneOf", "allOf"}) {
      if (const JsonValue* list = one.member(choice); list != nullptr) {
        for (const auto& alternative : list->elements) {
          add(alternative.get());
        }
      }
    }
    if (const JsonValue* reference = one.member("$ref"); reference != nullptr) {
      add(one.root().at(reference->string()));
    }
  }
  return kinds;
}

ToolSchemas::Kinds ToolSchemas::kindsOf(std::string_view function,
                                        std::string_view parameter) const {
  const auto parameters = functions.find(function);
  if (parameters == functions.end()) {
    return 0;
  }
  const auto kinds = parameters->second.find(parameter);
  return kinds == parameters->second.end() ? Kinds{0} : kinds->second;
}

std::string ToolSchemas::argumentJson(std::string_view function, std::string_view parameter,
                                      std::string_view text) const {
  const std::string_view value = jsonWord(text);
  const std::optional<JsonKind> kind = jsonKind(value);
  const bool admitted =
      kind && *kind != JsonKind::String && (kindsOf(function, parameter) & bitOf(*kind)) != 0;
  return admitted ? spacedJson(value) : quotedJson(text);
}

bool ToolSchemas::admitsText(std::string_view function, std::string_view parameter) const {
  const Kinds kinds = kindsOf(function, parameter);
  return kinds == 0 || (kinds & bitOf(JsonKind::String)) != 0;
}

bool ToolSchemas::admitsOnlyText(std::string_view function, std::string_view parameter) const {
  return (kindsOf(function, parameter) & ~unsigned{bitOf(JsonKind::String)}) == 0;
}

}  // namespace engine
