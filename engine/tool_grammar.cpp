#include "engine/tool_grammar.h"

#include <algorithm>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/json_schema.h"
#include "engine/json_text.h"
#include "engine/json_tree.h"
#include "engine/schema_compiler.h"
#include "engine/tool_schema.h"

namespace engine {

namespace {

using kel::Status;

constexpr std::string_view kBehindValue = "\n</parameter>\n";
constexpr int kMostReferences = 8;                  // that lead to a list of words
constexpr size_t kToolDepth = kMaxSchemaDepth + 2;  // "function" and "parameters" around the schema

// Text that no control character and no part of a mark stands in.
bool isName(std::string_view text) {
  return !text.empty() && text.front() != ' ' && text.back() != ' ' &&
         std::all_of(text.begin(), text.end(), [](char c) {
           return static_cast<uint8_t>(c) >= 0x20 && c != '<' && c != '>';
         });
}

// A value that can stand between the marks as it is.
bool isWord(std::string_view text) {
  return text.find(kArgumentEnd) == std::string_view::npos &&
         std::all_of(text.begin(), text.end(),
                     [](char c) { return c == '\n' || static_cast<uint8_t>(c) >= 0x20; });
}

class ToolCompiler {
 public:
  ToolCompiler(std::span<const Tool> givenTools, Grammar& unfinished)
      : tools(givenTools), schemas(givenTools), compiler(unfinished) {}

  Status run(const ToolCallOptions& options) {
    for (const Tool& tool : tools) {
      Status status = addTool(tool, options.name);
      if (!status.ok()) {
        return status;
      }
    }
    if (functions.empty()) {
      return Status::invalid(options.name.empty()
                                 ? "tools: there is none to call"
                                 : "tools: there is none of the name " + quotedJson(options.name));
    }
    return compiler.finish(calls(std::max<size_t>(options.maxCalls, 1)));
  }

 private:
  Status addTool(const Tool& tool, const std::string& wanted) {
    if (tool.json.size() > kMaxSchemaBytes) {
      return Status::invalid("tools: one has more than " + std::to_string(kMaxSchemaBytes) +
                             " bytes");
    }
    trees.push_back(parseJsonTree(tool.json, kToolDepth));
    if (trees.back() == nullptr || trees.back()->kind != JsonKind::Object) {
      return Status::invalid("tools: one is no JSON object of up to " + std::to_string(kToolDepth) +
                             " levels");
    }
    const JsonValue& whole = *trees.back();
    const JsonValue* wrapped = whole.member("function");
    const JsonValue& function = wrapped == nullptr ? whole : *wrapped;
    const JsonValue* named = function.member("name");
    const std::string name = named == nullptr ? std::string() : named->string();
    if ((!wanted.empty() && name != wanted) || names.find(name) != names.end()) {
      return Status::success();
    }
    if (!isName(name)) {
      return Status::invalid("tools: the name " + quotedJson(name) +
                             " cannot be written in a call");
    }
    names.insert(name);
    NodeId parameters = kNoNode;
    Status status = addParameters(function, name, parameters);
    if (!status.ok()) {
      status.message = "tools: " + quotedJson(name) + ": " + status.message;
    }
    functions.push_back({"\n<function=" + name + ">\n", parameters, false});
    return status;
  }

  Status addParameters(const JsonValue& function, const std::string& name, NodeId& out) {
    const JsonValue* given = function.member("parameters");
    const JsonValue* strict = function.member("strict");
    const SchemaRules rules =
        strict != nullptr && strict->text == "true" ? SchemaRules::Strict : SchemaRules::Lenient;
    std::vector<EntryList::Entry> entries;
    if (given != nullptr && given->kind == JsonKind::Object) {
      // By itself, since references begin at the schema.
      trees.push_back(parseJsonTree(given->text, kToolDepth));
      const JsonValue& schema = *trees.back();
      NodeId whole = kNoNode;
      Status status =
          rules == SchemaRules::Strict ? compiler.compile(schema, rules, whole) : Status::success();
      if (status.ok()) {
        status = addEntries(schema, name, rules, entries);
      }
      if (!status.ok()) {
        return status;
      }
    }
    entries.push_back({"</function>\n", kNoNode, true});
    out = compiler.add(EntriesNode{EntryList(std::move(entries)), false});
    return Status::success();
  }

