#include "engine/schema_compiler.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "engine/json_schema.h"
#include "engine/json_text.h"

namespace engine {

namespace {

using kel::Status;
using Texts = std::vector<std::string>;

constexpr std::array<std::string_view, 15> kAnnotations = {
    "title",      "description", "default",   "example", "examples",
    "deprecated", "readOnly",    "writeOnly", "$schema", "$id",
    "$comment",   "format",      "id",        "$defs",   "definitions"};
constexpr std::array<std::string_view, 22> kAssertions = {
    "type",    "enum",     "const",    "properties", "required",         "additionalProperties",
    "items",   "minItems", "maxItems", "minLength",  "prefixItems",      "exclusiveMinimum",
    "minimum", "maximum",  "anyOf",    "maxLength",  "exclusiveMaximum", "uniqueItems",
    "oneOf",   "allOf",    "$ref",     "multipleOf"};

constexpr std::array<std::string_view, 3> kObjectWords = {"properties", "required",
                                                          "additionalProperties"};
constexpr std::array<std::string_view, 4> kArrayWords = {"items", "prefixItems", "minItems",
                                                         "maxItems"};
constexpr std::array<std::string_view, 2> kStringWords = {"minLength", "maxLength"};
constexpr std::array<std::string_view, 4> kNumberWords = {"minimum", "maximum", "exclusiveMinimum",
                                                          "exclusiveMaximum"};

template <size_t N>
bool isOneOf(const std::array<std::string_view, N>& words, std::string_view word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

template <size_t N>
bool hasOneOf(const JsonValue& schema, const std::array<std::string_view, N>& words) {
  return std::any_of(words.begin(), words.end(),
                     [&](std::string_view word) { return schema.member(word) != nullptr; });
}

bool isWholeNumber(std::string_view number) {
  return number.find_first_of(".eE") == std::string_view::npos;
}

// As the keyword "type" names them; a whole number is both an integer and a number.
bool isOfType(const JsonValue& value, std::string_view type) {
  switch (value.kind) {
    case JsonKind::String:
      return type == "string";
    case JsonKind::Boolean:
      return type == "boolean";
    case JsonKind::Null:
      return type == "null";
    case JsonKind::Array:
      return type == "array";
    case JsonKind::Object:
      return type == "object";
    case JsonKind::Number:
      break;
  }
  return type == "number" || (type == "integer" && isWholeNumber(value.text));
}

// The values that a schema lists, and nothing else that it asks for; nothing for other schemas.
Texts bareValues(const JsonValue& schema) {
  if (schema.kind != JsonKind::Object) {
    return {};
  }
  for (const auto& [key, value] : schema.members) {
    if (key != "const" && key != "enum" && !isOneOf(kAnnotations, key)) {
      return {};
    }
  }
  const JsonValue* constant = schema.member("const");
  const JsonValue* list = schema.member("enum");
  if ((constant == nullptr) == (list == nullptr)) {
    return {};
  }
  if (constant != nullptr) {
    return {std::string(constant->text)};
  }
  Texts texts;
  for (const auto& element : list->elements) {
    texts.emplace_back(element->text);
  }
  return texts;
}

unsigned bitOf(JsonKind kind) {
  return 1U << static_cast<unsigned>(kind);
}

unsigned kindsOf(const Texts& texts) {
  unsigned kinds = 0;
  for (const std::string& text : texts) {
    kinds |= bitOf(kindByFirst(text.front()));
  }
  return kinds;
}

// A bit for each kind of JSON of the node's texts.
unsigned kindsOf(const GrammarNode& node) {
  if (const auto* literals = std::get_if<LiteralsNode>(&node)) {
    return kindsOf(literals->texts);
  }
  if (std::holds_alternative<StringNode>(node)) {
    return bitOf(JsonKind::String);
  }
  if (std::holds_alternative<NumberNode>(node)) {
    return bitOf(JsonKind::Number);
  }
  return bitOf(std::holds_alternative<ArrayNode>(node) ? JsonKind::Array : JsonKind::Object);
}

// Equal numbers, arrays and objects may be spelt differently, but for numbers in plain digits.
bool hasOneSpelling(const std::string& text) {
  const JsonKind kind = kindByFirst(text.front());
  return kind == JsonKind::Number ? isWholeNumber(text) && text != "-0"
                                  : kind != JsonKind::Array && kind != JsonKind::Object;
}

// Whether no value is in both lists, which are sorted.
bool areDifferentValues(const Texts& a, const Texts& b) {
  const auto kindsOfOthers = [](const Texts& texts) {
    Texts others;
    std::copy_if(texts.begin(), texts.end(), std::back_inserter(others),
                 [](const std::string& text) { return !hasOneSpelling(text); });
    return kindsOf(others);
  };
  Texts common;
  std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(common));
  return common.empty() && (kindsOfOthers(a) & kindsOf(b)) == 0 &&
         (kindsOf(a) & kindsOfOthers(b)) == 0;
}

}  // namespace

SchemaCompiler::SchemaCompiler(Grammar& unfinished) : grammar(unfinished) {}

NodeId SchemaCompiler::add(GrammarNode node) {
  grammar.nodes.push_back(std::move(node));
  return static_cast<NodeId>(grammar.nodes.size() - 1);
}

// The guarded mark must not occur; its first character can be written as an escape wherever it
// begins one, since marks stand within strings or nowhere.
std::string SchemaCompiler::spelt(std::string_view json) const {
  std::string text = spacedJson(json);
  const std::string_view mark = textOf(grammar.guarded);
  for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
    text.replace(at, 1, "\\u003c");
  }
  return text;
}

