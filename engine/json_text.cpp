#include "engine/json_text.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <unordered_map>

namespace engine {

namespace {

using Parser = nlohmann::json;

constexpr std::string_view kJsonSpace = " \t\r\n";

bool isSpace(char c) {
  return kJsonSpace.find(c) != std::string_view::npos;
}

std::string_view withoutSpace(std::string_view text) {
  const size_t begin = std::min(text.find_first_not_of(kJsonSpace), text.size());
  text.remove_prefix(begin);
  return text.substr(0, text.find_last_not_of(kJsonSpace) + 1);
}

// Behind the closing quote of the string that begins at `at`.
size_t stringEnd(std::string_view json, size_t at) {
  for (size_t i = at + 1; i < json.size(); ++i) {
    if (json[i] == '\\') {
      ++i;
    } else if (json[i] == '"') {
      return i + 1;
    }
  }
  return json.size();
}

// Calls visit(position, depth) for every character outside of strings and for the first of every
// string; depth counts the brackets that are open before it.
template <typename Visit>
void walk(std::string_view json, Visit visit) {
  size_t depth = 0;
  for (size_t at = 0; at < json.size();) {
    const char c = json[at];
    depth -= static_cast<size_t>((c == ']' || c == '}') && depth > 0);
    visit(at, depth);
    depth += static_cast<size_t>(c == '[' || c == '{');
    at = c == '"' ? stringEnd(json, at) : at + 1;
  }
}

// What stands between the outermost brackets, cut at its commas.
std::vector<std::string_view> cutItems(std::string_view json) {
  std::vector<std::string_view> items;
  json = withoutSpace(json);
  if (json.size() < 2 || withoutSpace(json.substr(1, json.size() - 2)).empty()) {
    return items;
  }
  size_t begin = 1;
  const auto cut = [&](size_t end) {
    items.push_back(withoutSpace(json.substr(begin, end - begin)));
    begin = end + 1;
  };
  walk(json, [&](size_t at, size_t depth) {
    if (depth == 1 && json[at] == ',') {
      cut(at);
    }
  });
  cut(json.size() - 1);
  return items;
}

void appendSpaced(std::string_view json, size_t at, std::string& out) {
  switch (const char c = json[at]) {
    case ',':
      out += ", ";
      break;
    case ':':
      out += ": ";
      break;
    case '"': {
      const std::string_view text = json.substr(at, stringEnd(json, at) - at);
      const bool escapes = text.find('\\') != std::string_view::npos;
      out += escapes ? quotedJson(unquotedJson(text)) : std::string(text);
      break;
    }
    default:
      if (!isSpace(c)) {
        out += c;
      }
  }
}

}  // namespace

JsonKind kindByFirst(char first) {
  switch (first) {
    case '"':
      return JsonKind::String;
    case '[':
      return JsonKind::Array;
    case '{':
      return JsonKind::Object;
    case 't':
    case 'f':
      return JsonKind::Boolean;
    case 'n':
      return JsonKind::Null;
    default:
      return JsonKind::Number;
  }
}

std::optional<JsonKind> jsonKind(std::string_view text) {
  const std::string_view value = withoutSpace(text);
  // The parser takes a NUL for the end of its input and passes over a byte order mark.
  const bool hidden =
      value.find('\0') != std::string_view::npos || value.starts_with("\xEF\xBB\xBF");
  if (value.empty() || hidden || !Parser::accept(value)) {
    return std::nullopt;
  }
  return kindByFirst(value.front());
}

std::string spacedJson(std::string_view json) {
  std::string out;
  out.reserve(json.size() + json.size() / 8);
  walk(json, [&](size_t at, size_t) { appendSpaced(json, at, out); });
  return out;
}

std::string quotedJson(std::string_view text) {
  return Parser(text).dump(-1, ' ', false, Parser::error_handler_t::replace);
}

std::string unquotedJson(std::string_view json) {
  const auto parsed = Parser::parse(json, nullptr, false);
  return parsed.is_string() ? parsed.get<std::string>() : std::string();
}

std::vector<JsonMember> jsonMembers(std::string_view object) {
  std::vector<JsonMember> members;
  std::unordered_map<std::string, size_t> places;
  for (const std::string_view item : cutItems(object)) {
    const size_t keyEnd = item.starts_with('"') ? stringEnd(item, 0) : 0;
    const size_t colon = item.find(':', keyEnd);
    if (colon == std::string_view::npos) {
      continue;
    }
    std::string key = unquotedJson(item.substr(0, keyEnd));
    const std::string_view value = withoutSpace(item.substr(colon + 1));
    const auto [place, added] = places.emplace(key, members.size());
    if (added) {
      members.push_back({std::move(key), value});
    } else {
      members[place->second].value = value;
    }
  }
  return members;
}

std::string_view jsonMember(std::string_view json, std::string_view key) {
  if (!withoutSpace(json).starts_with('{')) {
    return {};
  }
  for (const JsonMember& member : jsonMembers(json)) {
    if (member.key == key) {
      return member.value;
    }
  }
  return {};
}

std::vector<std::string_view> jsonElements(std::string_view array) {
  return cutItems(array);
}

}  // namespace engine
