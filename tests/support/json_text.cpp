#include "tests/support/json_text.h"

#include <ostream>

namespace kel::test {

nlohmann::json parseJson(std::string_view text) {
  return nlohmann::json::parse(text);
}

nlohmann::ordered_json parseOrderedJson(std::string_view text) {
  return nlohmann::ordered_json::parse(text);
}

}  // namespace kel::test

namespace nlohmann {

void PrintTo(const json& value, std::ostream* out) {
  *out << value;
}

void PrintTo(const ordered_json& value, std::ostream* out) {
  *out << value;
}

}  // namespace nlohmann
