// JSON Schemas into nodes of a grammar: what engine/json_schema.h and engine/tool_grammar.h share.
#pragma once

#include <cstddef>
#include <deque>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "container/status.h"
#include "engine/grammar.h"
#include "engine/json_tree.h"

namespace engine {

// Strict: a keyword that is not supported is a failure. Lenient: it is passed over, so that texts
// of the grammar need not satisfy it.
enum class SchemaRules : uint8_t { Strict, Lenient };

// Of one grammar, which is of no use where a step fails. Schemas stay where they are until finish.
class SchemaCompiler {
 public:
  explicit SchemaCompiler(Grammar& unfinished);

  // Adds the node of a schema and of all that it refers to.
  kel::Status compile(const JsonValue& schema, SchemaRules schemaRules, NodeId& out);

  NodeId add(GrammarNode node);
  // The values, as they are spelt.
  NodeId addLiterals(std::vector<std::string> texts);

  // The grammar begins with root.
  kel::Status finish(NodeId root);

 private:
  struct OneOf {
    const JsonValue* schemas;
    std::vector<NodeId> nodes;
  };

  NodeId nodeOf(const JsonValue& schema);
  NodeId anyValue();
  kel::Status compileOne(const JsonValue& schema, NodeId id);
  kel::Status checkKeywords(const JsonValue& schema) const;
  kel::Status checkAlone(const JsonValue& schema, std::string_view keyword,
                         std::string_view companion = {}) const;
  kel::Status refuse(const JsonValue& value, std::string_view why) const;
  kel::Status compileReference(const JsonValue& schema, NodeId id);
  kel::Status compileAlternatives(const JsonValue& schema, std::string_view keyword, NodeId id);
  kel::Status compileValues(const JsonValue& schema, NodeId id);
  kel::Status compileTypes(const JsonValue& schema, NodeId id);
  kel::Status typesOf(const JsonValue& schema, std::set<std::string>& types, bool& inferred) const;
  kel::Status objectOf(const JsonValue& schema, NodeId& out);
  kel::Status arrayOf(const JsonValue& schema, NodeId& out);
  kel::Status stringOf(const JsonValue& schema, NodeId& out);
  kel::Status numberOf(const JsonValue& schema, bool isInteger, NodeId& out);
  std::string spelt(std::string_view json) const;

  bool areDisjoint(NodeId a, NodeId b) const;
  bool areDisjointObjects(const ObjectNode& a, const ObjectNode& b) const;
  std::vector<NodeId> alternativesOf(NodeId node) const;
  kel::Status checkOneOf(const OneOf& oneOf) const;
  std::string placeOf(NodeId node) const;

  Grammar& grammar;
  SchemaRules rules = SchemaRules::Strict;
  std::unordered_map<const JsonValue*, NodeId> known;
  std::unordered_map<NodeId, const JsonValue*> places;
  std::deque<const JsonValue*> waiting;
  std::vector<OneOf> oneOfs;
  std::set<NodeId> inferredTypes;  // more kinds of values satisfy their schemas
  NodeId any = kNoNode;
};

}  // namespace engine
