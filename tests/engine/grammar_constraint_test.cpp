#include "engine/grammar_constraint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "engine/context.h"
#include "engine/json_schema.h"
#include "engine/json_text.h"
#include "engine/model.h"
#include "engine/reply.h"
#include "engine/sampler.h"
#include "engine/tool_grammar.h"
#include "tests/engine/constraint_vocabulary.h"
#include "tests/support/demo_model.h"
#include "tests/support/json_schema_check.h"
#include "tests/support/json_text.h"
#include "tests/support/temp_dir.h"

namespace engine {
namespace {

using kel::test::Json;
using kel::test::parseJson;
using testing_support::ConstraintVocabulary;
using Random = std::mt19937;

const std::vector<std::string>& schemas() {
  static const std::vector<std::string> all = {
      R"({"type":"object"})",
      R"({"type":"object","additionalProperties":{"type":"string","maxLength":3}})",
      R"({"type":"object","required":["name","age"],"properties":{"name":{"type":"string"},
          "age":{"type":"integer","minimum":0,"maximum":150},"tags":{"type":"array",
          "items":{"enum":["a","ab","abc\u00e9"]},"maxItems":4},"more":{"type":"boolean"}}})",
      R"({"type":"array","items":{"type":"string","minLength":2,"maxLength":5},"minItems":1})",
      R"({"$ref":"#/$defs/t","$defs":{"t":{"type":"object","required":["v"],"properties":{
          "v":{"type":"number","minimum":-1.5,"maximum":12.25},
          "l":{"$ref":"#/$defs/t"},"r":{"anyOf":[{"$ref":"#/$defs/t"},{"type":"null"}]}}}}})",
      R"({"anyOf":[{"type":"object","properties":{"name":{"const":"ab"},"x":{"type":"integer"}},
          "required":["name","x"]},{"type":"object","properties":{"name":{"const":"abc"}},
          "additionalProperties":true,"required":["name"]},{"type":"string","maxLength":2},
          {"enum":[1,12,123,"abcabc",null]}]})",
      R"({"oneOf":[{"type":"integer","exclusiveMinimum":7},{"type":"string"},{"type":"null"},
          {"type":"array","prefixItems":[{"type":"boolean"},{"type":"number"}]}]})",
      R"({"type":"string"})",
      R"({"type":["number","null"]})",
  };
  return all;
}

std::shared_ptr<const Grammar> grammarOf(std::string_view schema) {
  std::shared_ptr<const Grammar> grammar;
  const kel::Status status = compileSchema(schema, grammar);
  EXPECT_TRUE(status.ok()) << status.message;
  return grammar;
}

class GrammarConstraintTest : public testing::Test {
 protected:
  static const ConstraintVocabulary& vocabulary() {
    static const ConstraintVocabulary made;
    return made;
  }

  static std::unique_ptr<GrammarConstraint> constraintOf(
      const std::shared_ptr<const Grammar>& grammar, const ConstraintOptions& options = {}) {
    const kel::Status status = GrammarConstraint::check(*grammar, *vocabulary().trie);
    EXPECT_TRUE(status.ok()) << status.message;
    return std::make_unique<GrammarConstraint>(grammar, vocabulary().trie, options);
  }
};

std::vector<int32_t> idsOf(const TokenMask& mask) {
  std::vector<int32_t> ids;
  for (size_t id = 0; id < mask.size(); ++id) {
    if (mask.allows(id)) {
      ids.push_back(static_cast<int32_t>(id));
    }
  }
  return ids;
}

// One of the allowed tokens: any of them for some time, then one that leads to an end soon.
int32_t chooseToken(const std::vector<int32_t>& ids, const VocabularyTrie& trie, bool hurries,
                    Random& random) {
  if (hurries) {
    for (const std::string_view wanted : {"", "\"", "}", "]", ",", ":"}) {
      for (const int32_t id : ids) {
        if (trie.bytesOf(id) == wanted) {
          return id;
        }
      }
    }
  }
  return ids[random() % ids.size()];
}