NodeId SchemaCompiler::addLiterals(Texts texts) {
  std::sort(texts.begin(), texts.end());
  texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
  return add(LiteralsNode{std::move(texts)});
}

NodeId SchemaCompiler::anyValue() {
  if (any == kNoNode) {
    any = add(ChoiceNode{});
    std::vector<NodeId> kinds = {
        addLiterals({"true", "false", "null"}), add(StringNode{}),
        add(NumberNode{NumberForm::numbers()}), add(ArrayNode{.prefix = {}, .items = any}),
        add(ObjectNode{.properties = EntryList(std::vector<EntryList::Entry>{}),
                       .additional = any})};
    std::get<ChoiceNode>(grammar.nodes[any]).alternatives = std::move(kinds);
  }
  return any;
}

Status SchemaCompiler::refuse(const JsonValue& value, std::string_view why) const {
  return Status::invalid("schema: " + std::string(why) + ", at " + value.pointer());
}

Status SchemaCompiler::compile(const JsonValue& schema, SchemaRules schemaRules, NodeId& out) {
  rules = schemaRules;
  out = nodeOf(schema);
  while (!waiting.empty()) {
    const JsonValue* next = waiting.front();
    waiting.pop_front();
    Status status = compileOne(*next, known[next]);
    if (!status.ok()) {
      return status;
    }
    if (known.size() > kMaxSchemaNodes) {
      return Status::invalid("schema: there are more than " + std::to_string(kMaxSchemaNodes) +
                             " schemas in it");
    }
  }
  return Status::success();
}

// The node of a schema, which may be compiled later.
NodeId SchemaCompiler::nodeOf(const JsonValue& schema) {
  const auto [place, added] = known.emplace(&schema, kNoNode);
  if (added) {
    place->second = add(ChoiceNode{});
    places[place->second] = &schema;
    waiting.push_back(&schema);
  }
  return place->second;
}

Status SchemaCompiler::compileOne(const JsonValue& schema, NodeId id) {
  const auto become = [&](std::vector<NodeId> alternatives) {
    grammar.nodes[id] = ChoiceNode{std::move(alternatives)};
    return Status::success();
  };
  if (schema.kind == JsonKind::Boolean) {
    return schema.text == "true" ? become({anyValue()}) : become({});
  }
  if (schema.kind != JsonKind::Object) {
    return refuse(schema, "a schema is an object, true or false");
  }
  Status status = checkKeywords(schema);
  if (!status.ok()) {
    return status;
  }
  if (schema.member("$ref") != nullptr) {
    return compileReference(schema, id);
  }
  for (const std::string_view keyword : {"anyOf", "oneOf", "allOf"}) {
    if (schema.member(keyword) != nullptr) {
      return compileAlternatives(schema, keyword, id);
    }
  }
  if (schema.member("enum") != nullptr || schema.member("const") != nullptr) {
    return compileValues(schema, id);
  }
  return compileTypes(schema, id);
}

