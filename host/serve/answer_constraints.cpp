#include "host/serve/answer_constraints.h"

#include <memory>
#include <utility>

#include "engine/grammar_constraint.h"
#include "engine/json_schema.h"
#include "engine/tool_grammar.h"
#include "engine/vocabulary_trie.h"

namespace zym {

namespace {

using kel::Status;
using SharedGrammar = std::shared_ptr<const engine::Grammar>;

Status compile(const ConstraintRequest& request, SharedGrammar& out) {
  switch (request.form) {
    case ConstraintRequest::Form::Schema:
      return engine::compileSchema(request.schema, out);
    case ConstraintRequest::Form::Calls:
      return engine::compileToolCalls(
          request.tools, {.maxCalls = request.allowsSeveral ? engine::kMaxCallsOfReply : 1}, out);
    case ConstraintRequest::Form::Object:
      break;
  }
  out = engine::anyObjectGrammar();
  return Status::success();
}

}  // namespace

std::function<Status(const ConstraintRequest& request, ConstraintMaker& out)> answerConstraints(
    const engine::Model& model) {
  const auto trie =
      std::make_shared<const engine::VocabularyTrie>(model.tokenizer(), model.sizes().vocab);
  return [trie](const ConstraintRequest& request, ConstraintMaker& out) {
    SharedGrammar grammar;
    Status status = compile(request, grammar);
    if (status.ok()) {
      status = engine::GrammarConstraint::check(*grammar, *trie);
    }
    if (status.ok()) {
      const engine::ConstraintOptions options{.followsReasoning = request.followsReasoning};
      out = [grammar, trie, options] {
        return std::make_unique<engine::GrammarConstraint>(grammar, trie, options);
      };
    }
    return status;
  };
}

}  // namespace zym