// A text of the grammar by random choices, up to a token that ends it.
std::string randomText(GrammarConstraint& constraint, const VocabularyTrie& trie, Random& random) {
  const size_t patience = random() % 60;
  TokenMask mask(trie.vocabulary());
  std::string text;
  for (size_t nTokens = 0; nTokens < 5'000; ++nTokens) {
    constraint.allowed(mask);
    const std::vector<int32_t> ids = idsOf(mask);
    if (ids.empty()) {
      ADD_FAILURE() << "nothing may follow: " << text;
      break;
    }
    const int32_t id = chooseToken(ids, trie, nTokens > patience, random);
    if (trie.bytesOf(id).empty()) {
      EXPECT_TRUE(constraint.isComplete());
      return text;
    }
    text += trie.bytesOf(id);
    constraint.accept(id);
  }
  ADD_FAILURE() << "no end: " << text.substr(0, 200);
  return text;
}

void expectValid(const std::string& text, const std::string& schema) {
  const std::optional<Json> document = kel::test::strictlyParsed(text);
  ASSERT_TRUE(document.has_value()) << text;
  const Json root = parseJson(schema);
  EXPECT_TRUE(kel::test::satisfies(*document, root, root)) << text << "\n" << schema;
}

TEST_F(GrammarConstraintTest, WhateverIsChosenIsADocumentOfTheSchema) {
  Random random(1);
  for (const std::string& schema : schemas()) {
    const std::shared_ptr<const Grammar> grammar = grammarOf(schema);
    for (int i = 0; i < 60; ++i) {
      const auto constraint = constraintOf(grammar);
      expectValid(randomText(*constraint, *vocabulary().trie, random), schema);
    }
  }
}

// Follows random tokens, and holds every mask against what trying each token by itself gives.
void expectMasksOfTrials(const std::shared_ptr<const Grammar>& grammar,
                         const std::shared_ptr<const VocabularyTrie>& trie, Random& random) {
  GrammarConstraint constraint(grammar, trie, {});
  GrammarMachine machine(*grammar, true);
  GrammarMachine::Places places = machine.begin(false);
  GrammarMachine::Places next;
  TokenMask mask(trie->vocabulary());
  std::string text;
  for (size_t nTokens = 0; nTokens < 60; ++nTokens) {
    constraint.allowed(mask);
    for (size_t id = 0; id < mask.size(); ++id) {
      const auto token = static_cast<int32_t>(id);
      const std::string_view bytes = trie->bytesOf(token);
      const std::vector<int32_t>& ends = trie->endTokens();
      const GrammarMachine::Bookmark before = machine.bookmark();
      machine.advance(places, bytes, next);
      const bool leadsOn = std::find(ends.begin(), ends.end(), token) != ends.end()
                               ? machine.isComplete(places)
                               : !bytes.empty() && !next.empty();
      machine.forgetSince(before);
      ASSERT_EQ(mask.allows(id), leadsOn) << text << " | " << bytes;
    }
    ASSERT_FALSE(idsOf(mask).empty()) << text;
    const int32_t id = chooseToken(idsOf(mask), *trie, nTokens > 40, random);
    const std::string_view bytes = trie->bytesOf(id);
    if (bytes.empty()) {
      return;
    }
    text += bytes;
    constraint.accept(id);
    machine.advance(places, bytes, next);
    places = next;
  }
}

// What is remembered of strings and places changes nothing.
TEST_F(GrammarConstraintTest, MasksAllowWhatLeadsOnAndNothingElse) {
  const ConstraintVocabulary spelling({.highBytes = true, .callMarks = false});
  Random random(2);
  for (const std::string& schema : schemas()) {
    for (int i = 0; i < 6; ++i) {
      expectMasksOfTrials(grammarOf(schema), spelling.trie, random);
    }
  }
  const std::vector<Tool> tools = {
      {R"({"name":"f","parameters":{"required":["a","b"],"properties":{"a":{"type":"string"},
          "b":{"type":"object"},"c":{"enum":["abc","ab"]}}}})"},
      {R"({"name":"g"})"}};
  std::shared_ptr<const Grammar> calls;
  ASSERT_TRUE(compileToolCalls(tools, {}, calls).ok());
  for (int i = 0; i < 20; ++i) {
    expectMasksOfTrials(calls, spelling.trie, random);
  }
}