Status SchemaCompiler::checkKeywords(const JsonValue& schema) const {
  if (rules == SchemaRules::Lenient) {
    return Status::success();
  }
  for (const auto& [key, value] : schema.members) {
    if (isOneOf(kAnnotations, key)) {
      continue;
    }
    if (!isOneOf(kAssertions, key) || key == "multipleOf" ||
        (key == "uniqueItems" && value->text != "false")) {
      return refuse(*value, quotedJson(key) + " is not supported");
    }
  }
  return Status::success();
}

// Fails where another keyword stands beside one that is read by itself.
Status SchemaCompiler::checkAlone(const JsonValue& schema, std::string_view keyword,
                                  std::string_view companion) const {
  if (rules == SchemaRules::Lenient) {
    return Status::success();
  }
  for (const auto& [key, value] : schema.members) {
    if (key != keyword && key != companion && !isOneOf(kAnnotations, key)) {
      return refuse(*value,
                    quotedJson(key) + " beside " + quotedJson(keyword) + " is not supported");
    }
  }
  return Status::success();
}

Status SchemaCompiler::compileReference(const JsonValue& schema, NodeId id) {
  Status status = checkAlone(schema, "$ref");
  if (!status.ok()) {
    return status;
  }
  const JsonValue& reference = *schema.member("$ref");
  const JsonValue* target =
      reference.kind == JsonKind::String ? schema.root().at(reference.string()) : nullptr;
  if (target == nullptr && rules == SchemaRules::Strict) {
    return refuse(reference, "\"$ref\" leads to no place in the schema");
  }
  const NodeId node = target == nullptr ? anyValue() : nodeOf(*target);
  grammar.nodes[id] = ChoiceNode{{node}};
  return Status::success();
}

Status SchemaCompiler::compileAlternatives(const JsonValue& schema, std::string_view keyword,
                                           NodeId id) {
  Status status = checkAlone(schema, keyword);
  if (!status.ok()) {
    return status;
  }
  const JsonValue& list = *schema.member(keyword);
  if (list.kind != JsonKind::Array || list.elements.empty()) {
    return refuse(list, quotedJson(keyword) + " is no list of schemas");
  }
  if (keyword == "allOf" && list.elements.size() > 1 && rules == SchemaRules::Strict) {
    return refuse(list, "\"allOf\" of more than one schema is not supported");
  }
  std::vector<NodeId> nodes;
  Texts values;
  for (const auto& element : list.elements) {
    // Plain values are gathered: there may be many, and one look finds one of many.
    const Texts bare = keyword == "anyOf" ? bareValues(*element) : Texts();
    for (const std::string& value : bare) {
      values.push_back(spelt(value));
    }
    if (bare.empty()) {
      nodes.push_back(nodeOf(*element));
    }
    if (keyword == "allOf") {
      break;
    }
  }
  if (keyword == "oneOf" && rules == SchemaRules::Strict) {
    oneOfs.push_back({&list, nodes});
  }
  if (!values.empty()) {
    nodes.push_back(addLiterals(std::move(values)));
  }
  grammar.nodes[id] = ChoiceNode{std::move(nodes)};
  return Status::success();
}

Status SchemaCompiler::compileValues(const JsonValue& schema, NodeId id) {
  const std::string_view keyword = schema.member("enum") != nullptr ? "enum" : "const";
  Status status = checkAlone(schema, keyword, "type");
  if (!status.ok()) {
    return status;
  }
  std::set<std::string> types;
  bool inferred = false;
  status = typesOf(schema, types, inferred);
  if (!status.ok()) {
    return status;
  }
  const JsonValue& given = *schema.member(keyword);
  if (keyword == "enum" && given.kind != JsonKind::Array) {
    return refuse(given, "\"enum\" is no list of values");
  }
  Texts texts;
  const auto take = [&](const JsonValue& value) {
    const bool isAdmitted =
        inferred || std::any_of(types.begin(), types.end(),
                                [&](const auto& type) { return isOfType(value, type); });
    if (isAdmitted) {
      texts.push_back(spelt(value.text));
    }
  };
  if (keyword == "const") {
    take(given);
  }
  for (const auto& element : given.elements) {
    if (keyword == "enum") {
      take(*element);
    }
  }
  const NodeId values = addLiterals(std::move(texts));
  grammar.nodes[id] = ChoiceNode{{values}};
  return Status::success();
}

