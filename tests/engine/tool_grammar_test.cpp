#include "engine/tool_grammar.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "engine/chat_format.h"
#include "engine/grammar_constraint.h"
#include "engine/grammar_machine.h"
#include "engine/reply_parser.h"
#include "tests/engine/constraint_vocabulary.h"
#include "tests/support/json_schema_check.h"
#include "tests/support/json_text.h"

namespace engine {
namespace {

using kel::test::parseJson;
using testing_support::ConstraintVocabulary;

const std::vector<Tool>& tools() {
  static const std::vector<Tool> all = {
      {R"({"type":"function","function":{"name":"weather","parameters":{"type":"object",
          "required":["city","days"],"properties":{"city":{"type":"string"},
          "days":{"type":"integer","minimum":1,"maximum":9},
          "unit":{"type":"string","enum":["c","f"]},
          "where":{"type":"array","items":{"type":"string"},"maxItems":2},
          "note":{"anyOf":[{"type":"string"},{"type":"null"}]}}}}})"},
      {R"({"name":"now"})"},
  };
  return all;
}

std::shared_ptr<const Grammar> grammarOf(const std::vector<Tool>& given,
                                         const ToolCallOptions& options = {}) {
  std::shared_ptr<const Grammar> grammar;
  const kel::Status status = compileToolCalls(given, options, grammar);
  EXPECT_TRUE(status.ok()) << status.message;
  return grammar;
}

std::string errorOf(const std::vector<Tool>& given, const ToolCallOptions& options = {}) {
  std::shared_ptr<const Grammar> grammar;
  return compileToolCalls(given, options, grammar).message;
}

// Whether a reply begins so, and whether it may end so; its marks are spelt.
struct Reading {
  Reading(const std::shared_ptr<const Grammar>& grammar, std::string_view text) {
    GrammarMachine machine(*grammar, true);
    GrammarMachine::Places places = machine.begin(false);
    GrammarMachine::Places next;
    for (const char c : text) {
      machine.step(places, static_cast<uint8_t>(c), next);
      places.swap(next);
    }
    begins = !places.empty();
    ends = machine.isComplete(places);
  }

  bool begins;
  bool ends;
};

std::string call(const std::string& name, const std::string& parameters) {
  return "<tool_call>\n<function=" + name + ">\n" + parameters + "</function>\n</tool_call>";
}

std::string parameter(const std::string& name, const std::string& value) {
  return "<parameter=" + name + ">\n" + value + "\n</parameter>\n";
}

TEST(ToolGrammarTest, CallsHaveTheirParametersInOrder) {
  const auto grammar = grammarOf(tools());
  const std::string city = parameter("city", "Ulm\nor <b> \"so\"");
  const std::string days = parameter("days", "3");
  const std::string unit = parameter("unit", "f");
  for (const std::string& good :
       {call("now", ""), call("weather", city + days), call("weather", city + days + unit),
        call("weather", parameter("city", "") + days + parameter("where", R"(["a", "b"])")),
        call("weather", city + days + parameter("note", "null")),
        call("now", "") + "\n" + call("weather", city + days)}) {
    EXPECT_TRUE(Reading(grammar, good).ends) << good;
  }
  for (const std::string& bad :
       {call("weather", ""), call("weather", city), call("weather", days + city),
        call("weather", city + city + days), call("weather", city + days + parameter("other", "1")),
        call("weather", city + parameter("days", "12")),
        call("weather", city + parameter("days", "x")),
        call("weather", city + days + parameter("unit", "k")),
        call("weather", city + days + parameter("where", R"(["a","b","c"])")), call("later", ""),
        std::string("Well, ") + call("now", ""), call("now", "") + call("now", ""),
        std::string()}) {
    EXPECT_FALSE(Reading(grammar, bad).ends) << bad;
  }
  EXPECT_FALSE(Reading(grammar, call("now", "") + "\n\n").begins);
}

TEST(ToolGrammarTest, ValuesEndAtTheirMark) {
  const auto grammar = grammarOf(tools());
  const std::string before = "<tool_call>\n<function=weather>\n<parameter=city>\n";
  EXPECT_TRUE(Reading(grammar, before + "a</parameter").begins);
  EXPECT_FALSE(Reading(grammar, before + "a</parameter>").begins);  // no line feed before it
  EXPECT_TRUE(Reading(grammar, before + "a\n</parameter>").begins);
  EXPECT_TRUE(Reading(grammar, before + "a\n</param\n</parameter>").begins);
  EXPECT_FALSE(Reading(grammar, before + "a\n</param</parameter>").begins);
  EXPECT_FALSE(Reading(grammar, before + "\x01").begins);
  EXPECT_FALSE(Reading(grammar, before + "\xC3(").begins);
  // Within JSON the mark cannot be written.
  const std::string where =
      before + "a\n</parameter>\n" + parameter("days", "1") + "<parameter=where>\n[\"</parameter";
  EXPECT_TRUE(Reading(grammar, where).begins);
  EXPECT_FALSE(Reading(grammar, where + ">").begins);
}