// Documents made from a schema, with keys in its order.
class RandomDocuments {
 public:
  using Ordered = nlohmann::ordered_json;

  RandomDocuments(const std::string& schema, Random& randomNumbers)
      : root(Ordered::parse(schema)), random(randomNumbers) {}

  Ordered make() { return make(root, 0); }

 private:
  size_t below(size_t limit) { return random() % limit; }

  Ordered make(const Ordered& schema, size_t depth) {
    if (schema.contains("$ref")) {
      return make(root.at(Ordered::json_pointer(schema["$ref"].get<std::string>().substr(1))),
                  depth);
    }
    for (const char* keyword : {"anyOf", "oneOf"}) {
      if (schema.contains(keyword)) {
        const Ordered& list = schema[keyword];
        return make(list[depth > 3 ? list.size() - 1 : below(list.size())], depth);
      }
    }
    if (schema.contains("const")) {
      return schema["const"];
    }
    if (schema.contains("enum")) {
      return schema["enum"][below(schema["enum"].size())];
    }
    Ordered type = schema.contains("type") ? schema["type"] : Ordered("any");
    type = type.is_array() ? type[below(type.size())] : type;
    if (type == "any") {
      return makeAny(depth);
    }
    if (type == "object") {
      return makeObject(schema, depth);
    }
    if (type == "array") {
      return makeArray(schema, depth);
    }
    if (type == "string") {
      return makeString(schema.value("minLength", size_t{0}), schema.value("maxLength", size_t{9}));
    }
    if (type == "integer") {
      return schema.value("exclusiveMinimum", schema.value("minimum", -1000)) + 1 +
             static_cast<int>(below(140));
    }
    if (type == "number") {
      return static_cast<double>(below(96)) / 8 + (below(2) == 0 ? -1.5 : 0.25);
    }
    return type == "boolean" ? Ordered(below(2) == 0) : Ordered(nullptr);
  }

  Ordered makeAny(size_t depth) {
    switch (below(depth > 3 ? 3 : 5)) {
      case 0:
        return makeString(0, 9);
      case 1:
        return static_cast<double>(below(1000)) / 4;
      case 2:
        return below(2) == 0;
      case 3:
        return makeArray(Ordered::object(), depth);
      default:
        return makeObject(Ordered::object(), depth);
    }
  }

  Ordered makeObject(const Ordered& schema, size_t depth) {
    Ordered made = Ordered::object();
    const Ordered properties = schema.value("properties", Ordered::object());
    const Ordered required = schema.value("required", Ordered::array());
    for (const auto& [key, property] : properties.items()) {
      const bool isRequired = std::count(required.begin(), required.end(), key) > 0;
      if (isRequired || (depth < 4 && below(2) == 0)) {
        made[key] = make(property, depth + 1);
      }
    }
    const Ordered others = schema.value("additionalProperties", Ordered(properties.empty()));
    for (size_t i = below(4); others != false && i > 0; --i) {
      made[makeString(0, 6).get<std::string>()] =
          make(others == true ? Ordered::object() : others, depth + 1);
    }
    return made;
  }

  Ordered makeArray(const Ordered& schema, size_t depth) {
    Ordered made = Ordered::array();
    const Ordered prefix = schema.value("prefixItems", Ordered::array());
    const size_t least = schema.value("minItems", size_t{0});
    const size_t length = least + below(schema.value("maxItems", least + 4) - least + 1);
    for (size_t i = 0; i < length; ++i) {
      if (i < prefix.size()) {
        made.push_back(make(prefix[i], depth + 1));
      } else if (prefix.empty()) {
        made.push_back(make(schema.value("items", Ordered::object()), depth + 1));
      }
    }
    return made;
  }

