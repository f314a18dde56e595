// Whether a document satisfies a JSON Schema, by the standard's words, one keyword after the other:
// an account that shares nothing with the engine's.
#pragma once

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kel::test {

using Json = nlohmann::json;

inline bool isOfJsonType(const Json& value, const std::string& type) {
  if (type == "integer") {
    return value.is_number_integer() ||
           (value.is_number() && std::floor(value.get<double>()) == value.get<double>());
  }
  return (type == "number" && value.is_number()) || (type == "string" && value.is_string()) ||
         (type == "boolean" && value.is_boolean()) || (type == "null" && value.is_null()) ||
         (type == "array" && value.is_array()) || (type == "object" && value.is_object());
}

inline size_t countCharacters(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
  }));
}

// schema: a part of root.
inline bool satisfies(const Json& value, const Json& schema, const Json& root) {
  if (schema.is_boolean()) {
    return schema.get<bool>();
  }
  const auto has = [&](const char* keyword) { return schema.contains(keyword); };
  const auto all = [](const Json& list, auto test) {
    return std::all_of(list.begin(), list.end(), test);
  };
  const auto count = [](const Json& list, auto test) {
    return std::count_if(list.begin(), list.end(), test);
  };
  const auto satisfiesPart = [&](const Json& part) { return satisfies(value, part, root); };
  if (has("$ref")) {
    const std::string reference = schema["$ref"];
    if (!satisfiesPart(root.at(Json::json_pointer(reference.substr(1))))) {
      return false;
    }
  }
  if (has("type")) {
    const Json types = schema["type"].is_array() ? schema["type"] : Json::array({schema["type"]});
    if (count(types, [&](const Json& type) { return isOfJsonType(value, type); }) == 0) {
      return false;
    }
  }
  if (has("enum") && count(schema["enum"], [&](const Json& one) { return one == value; }) == 0) {
    return false;
  }
  if ((has("const") && schema["const"] != value) ||
      (has("anyOf") && count(schema["anyOf"], satisfiesPart) == 0) ||
      (has("oneOf") && count(schema["oneOf"], satisfiesPart) != 1) ||
      (has("allOf") && !all(schema["allOf"], satisfiesPart))) {
    return false;
  }
  if (value.is_number()) {
    const auto number = value.get<long double>();
    if ((has("minimum") && number < schema["minimum"].get<long double>()) ||
        (has("maximum") && number > schema["maximum"].get<long double>()) ||
        (has("exclusiveMinimum") && number <= schema["exclusiveMinimum"].get<long double>()) ||
        (has("exclusiveMaximum") && number >= schema["exclusiveMaximum"].get<long double>())) {
      return false;
    }
  }
  if (value.is_string()) {
    const size_t length = countCharacters(value);
    if (length < schema.value("minLength", size_t{0}) ||
        length > schema.value("maxLength", length)) {
      return false;
    }
  }
  if (value.is_array()) {
    if (value.size() < schema.value("minItems", size_t{0}) ||
        value.size() > schema.value("maxItems", value.size())) {
      return false;
    }
    const Json prefix = schema.value("prefixItems", Json::array());
    for (size_t i = 0; i < value.size(); ++i) {
      const Json part = i < prefix.size() ? prefix[i] : schema.value("items", Json(true));
      if (!satisfies(value[i], part, root)) {
        return false;
      }
    }
  }
  if (value.is_object()) {
    if (has("required") &&
        !all(schema["required"], [&](const Json& key) { return value.contains(key); })) {
      return false;
    }
    const Json properties = schema.value("properties", Json::object());
    for (const auto& [key, member] : value.items()) {
      const Json part = properties.contains(key) ? properties[key]
                                                 : schema.value("additionalProperties", Json(true));
      if (!satisfies(member, part, root)) {
        return false;
      }
    }
  }
  return true;
}

// The text as a document; nothing where it is not JSON, or an object in it has a key twice.
inline std::optional<Json> strictlyParsed(const std::string& text) {
  std::vector<std::set<std::string>> open;
  bool repeats = false;
  const auto watch = [&](int, Json::parse_event_t event, Json& parsed) {
    if (event == Json::parse_event_t::object_start) {
      open.emplace_back();
    } else if (event == Json::parse_event_t::object_end) {
      open.pop_back();
    } else if (event == Json::parse_event_t::key) {
      repeats |= !open.back().insert(parsed.get<std::string>()).second;
    }
    return true;
  };
  Json document = Json::parse(text, watch, false);
  if (document.is_discarded() || repeats) {
    return std::nullopt;
  }
  return document;
}

}  // namespace kel::test