TEST(ToolGrammarTest, NamedFunctionsAndSingleCallsAreKept) {
  const auto named = grammarOf(tools(), {.name = "now"});
  EXPECT_TRUE(Reading(named, call("now", "") + "\n" + call("now", "")).ends);
  EXPECT_FALSE(Reading(named, "<tool_call>\n<function=w").begins);
  const auto single = grammarOf(tools(), {.name = {}, .maxCalls = 1});
  EXPECT_TRUE(Reading(single, call("now", "")).ends);
  EXPECT_FALSE(Reading(single, call("now", "") + "\n").begins);
  const auto two = grammarOf(tools(), {.name = {}, .maxCalls = 2});
  EXPECT_TRUE(Reading(two, call("now", "") + "\n" + call("now", "")).ends);
  EXPECT_FALSE(Reading(two, call("now", "") + "\n" + call("now", "") + "\n").begins);
}

TEST(ToolGrammarTest, ReferencesLeadToWordsAndToJson) {
  const auto grammar = grammarOf({{R"({"name":"f","parameters":{"properties":{
      "colour":{"$ref":"#/$defs/colour"},"place":{"anyOf":[{"$ref":"#/$defs/place"},{"type":"null"}]}},
      "$defs":{"colour":{"enum":["red","green"],"type":"string"},
          "place":{"type":"object","properties":{"x":{"type":"integer"}}}}}})"}});
  for (const std::string& good : {parameter("colour", "red"), parameter("place", R"({"x": 1})"),
                                  parameter("place", "null")}) {
    EXPECT_TRUE(Reading(grammar, call("f", good)).ends) << good;
  }
  for (const std::string& bad : {parameter("colour", "blue"), parameter("place", R"({"y": 1})"),
                                 parameter("place", "here")}) {
    EXPECT_FALSE(Reading(grammar, call("f", bad)).ends) << bad;
  }
}

TEST(ToolGrammarTest, KeywordsThatAreNotSupportedMatterToStrictToolsAlone) {
  const auto tool = [](const std::string& strict, const std::string& property) {
    return std::vector<Tool>{{R"({"name":"f","strict":)" + strict +
                              R"(,"parameters":{"type":"object","properties":{"p":)" + property +
                              "}}}"}};
  };
  const std::string pattern = R"({"type":"string","pattern":"^a"})";
  EXPECT_EQ(errorOf(tool("false", pattern)), "");
  EXPECT_EQ(errorOf(tool("true", pattern)),
            "tools: \"f\": schema: \"pattern\" is not supported, at #/properties/p/pattern");
  EXPECT_EQ(errorOf(tool("false", R"({"type":"integer","multipleOf":2,"minimum":0})")), "");
  EXPECT_EQ(errorOf(tool("false", R"({"type":"object","not":{},"allOf":[{},{}]})")), "");
  EXPECT_EQ(errorOf(tool("false", R"({"type":"array","items":{"$ref":"elsewhere"}})")), "");
}

TEST(ToolGrammarTest, WhatCannotBeCalledIsRefused) {
  EXPECT_EQ(errorOf({}), "tools: there is none to call");
  EXPECT_EQ(errorOf(tools(), {.name = "later"}), "tools: there is none of the name \"later\"");
  EXPECT_EQ(errorOf({{R"({"name":"a>b"})"}}),
            "tools: the name \"a>b\" cannot be written in a call");
  EXPECT_EQ(errorOf({{R"({"name":""})"}}), "tools: the name \"\" cannot be written in a call");
  EXPECT_EQ(
      errorOf({{R"({"name":"f","parameters":{"required":["a\nb"],"properties":{"a\nb":{}}}})"}}),
      "tools: \"f\": the name \"a\\nb\" cannot be written in a call");
  EXPECT_EQ(errorOf({{R"({"name":"f","parameters":{"properties":{"a\nb":{}}}})"}}), "");
  EXPECT_EQ(errorOf({{"[]"}}), "tools: one is no JSON object of up to 66 levels");
}