// The names of "type". Where there is none they are inferred from other keywords: all of them where
// nothing tells.
Status SchemaCompiler::typesOf(const JsonValue& schema, std::set<std::string>& types,
                               bool& inferred) const {
  static const std::set<std::string> kAll = {"string", "number", "integer", "boolean",
                                             "null",   "array",  "object"};
  const JsonValue* given = schema.member("type");
  inferred = given == nullptr;
  if (given != nullptr) {
    std::vector<const JsonValue*> names = {given};
    if (given->kind == JsonKind::Array) {
      names.clear();
      for (const auto& element : given->elements) {
        names.push_back(element.get());
      }
    }
    for (const JsonValue* name : names) {
      const std::string type = name->string();
      if (kAll.find(type) == kAll.end()) {
        return refuse(*name, "\"type\" does not name a type");
      }
      types.insert(type);
    }
    return Status::success();
  }
  if (hasOneOf(schema, kObjectWords)) {
    types.insert("object");
  }
  if (hasOneOf(schema, kArrayWords)) {
    types.insert("array");
  }
  if (hasOneOf(schema, kStringWords)) {
    types.insert("string");
  }
  if (hasOneOf(schema, kNumberWords)) {
    types.insert("number");
  }
  return Status::success();
}

Status SchemaCompiler::compileTypes(const JsonValue& schema, NodeId id) {
  std::set<std::string> types;
  bool inferred = false;
  Status status = typesOf(schema, types, inferred);
  if (!status.ok()) {
    return status;
  }
  if (types.empty() && inferred) {
    const NodeId node = anyValue();
    grammar.nodes[id] = ChoiceNode{{node}};
    return status;
  }
  std::vector<NodeId> nodes;
  Texts words;
  for (const std::string& type : types) {
    NodeId node = kNoNode;
    if (type == "boolean") {
      words.insert(words.end(), {"true", "false"});
    } else if (type == "null") {
      words.emplace_back("null");
    } else if (type == "object") {
      status = objectOf(schema, node);
    } else if (type == "array") {
      status = arrayOf(schema, node);
    } else if (type == "string") {
      status = stringOf(schema, node);
    } else if (type == "number" || types.find("number") == types.end()) {
      status = numberOf(schema, type == "integer", node);
    }
    if (!status.ok()) {
      return status;
    }
    if (node != kNoNode) {
      nodes.push_back(node);
      if (inferred) {
        inferredTypes.insert(node);
      }
    }
  }
  if (!words.empty()) {
    nodes.push_back(addLiterals(std::move(words)));
  }
  grammar.nodes[id] = ChoiceNode{std::move(nodes)};
  return status;
}

