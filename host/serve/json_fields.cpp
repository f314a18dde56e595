#include "host/serve/json_fields.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>

#include "engine/utf8_text.h"

namespace zym {

namespace {

using engine::JsonKind;

constexpr int kBadRequest = 400;

// Requests have a few dozen; looking for one takes time by their number.
constexpr size_t kMostMembers = 512;

// What a message shows of a key that the caller made up.
constexpr size_t kShownBytes = 64;

std::string shown(std::string_view key) {
  std::string out;
  engine::appendValid(key.substr(0, kShownBytes), out);
  return out;
}

// Brackets of the outermost thing and white space in it.
constexpr std::string_view kBetween = "[]{} \t\r\n";

// Calls visit(character, depth) for every character outside of strings and for the first of every
// string; depth counts the brackets that are open, one that begins or ends there included.
template <typename Visit>
void walk(std::string_view json, Visit visit) {
  size_t depth = 0;
  for (size_t at = 0; at < json.size(); ++at) {
    const char c = json[at];
    depth += static_cast<size_t>(c == '[' || c == '{');
    visit(c, depth);
    depth -= static_cast<size_t>((c == ']' || c == '}') && depth > 0);
    if (c == '"') {
      for (++at; at < json.size() && json[at] != '"'; ++at) {
        at += static_cast<size_t>(json[at] == '\\');
      }
    }
  }
}

template <typename Number>
std::optional<Number> wholeText(std::string_view json, Number& value) {
  const auto result = std::from_chars(json.data(), json.data() + json.size(), value);
  const bool isAll = result.ec == std::errc() && result.ptr == json.data() + json.size();
  return isAll ? std::optional(value) : std::nullopt;
}

std::optional<int64_t> wholeOf(std::string_view json) {
  int64_t whole = 0;
  if (wholeText(json, whole)) {
    return whole;
  }
  // "1e3" and "2.0" are whole numbers, too.
  constexpr double kExact = 0x1p53;
  double real = 0;
  if (wholeText(json, real) && std::floor(real) == real && std::abs(real) <= kExact) {
    return static_cast<int64_t>(real);
  }
  return std::nullopt;
}

}  // namespace

size_t jsonDepth(std::string_view json) {
  size_t most = 0;
  walk(json, [&](char, size_t depth) { most = std::max(most, depth); });
  return most;
}

size_t jsonItems(std::string_view json) {
  size_t commas = 0;
  bool isEmpty = true;
  walk(json, [&](char c, size_t depth) {
    commas += static_cast<size_t>(c == ',' && depth == 1);
    isEmpty = isEmpty && (depth == 0 || (depth == 1 && kBetween.find(c) != std::string_view::npos));
  });
  return isEmpty ? 0 : commas + 1;
}

bool isJsonObject(std::string_view text, size_t mostDepth, ApiError& error) {
  if (!engine::isValid(text)) {
    error = {kBadRequest, "the body is not valid UTF-8", {}};
  } else if (jsonDepth(text) > mostDepth) {
    error = {kBadRequest, fmt::format("the body is nested deeper than {} levels", mostDepth), {}};
  } else {
    const std::optional<JsonKind> kind = engine::jsonKind(text);
    if (!kind) {
      error = {kBadRequest, "the body is not valid JSON", {}};
    } else if (*kind != JsonKind::Object) {
      error = {kBadRequest, "the body must be a JSON object", {}};
    }
  }
  return !error;
}

JsonKind kindOf(std::string_view json) {
  return json.empty() ? JsonKind::Null : engine::kindByFirst(json.front());
}

void failAt(ApiError& error, std::string path, std::string_view what) {
  if (!error) {
    error = {kBadRequest, fmt::format("{} {}", path, what), std::move(path)};
  }
}

Fields::Fields(std::string_view object, std::string objectPath, ApiError& firstError)
    : path(std::move(objectPath)), error(firstError) {
  if (error) {
    return;
  }
  if (kindOf(object) != JsonKind::Object) {
    failAt(error, path, "must be an object");
    return;
  }
  if (jsonItems(object) > kMostMembers) {
    failAt(error, path.empty() ? "the body" : path,
           fmt::format("has more than {} fields", kMostMembers));
    return;
  }
  members = engine::jsonMembers(object);
  asked.resize(members.size());
}

std::string Fields::pathOf(std::string_view key) const {
  return path.empty() ? shown(key) : fmt::format("{}.{}", path, shown(key));
}

void Fields::fail(std::string_view key, std::string_view what) {
  failAt(error, pathOf(key), what);
}

const engine::JsonMember* Fields::find(std::string_view key) {
  if (error) {
    return nullptr;
  }
  for (size_t i = 0; i < members.size(); ++i) {
    if (members[i].key == key) {
      asked[i] = true;
      return kindOf(members[i].value) == JsonKind::Null ? nullptr : &members[i];
    }
  }
  return nullptr;
}

bool Fields::has(std::string_view key) {
  return find(key) != nullptr;
}

std::optional<std::string_view> Fields::value(std::string_view key) {
  const engine::JsonMember* member = find(key);
  return member == nullptr ? std::nullopt : std::optional(member->value);
}

std::optional<std::string_view> Fields::kind(std::string_view key, JsonKind wanted,
                                             std::string_view what) {
  const std::optional<std::string_view> found = value(key);
  if (found && kindOf(*found) != wanted) {
    fail(key, what);
    return std::nullopt;
  }
  return found;
}

std::optional<std::string> Fields::string(std::string_view key) {
  const auto text = kind(key, JsonKind::String, "must be a string");
  return text ? std::optional(engine::unquotedJson(*text)) : std::nullopt;
}

std::optional<bool> Fields::boolean(std::string_view key) {
  const auto text = kind(key, JsonKind::Boolean, "must be true or false");
  return text ? std::optional(*text == "true") : std::nullopt;
}

std::optional<double> Fields::number(std::string_view key, double lowest, double highest) {
  const std::string what = fmt::format("must be a number from {} to {}", lowest, highest);
  const auto text = kind(key, JsonKind::Number, what);
  double value = 0;
  if (!text) {
    return std::nullopt;
  }
  if (!wholeText(*text, value) || !(value >= lowest && value <= highest)) {
    fail(key, what);
    return std::nullopt;
  }
  return value;
}

std::optional<int64_t> Fields::whole(std::string_view key, int64_t lowest, int64_t highest) {
  const std::string what = fmt::format("must be a whole number from {} to {}", lowest, highest);
  const auto text = kind(key, JsonKind::Number, what);
  if (!text) {
    return std::nullopt;
  }
  const std::optional<int64_t> value = wholeOf(*text);
  if (!value || *value < lowest || *value > highest) {
    fail(key, what);
    return std::nullopt;
  }
  return value;
}

std::optional<size_t> Fields::word(std::string_view key, std::span<const std::string_view> words) {
  const std::optional<std::string> text = string(key);
  if (!text) {
    return std::nullopt;
  }
  const auto found = std::find(words.begin(), words.end(), *text);
  if (found == words.end()) {
    fail(key, fmt::format("must be one of: {}", fmt::join(words, ", ")));
    return std::nullopt;
  }
  return static_cast<size_t>(found - words.begin());
}

std::optional<std::string_view> Fields::object(std::string_view key) {
  return kind(key, JsonKind::Object, "must be an object");
}

std::optional<std::vector<std::string_view>> Fields::array(std::string_view key, size_t most) {
  const auto text = kind(key, JsonKind::Array, "must be an array");
  if (!text) {
    return std::nullopt;
  }
  if (jsonItems(*text) > most) {
    fail(key, fmt::format("has more than {} elements", most));
    return std::nullopt;
  }
  return engine::jsonElements(*text);
}

bool Fields::require(std::string_view key) {
  if (!error && !has(key)) {
    fail(key, "is required");
  }
  return !error;
}

void Fields::refuse(std::string_view key, std::string_view reason) {
  if (has(key)) {
    fail(key, reason);
  }
}

void Fields::finish(std::span<const std::string_view> harmless) {
  for (size_t i = 0; i < members.size() && !error; ++i) {
    const std::string& key = members[i].key;
    const bool isNull = kindOf(members[i].value) == JsonKind::Null;
    if (!asked[i] && !isNull &&
        std::find(harmless.begin(), harmless.end(), key) == harmless.end()) {
      fail(key, "is not known here");
    }
  }
}

}  // namespace zym
