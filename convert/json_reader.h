// JSON from files that nobody has checked.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "container/status.h"

namespace kel::convert {

// Parses a whole text. Refuses more than 256 MiB, nesting deeper than 32, keys that occur twice in
// one object, and bytes that are not UTF-8. what: names the text in messages. InvalidFormat on
// failure.
Status parseJson(std::string_view text, const std::string& what, nlohmann::json& out);

// The same for a file.
Status readJsonFile(const std::string& path, nlohmann::json& out);

// Member of an object; null when value is no object or has no such member.
const nlohmann::json* jsonMember(const nlohmann::json& value, const char* key);

// The value as a non-negative integer; none for any other kind of value or sign.
std::optional<uint64_t> jsonUnsigned(const nlohmann::json& value);

}  // namespace kel::convert