  Ordered makeString(size_t least, size_t most) {
    static const std::vector<std::string> characters = {"a",
                                                        "b",
                                                        "c",
                                                        "\"",
                                                        "\\",
                                                        "\n",
                                                        "\x01",
                                                        " ",
                                                        "/",
                                                        "<",
                                                        "\xC3\xA9",
                                                        "\xE6\xBC\xA2",
                                                        "\xF0\x9F\x98\x80",
                                                        "{",
                                                        "}",
                                                        ",",
                                                        ":",
                                                        "\x7F",
                                                        "1"};
    std::string text;
    for (size_t i = least + below(most - least + 1); i > 0; --i) {
      text += characters[below(characters.size())];
    }
    return text;
  }

  Ordered root;
  Random& random;
};

TEST_F(GrammarConstraintTest, DocumentsOfTheSchemaAreAllowedTokenByToken) {
  Random random(3);
  TokenMask mask(vocabulary().trie->vocabulary());
  for (const std::string& schema : schemas()) {
    const std::shared_ptr<const Grammar> grammar = grammarOf(schema);
    RandomDocuments documents(schema, random);
    for (int i = 0; i < 60; ++i) {
      const RandomDocuments::Ordered document = documents.make();
      for (const std::string& text :
           {document.dump(), document.dump(2), document.dump(4), spacedJson(document.dump())}) {
        const auto constraint = constraintOf(grammar);
        std::vector<int32_t> ids;
        vocabulary().encoder->encode(text, ids);
        for (const int32_t id : ids) {
          constraint->allowed(mask);
          ASSERT_TRUE(mask.allows(static_cast<size_t>(id))) << schema << "\n"
                                                            << text << "\n"
                                                            << vocabulary().trie->bytesOf(id);
          constraint->accept(id);
        }
        constraint->allowed(mask);
        EXPECT_TRUE(mask.allows(static_cast<size_t>(vocabulary().id(kTurnEnd)))) << text;
      }
    }
  }
}

TEST_F(GrammarConstraintTest, WhatEndsATurnIsAllowedWhereTheTextIsCompleteAndThenNothingElse) {
  const auto constraint = constraintOf(grammarOf(R"({"type":"object"})"));
  const std::vector<int32_t> ends = {vocabulary().id(kTextEnd), vocabulary().id(kTurnEnd)};
  TokenMask mask(vocabulary().trie->vocabulary());
  constraint->allowed(mask);
  for (const int32_t id : ends) {
    EXPECT_FALSE(mask.allows(static_cast<size_t>(id)));
  }
  for (const char* mark : {"<think>", "</think>", "<tool_call>", "<|im_start|>"}) {
    EXPECT_FALSE(mask.allows(static_cast<size_t>(vocabulary().id(mark)))) << mark;
  }
  constraint->accept('{');
  constraint->accept('}');
  constraint->allowed(mask);
  EXPECT_EQ(idsOf(mask), ends);
  constraint->accept(ends.front());
  constraint->allowed(mask);
  EXPECT_EQ(idsOf(mask), ends);

  // A number may end and go on.
  const auto number = constraintOf(grammarOf(R"({"type":"integer"})"));
  number->accept('4');
  number->allowed(mask);
  EXPECT_TRUE(mask.allows('2'));
  EXPECT_TRUE(mask.allows(static_cast<size_t>(ends.back())));
}

TEST_F(GrammarConstraintTest, TokensThatAreNotAllowedEndTheText) {
  const auto constraint = constraintOf(grammarOf(R"({"type":"object"})"));
  TokenMask mask(vocabulary().trie->vocabulary());
  constraint->accept('[');
  constraint->allowed(mask);
  EXPECT_EQ(idsOf(mask),
            (std::vector<int32_t>{vocabulary().id(kTextEnd), vocabulary().id(kTurnEnd)}));
  EXPECT_FALSE(constraint->isComplete());
}