Status SchemaCompiler::objectOf(const JsonValue& schema, NodeId& out) {
  const JsonValue* properties = schema.member("properties");
  const JsonValue* required = schema.member("required");
  const JsonValue* others = schema.member("additionalProperties");
  if (properties != nullptr && properties->kind != JsonKind::Object) {
    return refuse(*properties, "\"properties\" is no object");
  }
  if (required != nullptr && required->kind != JsonKind::Array) {
    return refuse(*required, "\"required\" is no list of names");
  }
  const bool listsAny = properties != nullptr && !properties->members.empty();
  ObjectNode node;
  if (others != nullptr) {
    node.additional = others->text == "false" ? kNoNode : nodeOf(*others);
  } else if (!listsAny) {
    node.additional = anyValue();
  }
  std::vector<EntryList::Entry> entries;
  std::unordered_map<std::string, size_t> byName;
  const auto addEntry = [&](const std::string& name, NodeId value) {
    const std::string key = spelt(quotedJson(name));
    byName.emplace(name, entries.size());
    node.knownKeys.push_back(keyHash(std::string_view(key).substr(1, key.size() - 2)));
    entries.push_back({key + ":", value, false});
  };
  if (properties != nullptr) {
    for (const auto& [name, value] : properties->members) {
      addEntry(name, nodeOf(*value));
    }
  }
  if (required != nullptr) {
    for (const auto& name : required->elements) {
      if (name->kind != JsonKind::String) {
        return refuse(*name, "\"required\" is no list of names");
      }
      const std::string key = name->string();
      if (byName.find(key) == byName.end()) {
        addEntry(key, others == nullptr ? anyValue() : nodeOf(*others));
      }
      entries[byName[key]].required = true;
    }
  }
  std::sort(node.knownKeys.begin(), node.knownKeys.end());
  node.properties = EntryList(std::move(entries));
  out = add(std::move(node));
  return Status::success();
}

namespace {

// A length or a number of elements; out is left alone where there is none.
bool readCount(const JsonValue* value, uint32_t& out) {
  constexpr size_t kMostDigits = 9;
  if (value == nullptr) {
    return true;
  }
  const bool isCount = value->kind == JsonKind::Number && value->text.size() <= kMostDigits &&
                       value->text.find_first_not_of("0123456789") == std::string_view::npos;
  if (isCount) {
    out = static_cast<uint32_t>(std::stoul(std::string(value->text)));
  }
  return isCount;
}

constexpr std::string_view kNoCount = " is no whole number of up to nine digits";

}  // namespace

Status SchemaCompiler::arrayOf(const JsonValue& schema, NodeId& out) {
  ArrayNode node;
  for (const auto& [keyword, count] :
       {std::pair("minItems", &node.minItems), std::pair("maxItems", &node.maxItems)}) {
    if (!readCount(schema.member(keyword), *count)) {
      return refuse(*schema.member(keyword), quotedJson(keyword) + std::string(kNoCount));
    }
  }
  const JsonValue* prefix = schema.member("prefixItems");
  const JsonValue* items = schema.member("items");
  if (prefix != nullptr) {
    if (prefix->kind != JsonKind::Array) {
      return refuse(*prefix, "\"prefixItems\" is no list of schemas");
    }
    for (const auto& element : prefix->elements) {
      node.prefix.push_back(nodeOf(*element));
    }
  }
  if (items != nullptr) {
    if (items->kind == JsonKind::Array) {
      return refuse(*items, "\"items\" is a list, which \"prefixItems\" has to be");
    }
    node.items = nodeOf(*items);
  } else if (prefix == nullptr) {
    node.items = anyValue();
  }
  out = add(std::move(node));
  return Status::success();
}

Status SchemaCompiler::stringOf(const JsonValue& schema, NodeId& out) {
  StringNode node;
  for (const auto& [keyword, count] :
       {std::pair("minLength", &node.minLength), std::pair("maxLength", &node.maxLength)}) {
    if (!readCount(schema.member(keyword), *count)) {
      return refuse(*schema.member(keyword), quotedJson(keyword) + std::string(kNoCount));
    }
  }
  out = add(node);
  return Status::success();
}

Status SchemaCompiler::numberOf(const JsonValue& schema, bool isInteger, NodeId& out) {
  NumberForm form = isInteger ? NumberForm::integers() : NumberForm::numbers();
  for (const std::string_view keyword : kNumberWords) {
    const JsonValue* bound = schema.member(keyword);
    if (bound == nullptr) {
      continue;
    }
    if (bound->kind != JsonKind::Number) {
      return refuse(*bound, quotedJson(keyword) + " is no number");
    }
    const bool isLeast = keyword == "minimum" || keyword == "exclusiveMinimum";
    bool exact = false;
    WideInt units = unitsOf(bound->text, form, isLeast, exact);
    if (exact && keyword.starts_with("exclusive")) {
      units += isLeast ? 1 : -1;
    }
    form.hasExponent = false;
    if (isLeast) {
      form.least = std::max(form.least, units);
    } else {
      form.greatest = std::min(form.greatest, units);
    }
  }
  out = add(NumberNode{form});
  return Status::success();
}