  Status addEntries(const JsonValue& schema, const std::string& function, SchemaRules rules,
                    std::vector<EntryList::Entry>& entries) {
    std::set<std::string> required;
    if (const JsonValue* list = schema.member("required"); list != nullptr) {
      for (const auto& name : list->elements) {
        required.insert(name->string());
      }
    }
    const JsonValue* properties = schema.member("properties");
    if (properties == nullptr) {
      return Status::success();
    }
    for (const auto& [name, property] : properties->members) {
      const bool isRequired = required.find(name) != required.end();
      if (!isName(name)) {
        if (isRequired) {
          return Status::invalid("the name " + quotedJson(name) + " cannot be written in a call");
        }
        continue;
      }
      NodeId value = kNoNode;
      Status status = addValue(*property, function, name, rules, value);
      if (!status.ok()) {
        return status;
      }
      entries.push_back({"<parameter=" + name + ">\n", value, isRequired});
    }
    return Status::success();
  }

  Status addValue(const JsonValue& schema, const std::string& function, const std::string& name,
                  SchemaRules rules, NodeId& out) {
    if (!schemas.admitsText(function, name)) {
      NodeId value = kNoNode;
      Status status = compiler.compile(schema, rules, value);
      out = compiler.add(SequenceNode{{value, word(kBehindValue)}});
      return status;
    }
    const std::vector<std::string> words = wordsOf(referred(schema));
    if (!words.empty() && schemas.admitsOnlyText(function, name)) {
      out = compiler.addLiterals(words);
    } else {
      const NodeId text = compiler.add(FreeTextNode{});
      out = compiler.add(SequenceNode{{text, word("\n")}});
    }
    return Status::success();
  }

  // The schema that one refers to and does nothing else.
  static const JsonValue& referred(const JsonValue& schema) {
    const JsonValue* found = &schema;
    for (int i = 0; i < kMostReferences; ++i) {
      const JsonValue* reference = found->member("$ref");
      const JsonValue* all = found->member("allOf");
      const JsonValue* next = nullptr;
      if (reference != nullptr) {
        next = found->root().at(reference->string());
      } else if (all != nullptr && all->elements.size() == 1) {
        next = all->elements.front().get();
      }
      if (next == nullptr) {
        break;
      }
      found = next;
    }
    return *found;
  }

  // What a schema lists, with what stands behind it, where all that it lists is words.
  static std::vector<std::string> wordsOf(const JsonValue& schema) {
    std::vector<const JsonValue*> values;
    if (const JsonValue* list = schema.member("enum"); list != nullptr) {
      for (const auto& element : list->elements) {
        values.push_back(element.get());
      }
    } else if (const JsonValue* constant = schema.member("const"); constant != nullptr) {
      values.push_back(constant);
    }
    std::vector<std::string> words;
    for (const JsonValue* value : values) {
      const std::string text = value->string();
      if (value->kind != JsonKind::String || !isWord(text)) {
        return {};
      }
      words.push_back(text + std::string(kBehindValue));
    }
    return words;
  }

  NodeId word(std::string_view text) { return compiler.addLiterals({std::string(text)}); }

  NodeId calls(size_t most) {
    const NodeId begin = compiler.add(ControlNode{kCallBegin});
    const NodeId body = compiler.add(EntriesNode{EntryList(std::move(functions)), true});
    const NodeId end = compiler.add(ControlNode{kCallEnd});
    const NodeId call = compiler.add(SequenceNode{{begin, body, end}});
    const NodeId between = word("\n");
    NodeId rest = call;
    for (size_t i = 1; i < most; ++i) {
      const NodeId several = compiler.add(SequenceNode{{call, between, rest}});
      rest = compiler.add(ChoiceNode{{call, several}});
    }
    return rest;
  }

  std::span<const Tool> tools;
  ToolSchemas schemas;
  SchemaCompiler compiler;
  std::vector<std::unique_ptr<JsonValue>> trees;
  std::set<std::string> names;
  std::vector<EntryList::Entry> functions;
};

}  // namespace

Status compileToolCalls(std::span<const Tool> tools, const ToolCallOptions& options,
                        std::shared_ptr<const Grammar>& out) {
  auto grammar = std::make_shared<Grammar>();
  grammar->guarded = GuardedMark::ArgumentEnd;
  Status status = ToolCompiler(tools, *grammar).run(options);
  if (status.ok()) {
    out = std::move(grammar);
  }
  return status;
}

}  // namespace engine
