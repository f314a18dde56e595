#include "engine/json_tree.h"

#include <algorithm>
#include <optional>

namespace engine {

namespace {

std::unique_ptr<JsonValue> treeOf(std::string_view text, const JsonValue* parent, std::string key) {
  auto value = std::make_unique<JsonValue>();
  value->text = text;
  value->parent = parent;
  value->key = std::move(key);
  switch (text.front()) {
    case '{':
      value->kind = JsonKind::Object;
      for (JsonMember& member : jsonMembers(text)) {
        value->members.emplace_back(member.key, treeOf(member.value, value.get(), member.key));
      }
      for (const auto& [name, child] : value->members) {
        value->byKey.emplace(name, child.get());
      }
      break;
    case '[':
      value->kind = JsonKind::Array;
      for (const std::string_view element : jsonElements(text)) {
        value->elements.push_back(
            treeOf(element, value.get(), std::to_string(value->elements.size())));
      }
      break;
    case '"':
      value->kind = JsonKind::String;
      break;
    case 't':
    case 'f':
      value->kind = JsonKind::Boolean;
      break;
    case 'n':
      value->kind = JsonKind::Null;
      break;
    default:
      value->kind = JsonKind::Number;
  }
  return value;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '%' && at + 2 < text.size() && hexDigit(text[at + 1]) >= 0 &&
        hexDigit(text[at + 2]) >= 0) {
      out += static_cast<char>(hexDigit(text[at + 1]) * 16 + hexDigit(text[at + 2]));
      at += 2;
    } else {
      out += text[at];
    }
  }
  return out;
}

// "~1" is a slash, "~0" a tilde.
std::string unescapedToken(std::string_view token) {
  std::string out;
  for (size_t at = 0; at < token.size(); ++at) {
    const bool escapes = token[at] == '~' && at + 1 < token.size();
    if (escapes && (token[at + 1] == '0' || token[at + 1] == '1')) {
      out += token[++at] == '0' ? '~' : '/';
    } else {
      out += token[at];
    }
  }
  return out;
}

std::string escapedToken(std::string_view token) {
  std::string out;
  for (const char c : token) {
    if (c == '~' || c == '/') {
      out += c == '~' ? "~0" : "~1";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

const JsonValue* JsonValue::member(std::string_view name) const {
  const auto found = byKey.find(name);
  return found == byKey.end() ? nullptr : found->second;
}

const JsonValue& JsonValue::root() const {
  const JsonValue* value = this;
  while (value->parent != nullptr) {
    value = value->parent;
  }
  return *value;
}

std::string JsonValue::pointer() const {
  std::string path;
  for (const JsonValue* value = this; value->parent != nullptr; value = value->parent) {
    path.insert(0, "/" + escapedToken(value->key));
  }
  return "#" + path;
}

const JsonValue* JsonValue::at(std::string_view fragment) const {
  if (!fragment.starts_with('#')) {
    return nullptr;
  }
  const std::string path = percentDecoded(fragment.substr(1));
  const JsonValue* value = this;
  std::string_view rest = path;
  while (value != nullptr && !rest.empty()) {
    if (rest.front() != '/') {
      return nullptr;
    }
    rest.remove_prefix(1);
    const size_t end = std::min(rest.find('/'), rest.size());
    const std::string token = unescapedToken(rest.substr(0, end));
    rest.remove_prefix(end);
    if (value->kind != JsonKind::Array) {
      value = value->member(token);
      continue;
    }
    const auto element =
        std::find_if(value->elements.begin(), value->elements.end(),
                     [&](const auto& candidate) { return candidate->key == token; });
    value = element == value->elements.end() ? nullptr : element->get();
  }
  return value;
}

size_t jsonDepth(std::string_view json) {
  size_t depth = 0;
  size_t most = 0;
  bool quoted = false;
  for (size_t at = 0; at < json.size(); ++at) {
    const char c = json[at];
    if (quoted) {
      at += static_cast<size_t>(c == '\\');
      quoted = c != '"';
    } else if (c == '"') {
      quoted = true;
    } else if (c == '[' || c == '{') {
      most = std::max(most, ++depth);
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return most;
}

std::unique_ptr<JsonValue> parseJsonTree(std::string_view json, size_t maxDepth) {
  if (!jsonKind(json) || jsonDepth(json) > maxDepth) {
    return nullptr;
  }
  constexpr std::string_view kSpace = " \t\r\n";
  json.remove_prefix(json.find_first_not_of(kSpace));
  return treeOf(json.substr(0, json.find_last_not_of(kSpace) + 1), nullptr, {});
}

}  // namespace engine