TEST_F(GrammarConstraintTest, LineFeedsMayStandBetweenReasoningAndAnswer) {
  TokenMask mask(vocabulary().trie->vocabulary());
  const std::shared_ptr<const Grammar> grammar = grammarOf(R"({"type":"array"})");
  const auto constraint = constraintOf(grammar, {.followsReasoning = true});
  for (const char c : {'\n', '\n', '['}) {
    constraint->allowed(mask);
    EXPECT_TRUE(mask.allows(static_cast<size_t>(c)));
    EXPECT_TRUE(mask.allows('['));
    constraint->accept(c);
  }
  const auto third = constraintOf(grammar, {.followsReasoning = true});
  third->accept('\n');
  third->accept('\n');
  third->allowed(mask);
  EXPECT_FALSE(mask.allows('\n'));
  constraintOf(grammar)->allowed(mask);
  EXPECT_FALSE(mask.allows('\n'));
}

TEST_F(GrammarConstraintTest, KeysThatAreUsedDoNotEndAgain) {
  const auto constraint = constraintOf(grammarOf(R"({"type":"object"})"));
  TokenMask mask(vocabulary().trie->vocabulary());
  for (const char c : std::string_view(R"({"ab":1,"a)")) {
    constraint->accept(c);
  }
  constraint->allowed(mask);
  EXPECT_TRUE(mask.allows('"'));
  EXPECT_TRUE(mask.allows('b'));
  const auto id = static_cast<size_t>(vocabulary().tokenizer.tokenToId("b\""));
  EXPECT_FALSE(mask.allows(id));  // within one token
  constraint->accept('b');
  constraint->allowed(mask);
  EXPECT_FALSE(mask.allows('"'));
  EXPECT_TRUE(mask.allows('c'));
}

TEST_F(GrammarConstraintTest, LongDocumentsTakeNoMoreMemory) {
  const auto constraint = constraintOf(grammarOf(R"({"type":"array","items":{"type":"object"}})"));
  TokenMask mask(vocabulary().trie->vocabulary());
  constraint->accept('[');
  for (int i = 0; i < 20'000; ++i) {
    for (const char c : std::string_view(R"({"k":[1]},)")) {
      constraint->accept(c);
    }
  }
  constraint->allowed(mask);
  EXPECT_TRUE(mask.allows('{'));
  EXPECT_LT(constraint->heldFrames(), 10'000U);
}

// Of a vocabulary without all bytes only whole characters are chosen.
TEST(ConstraintVocabularyTest, CharactersThatCannotBeEndedAreNotBegun) {
  const ConstraintVocabulary ascii({.highBytes = false});
  const std::shared_ptr<const Grammar> grammar = grammarOf(R"({"type":"array"})");
  ASSERT_TRUE(GrammarConstraint::check(*grammar, *ascii.trie).ok());
  TokenMask mask(ascii.trie->vocabulary());
  const auto isAllowed = [&](std::string_view bytes) {
    for (size_t id = 0; id < mask.size(); ++id) {
      if (ascii.trie->bytesOf(static_cast<int32_t>(id)) == bytes) {
        return mask.allows(id);
      }
    }
    ADD_FAILURE() << bytes;
    return false;
  };
  // At the start of a string and within it.
  GrammarConstraint constraint(grammar, ascii.trie, {});
  constraint.accept('[');
  constraint.allowed(mask);
  EXPECT_FALSE(isAllowed("\"\xE6\xBC"));
  constraint.accept('"');
  constraint.accept('a');
  constraint.allowed(mask);
  EXPECT_TRUE(isAllowed("\xC3\xA9"));
  EXPECT_TRUE(isAllowed("\xE6\xBC\xA2"));
  EXPECT_FALSE(isAllowed("\xE6\xBC"));
}

// Replies end at such tokens and are taken apart at them, however a vocabulary types them.
TEST(ConstraintVocabularyTest, MarksAreNoText) {
  const ConstraintVocabulary plain({.plainMarks = true});
  GrammarConstraint constraint(grammarOf(R"({"type":"string"})"), plain.trie, {});
  constraint.accept('"');
  TokenMask mask(plain.trie->vocabulary());
  constraint.allowed(mask);
  EXPECT_TRUE(mask.allows('<'));
  for (const std::string_view mark : {kTurnEnd, kTextEnd, kTurnBegin, kThinkEnd, kCallBegin}) {
    EXPECT_FALSE(mask.allows(static_cast<size_t>(plain.id(mark)))) << mark;
  }
}

TEST(ConstraintVocabularyTest, VocabulariesThatCannotWriteTheTextsAreRefused) {
  const std::shared_ptr<const Grammar> plain = grammarOf(R"({"type":"object"})");
  const std::shared_ptr<const Grammar> words = grammarOf("{\"const\":\"\xC3\xA9\"}");
  const ConstraintVocabulary ascii({.highBytes = false});
  EXPECT_EQ(GrammarConstraint::check(*words, *ascii.trie).message,
            "constraint: words of the schema are not ASCII, and the vocabulary has no token for "
            "some bytes");
  const ConstraintVocabulary noBrace({.without = {"}"}});
  EXPECT_EQ(GrammarConstraint::check(*plain, *noBrace.trie).message,
            "constraint: the vocabulary has no token for some printable characters");
  kel::Tokenizer endless;
  kel::TokenizerData tables;
  tables.tokens.emplace_back("\n");
  for (char c = ' '; c <= '~'; ++c) {
    tables.tokens.emplace_back(c == ' ' ? "\xE2\x96\x81" : std::string(1, c));
  }
  ASSERT_TRUE(endless.load(std::move(tables)).ok());
  EXPECT_EQ(GrammarConstraint::check(*plain, VocabularyTrie(endless, 96)).message,
            "constraint: the vocabulary has no token that ends a turn");
}

class ConstrainedModelTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = std::make_unique<kel::test::TempDir>();
    const std::string path = folder->file("demo.zym");
    kel::test::writeDemoModel(path, kel::QuantType::BF16);
    const kel::Status status = Model::open(path, model);
    ASSERT_TRUE(status.ok()) << status.message;
    trie = std::make_shared<const VocabularyTrie>(model->tokenizer(), model->sizes().vocab);
  }
  static void TearDownTestSuite() {
    trie.reset();
    model.reset();
    folder.reset();
  }

  static inline std::unique_ptr<kel::test::TempDir> folder;
  static inline std::shared_ptr<const Model> model;
  static inline std::shared_ptr<const VocabularyTrie> trie;
};

