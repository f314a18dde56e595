// JSON in tests, compiled once: the library is templates throughout, of which every source that
// reads a text would compile the parser, and every one that compares a value what prints it.
#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string_view>

namespace kel::test {

// Throw nlohmann::json::parse_error where the text is not one document.
nlohmann::json parseJson(std::string_view text);
nlohmann::ordered_json parseOrderedJson(std::string_view text);

}  // namespace kel::test

namespace nlohmann {

// GoogleTest shows a value by these.
void PrintTo(const json& value, std::ostream* out);
void PrintTo(const ordered_json& value, std::ostream* out);

}  // namespace nlohmann