// Any token for some time, then one that leads to an end soon: values end in a line of the mark.
int32_t chooseToken(const TokenMask& mask, const VocabularyTrie& trie, const std::string& text,
                    bool hurries, std::mt19937& random) {
  std::vector<int32_t> ids;
  for (size_t id = 0; id < mask.size(); ++id) {
    if (mask.allows(id)) {
      ids.push_back(static_cast<int32_t>(id));
    }
  }
  std::vector<std::string> wanted = {""};
  const std::string line = text.substr(std::min(text.size(), text.find_last_of('\n')));
  for (const std::string end : {"\n</parameter>", "\n</function>"}) {
    if (end.starts_with(line) && line.size() < end.size()) {
      wanted.push_back(end.substr(line.size(), 1));
    }
  }
  wanted.insert(wanted.end(), {"\n", "\"", "]"});
  for (const std::string& bytes : hurries ? wanted : std::vector<std::string>()) {
    for (const int32_t id : ids) {
      if (trie.bytesOf(id) == bytes) {
        return id;
      }
    }
  }
  return ids.empty() ? -1 : ids[random() % ids.size()];
}

std::string randomReply(const std::shared_ptr<const Grammar>& grammar,
                        const ConstraintVocabulary& vocabulary, std::mt19937& random) {
  const VocabularyTrie& trie = *vocabulary.trie;
  GrammarConstraint constraint(grammar, vocabulary.trie, {});
  TokenMask mask(trie.vocabulary());
  std::string text;
  const size_t patience = random() % 80;
  for (size_t nTokens = 0; nTokens < 2'000; ++nTokens) {
    constraint.allowed(mask);
    const int32_t id = chooseToken(mask, trie, text, nTokens > patience, random);
    if (id < 0) {
      ADD_FAILURE() << "nothing may follow: " << text;
      return text;
    }
    if (std::count(trie.endTokens().begin(), trie.endTokens().end(), id) > 0) {
      return text;
    }
    const std::string_view bytes = trie.bytesOf(id);
    text += bytes.empty() ? vocabulary.tokenizer.tokens[static_cast<size_t>(id)] : bytes;
    constraint.accept(id);
  }
  ADD_FAILURE() << "no end: " << text;
  return text;
}

void expectCalls(const std::string& text, size_t most) {
  std::vector<ReplyEvent> events;
  ReplyParser parser(false, tools());
  parser.text(text, events);
  parser.finish(events);
  const kel::test::Json schema = parseJson(tools().front().json)["function"]["parameters"];
  size_t nCalls = 0;
  for (const ReplyEvent& event : events) {
    EXPECT_NE(event.kind, ReplyEvent::Kind::Answer) << text;
    EXPECT_NE(event.kind, ReplyEvent::Kind::CallIncomplete) << text;
    EXPECT_NE(event.kind, ReplyEvent::Kind::CallMalformed) << text;
    if (event.kind != ReplyEvent::Kind::CallComplete) {
      continue;
    }
    ++nCalls;
    const auto arguments = kel::test::strictlyParsed(event.json);
    ASSERT_TRUE(arguments.has_value()) << event.json;
    if (event.name == "weather") {
      EXPECT_TRUE(kel::test::satisfies(*arguments, schema, schema)) << text;
    } else {
      EXPECT_EQ(event.name, "now");
      EXPECT_TRUE(arguments->empty());
    }
  }
  EXPECT_TRUE(nCalls >= 1 && nCalls <= most) << text;
}

TEST(ToolGrammarTest, RepliesAreCallsOfTheTools) {
  std::mt19937 random(5);
  const auto grammar = grammarOf(tools(), {.name = {}, .maxCalls = 3});
  for (const bool callMarks : {true, false}) {
    const ConstraintVocabulary vocabulary({.highBytes = true, .callMarks = callMarks});
    ASSERT_TRUE(GrammarConstraint::check(*grammar, *vocabulary.trie).ok());
    for (int i = 0; i < 100; ++i) {
      expectCalls(randomReply(grammar, vocabulary, random), 3);
    }
  }
}

TEST(ToolGrammarTest, MarksOfCallsAreTheirTokensWhereThereAreAny) {
  const ConstraintVocabulary vocabulary;
  TokenMask mask(vocabulary.trie->vocabulary());
  GrammarConstraint constraint(grammarOf(tools(), {.name = {}, .maxCalls = 1}), vocabulary.trie,
                               {});
  const auto begin = static_cast<size_t>(vocabulary.id(kCallBegin));
  const auto end = static_cast<size_t>(vocabulary.id(kCallEnd));
  constraint.allowed(mask);
  EXPECT_TRUE(mask.allows(begin));
  EXPECT_FALSE(mask.allows(end));
  EXPECT_FALSE(mask.allows('<'));
  constraint.accept(static_cast<int32_t>(begin));
  for (const char c : std::string_view("\n<function=now>\n</function>\n")) {
    constraint.allowed(mask);
    EXPECT_TRUE(mask.allows(static_cast<size_t>(c)));
    EXPECT_FALSE(mask.allows(end));
    constraint.accept(c);
  }
  constraint.allowed(mask);
  EXPECT_TRUE(mask.allows(end));
  EXPECT_FALSE(mask.allows('<'));
}

}  // namespace
}  // namespace engine