TEST_F(ConstrainedModelTest, ItsVocabularyWritesDocuments) {
  Random random(4);
  for (const std::string& schema : schemas()) {
    const std::shared_ptr<const Grammar> grammar = grammarOf(schema);
    if (!grammar->isAscii) {
      continue;
    }
    ASSERT_TRUE(GrammarConstraint::check(*grammar, *trie).ok());
    for (int i = 0; i < 20; ++i) {
      GrammarConstraint constraint(grammar, trie, {});
      expectValid(randomText(constraint, *trie, random), schema);
    }
  }
}

TEST_F(ConstrainedModelTest, ItsRepliesAreDocuments) {
  const std::string schema = R"({"type":"object","required":["colour","sizes"],"properties":{
      "colour":{"enum":["red","green"]},"note":{"type":"string","maxLength":3},
      "sizes":{"type":"array","items":{"type":"integer","minimum":0,"maximum":99},"maxItems":1}}})";
  const std::shared_ptr<const Grammar> grammar = grammarOf(schema);
  std::unique_ptr<Context> context;
  ASSERT_TRUE(Context::create(model, {.positions = 512}, context).ok());
  std::vector<Message> messages(1);
  messages.front().content = "hello";
  for (uint64_t seed = 1; seed <= 2; ++seed) {
    GrammarConstraint constraint(grammar, trie, {});
    ReplyOptions options;
    options.sampling.temperature = seed == 1 ? 0.0F : 1.0F;
    options.constraint = &constraint;
    Sampler sampler(seed);
    Reply reply;
    const kel::Status status =
        generateReply(*context, sampler, {.messages = messages}, options, {}, reply);
    ASSERT_TRUE(status.ok()) << status.message;
    EXPECT_EQ(reply.end, ReplyEnd::Stop);
    expectValid(reply.message.content, schema);
  }
}

}  // namespace
}  // namespace engine