std::vector<NodeId> SchemaCompiler::alternativesOf(NodeId node) const {
  const auto* choice = std::get_if<ChoiceNode>(&grammar.nodes[node]);
  return choice == nullptr ? std::vector<NodeId>{node} : choice->alternatives;
}

bool SchemaCompiler::areDisjoint(NodeId a, NodeId b) const {
  if (inferredTypes.count(a) + inferredTypes.count(b) > 0) {
    return false;
  }
  const GrammarNode& left = grammar.nodes[a];
  const GrammarNode& right = grammar.nodes[b];
  if ((kindsOf(left) & kindsOf(right)) == 0) {
    return true;
  }
  const auto* leftValues = std::get_if<LiteralsNode>(&left);
  const auto* rightValues = std::get_if<LiteralsNode>(&right);
  if (leftValues != nullptr && rightValues != nullptr) {
    return areDifferentValues(leftValues->texts, rightValues->texts);
  }
  const auto* leftObject = std::get_if<ObjectNode>(&left);
  const auto* rightObject = std::get_if<ObjectNode>(&right);
  return leftObject != nullptr && rightObject != nullptr &&
         areDisjointObjects(*leftObject, *rightObject);
}

// A property that one of them must have and both list tells them apart by its value.
bool SchemaCompiler::areDisjointObjects(const ObjectNode& a, const ObjectNode& b) const {
  const auto valuesOf = [&](NodeId node, Texts& texts) {
    for (const NodeId alternative : alternativesOf(node)) {
      const auto* values = std::get_if<LiteralsNode>(&grammar.nodes[alternative]);
      if (values == nullptr) {
        return false;
      }
      texts.insert(texts.end(), values->texts.begin(), values->texts.end());
    }
    std::sort(texts.begin(), texts.end());
    return true;
  };
  for (const EntryList::Entry& left : a.properties.entries()) {
    const EntryList::Entry* right = b.properties.find(left.text);
    Texts leftValues;
    Texts rightValues;
    if (right != nullptr && (left.required || right->required) &&
        valuesOf(left.value, leftValues) && valuesOf(right->value, rightValues) &&
        areDifferentValues(leftValues, rightValues)) {
      return true;
    }
  }
  return false;
}

Status SchemaCompiler::checkOneOf(const OneOf& oneOf) const {
  for (size_t i = 0; i < oneOf.nodes.size(); ++i) {
    for (size_t j = 0; j < i; ++j) {
      for (const NodeId a : alternativesOf(oneOf.nodes[i])) {
        for (const NodeId b : alternativesOf(oneOf.nodes[j])) {
          if (!areDisjoint(a, b)) {
            return refuse(*oneOf.schemas, "\"oneOf\" of schemas " + std::to_string(j) + " and " +
                                              std::to_string(i) +
                                              ", which may share values, is not supported");
          }
        }
      }
    }
  }
  return Status::success();
}

std::string SchemaCompiler::placeOf(NodeId node) const {
  const auto place = places.find(node);
  return place == places.end() ? "#" : place->second->pointer();
}

Status SchemaCompiler::finish(NodeId root) {
  grammar.root = root;
  NodeId problemNode = kNoNode;
  switch (engine::finish(grammar, kMaxSchemaAlternatives, problemNode)) {
    case GrammarProblem::EndlessChoice:
      return Status::invalid("schema: a schema refers to nothing but itself, at " +
                             placeOf(problemNode));
    case GrammarProblem::TooManyAlternatives:
      return Status::invalid("schema: there are more than " +
                             std::to_string(kMaxSchemaAlternatives) + " alternatives, at " +
                             placeOf(problemNode));
    case GrammarProblem::None:
      break;
  }
  for (const OneOf& oneOf : oneOfs) {
    Status status = checkOneOf(oneOf);
    if (!status.ok()) {
      return status;
    }
  }
  if (!grammar.fits(root, 0)) {
    return Status::invalid("schema: no value of up to " + std::to_string(kMaxNesting) +
                           " levels satisfies it");
  }
  return Status::success();
}

}  // namespace engine
