#include "engine/json_schema.h"

#include <string>
#include <utility>

#include "engine/json_tree.h"
#include "engine/schema_compiler.h"

namespace engine {

using kel::Status;

Status compileSchema(std::string_view json, std::shared_ptr<const Grammar>& out) {
  if (json.size() > kMaxSchemaBytes) {
    return Status::invalid("schema: it has more than " + std::to_string(kMaxSchemaBytes) +
                           " bytes");
  }
  if (!jsonKind(json)) {
    return Status::invalid("schema: it is not JSON");
  }
  const std::unique_ptr<JsonValue> schema = parseJsonTree(json, kMaxSchemaDepth);
  if (schema == nullptr) {
    return Status::invalid("schema: it is more than " + std::to_string(kMaxSchemaDepth) +
                           " levels deep");
  }
  auto grammar = std::make_shared<Grammar>();
  SchemaCompiler compiler(*grammar);
  NodeId root = kNoNode;
  Status status = compiler.compile(*schema, SchemaRules::Strict, root);
  if (status.ok()) {
    status = compiler.finish(root);
  }
  if (status.ok()) {
    out = std::move(grammar);
  }
  return status;
}

std::shared_ptr<const Grammar> anyObjectGrammar() {
  std::shared_ptr<const Grammar> grammar;
  const Status status = compileSchema(R"({"type": "object"})", grammar);
  return status.ok() ? grammar : nullptr;
}

}  // namespace engine
