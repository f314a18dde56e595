#include "engine/json_schema.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/grammar_machine.h"

namespace engine {
namespace {

using Texts = std::vector<std::string>;

std::string errorOf(std::string_view schema) {
  std::shared_ptr<const Grammar> grammar;
  const kel::Status status = compileSchema(schema, grammar);
  EXPECT_EQ(status.ok(), grammar != nullptr);
  return status.message;
}

// What becomes of a text under a schema.
class Reading {
 public:
  explicit Reading(std::string_view schema) {
    const kel::Status status = compileSchema(schema, grammar);
    EXPECT_TRUE(status.ok()) << status.message;
  }

  // The text is the beginning of a document.
  bool begins(std::string_view text) const { return read(text).first; }
  // The text is a document.
  bool ends(std::string_view text) const { return read(text).second; }

  void expectDocuments(const Texts& texts) const {
    for (const std::string& text : texts) {
      EXPECT_TRUE(ends(text)) << text;
    }
  }
  void expectNone(const Texts& texts) const {
    for (const std::string& text : texts) {
      EXPECT_FALSE(ends(text)) << text;
    }
  }

 private:
  std::pair<bool, bool> read(std::string_view text) const {
    GrammarMachine machine(*grammar, true);
    GrammarMachine::Places places = machine.begin(false);
    GrammarMachine::Places next;
    for (const char c : text) {
      machine.step(places, static_cast<uint8_t>(c), next);
      places.swap(next);
    }
    return {!places.empty(), machine.isComplete(places)};
  }

  std::shared_ptr<const Grammar> grammar;
};

TEST(JsonSchemaTest, TypesAdmitTheirValues) {
  const std::vector<std::pair<std::string, std::string>> examples = {
      {"string", R"("a")"}, {"number", "1.5"}, {"integer", "15"},       {"boolean", "true"},
      {"null", "null"},     {"array", "[1]"},  {"object", R"({"a":1})"}};
  for (const auto& [type, own] : examples) {
    const Reading reading(R"({"type":")" + type + R"("})");
    for (const auto& [other, text] : examples) {
      const bool admits = type == other || (type == "number" && other == "integer");
      EXPECT_EQ(reading.ends(text), admits) << type << " " << text;
    }
  }
  const Reading two(R"({"type":["integer","null"]})");
  two.expectDocuments({"3", "null"});
  two.expectNone({"true", R"("a")", "3.5"});
}

TEST(JsonSchemaTest, WithoutKeywordsEveryValueIsAdmitted) {
  for (const char* schema : {"{}", "true", R"({"title":"x"})"}) {
    const Reading reading(schema);
    reading.expectDocuments({R"({"a":[1,{"b":null}],"c":"d"})", "[]", "{}", "1", R"("")", "false"});
  }
}

TEST(JsonSchemaTest, KeywordsOfAKindStandForTheType) {
  Reading(R"({"properties":{"a":{}}})").expectNone({"1", "[]", R"("a")"});
  Reading(R"({"items":{}})").expectNone({"1", "{}", R"("a")"});
  Reading(R"({"minLength":1})").expectNone({"1", "{}", "[]"});
  Reading(R"({"minimum":1})").expectNone({R"("a")", "{}", "[]"});
}

TEST(JsonSchemaTest, PropertiesStandInOrderAndOptionalOnesMayBeLeftOut) {
  const Reading reading(R"({"type":"object","required":["b"],"properties":
      {"a":{"type":"integer"},"b":{"type":"boolean"},"c":{"type":"null"}}})");
  reading.expectDocuments({R"({"a":1,"b":true,"c":null})", R"({"b":true})",
                           R"({"b":true,"c":null})", R"({"a": 1, "b": false})"});
  reading.expectNone({"{}", R"({"a":1})", R"({"b":true,"a":1})", R"({"b":true,"b":true})",
                      R"({"b":true,"d":1})", R"({"b":1})", R"({"b":true,})", R"({,"b":true})"});
  EXPECT_FALSE(reading.begins(R"({"c)"));  // b is behind
  EXPECT_FALSE(reading.begins(R"({"b":true,"c":null,)"));
}

TEST(JsonSchemaTest, AdditionalPropertiesComeLastAndNoKeyTwice) {
  const Reading reading(R"({"type":"object","required":["a"],"properties":{"a":{},"b":{}},
      "additionalProperties":{"type":"integer"}})");
  reading.expectDocuments({R"({"a":1,"x":2})", R"({"a":1,"b":"","x":2,"y":3})", R"({"a":1,"":2})",
                           R"({"a":1,"ab":2,"abc":3})"});
  reading.expectNone({R"({"x":2})", R"({"x":2,"a":1})", R"({"a":1,"x":""})",
                      R"({"a":1,"x":2,"b":3})", R"({"a":1,"x":2,"x":3})", R"({"a":1,"a":2})"});
  // A second spelling would be a second way to the same key.
  EXPECT_FALSE(reading.begins(R"({"a":1,"\u0061)"));
  EXPECT_FALSE(reading.begins(R"({"a":1,"\/)"));
  EXPECT_FALSE(reading.begins(R"({"a":1,"\u000a)"));
  reading.expectDocuments({R"({"a":1,"\n":2,"\u0001":3,"\u001f":4,"\"\\":5})"});
}

TEST(JsonSchemaTest, AdditionalPropertiesMayBeRefusedOrAny) {
  Reading(R"({"properties":{"a":{}},"additionalProperties":false})").expectNone({R"({"b":1})"});
  Reading(R"({"properties":{"a":{}}})").expectNone({R"({"b":1})"});
  Reading(R"({"properties":{"a":{}},"additionalProperties":true})")
      .expectDocuments({R"({"b":[]})", R"({"a":1,"b":{}})", "{}"});
  Reading(R"({"type":"object"})").expectDocuments({R"({"b":[]})", "{}"});
  Reading(R"({"type":"object","additionalProperties":false})").expectNone({R"({"b":1})"});
}

TEST(JsonSchemaTest, RequiredNamesNeedNotBeListed) {
  const Reading reading(R"({"type":"object","properties":{"a":{}},"required":["z"],
      "additionalProperties":{"type":"integer"}})");
  reading.expectDocuments({R"({"z":1})", R"({"a":null,"z":1,"y":2})"});
  reading.expectNone({"{}", R"({"z":true})", R"({"y":2,"z":1})"});
}

TEST(JsonSchemaTest, KeysWithTheSameBeginningAreToldApart) {
  const Reading reading(R"({"properties":{"ab":{"const":1},"a":{"const":2},"abc":{"const":3}}})");
  reading.expectDocuments({R"({"ab":1,"a":2,"abc":3})", R"({"a":2})", R"({"abc":3})"});
  reading.expectNone({R"({"a":1})", R"({"ab":3})"});
}

TEST(JsonSchemaTest, ArraysHaveTheirElements) {
  const Reading reading(R"({"type":"array","items":{"type":"integer"},"minItems":1,"maxItems":3})");
  reading.expectDocuments({"[1]", "[1,2]", "[1, 2, 3]"});
  reading.expectNone({"[]", "[1,2,3,4]", R"(["a"])", "[1,]", "[,1]"});
  EXPECT_FALSE(reading.begins("[1,2,3,"));
  Reading(R"({"type":"array","items":false})").expectNone({"[1]"});
  Reading(R"({"type":"array","maxItems":0})").expectDocuments({"[]"});
  EXPECT_FALSE(Reading(R"({"type":"array","maxItems":0})").begins("[1"));

  const Reading tuple(
      R"({"type":"array","prefixItems":[{"type":"integer"},{"type":"boolean"}],"items":{"type":"null"}})");
  tuple.expectDocuments({"[]", "[1]", "[1,true]", "[1,true,null,null]"});
  tuple.expectNone({"[true]", "[1,null]", "[1,true,1]"});
  Reading(R"({"prefixItems":[{}]})").expectNone({"[1,2]"});
}

TEST(JsonSchemaTest, StringsHaveSoManyCharacters) {
  const Reading reading(R"({"type":"string","minLength":2,"maxLength":3})");
  reading.expectDocuments({R"("ab")", R"("abc")", "\"\xC3\xA9\xF0\x9F\x98\x80\"", R"("\n\u00e9")",
                           R"("\ud83d\ude00\ud83d\ude00")"});
  reading.expectNone({R"("")", R"("a")", R"("abcd")", "\"\xF0\x9F\x98\x80\"", R"("\ud83d\ude00")"});
  EXPECT_FALSE(reading.begins(R"("abcd)"));
  EXPECT_FALSE(reading.begins("\"abc\xC3"));
  EXPECT_FALSE(reading.begins(R"("abc\)"));
}

TEST(JsonSchemaTest, StringsAreWholeCharactersAndEscapes) {
  const Reading reading(R"({"type":"string"})");
  reading.expectDocuments({R"("\"\\\/\b\f\n\r\t\u0000\uABCD\ud7ff\uE000")", "\"\x7F\"",
                           "\"\xED\x9F\xBF\xEE\x80\x80\xF4\x8F\xBF\xBF\xE0\xA0\x80\"",
                           R"("\uD83D\uDE00")"});
  for (const char* bad : {"\"\n",        "\"\t",         "\"\x01",           R"("\a)",
                          R"("\u00g)",   R"("\ude00)",   R"("\uDC)",         R"("\ud83d")",
                          R"("\ud83dx)", R"("\ud83d\n)", R"("\ud83d\u0041)", R"("\ud83d\ud83d)",
                          "\"\x80",      "\"\xC0\x80",   "\"\xC1",           "\"\xE0\x9F",
                          "\"\xED\xA0",  "\"\xF0\x8F",   "\"\xF4\x90",       "\"\xF5",
                          "\"\xFF",      "\"\xC3\"",     "\"\xE2\x82\"",     "\"\xE2\x28"}) {
    EXPECT_FALSE(reading.begins(bad)) << bad;
  }
}

TEST(JsonSchemaTest, NoStringHoldsTheMarkOfACall) {
  const Reading reading(R"({"type":"string"})");
  reading.expectDocuments(
      {R"("<tool_call")", R"("<tool_cal<tool_call")", R"("<tool_cal>")", R"("\u003ctool_call>")"});
  EXPECT_FALSE(reading.begins(R"("<tool_call>)"));
  EXPECT_FALSE(reading.begins(R"("<tool_c<tool_call>)"));
  EXPECT_FALSE(Reading(R"({"type":"object"})").begins(R"({"<tool_call>)"));
  Reading(R"({"enum":["a<tool_call>"]})").expectDocuments({R"("a\u003ctool_call>")"});
  Reading(R"({"properties":{"<tool_call>":{}}})").expectDocuments({R"({"\u003ctool_call>":1})"});
}

TEST(JsonSchemaTest, NumbersHaveBoundedDigits) {
  const Reading reading(R"({"type":"number"})");
  reading.expectDocuments({"0", "-0", "-1.5", "1e5", "1E+05", "2.5e-12", "999999999999999999",
                           "0.00000000000001", "12345678901234.5"});
  for (const char* bad :
       {"01", "-a", "1.e", ".5", "+1", "1e100", "1e+100", "1234567890123456789",
        "0.000000000000001", "12345678901234.56", "123456789012345.", "--1", "1.2.3", "1e1.5"}) {
    EXPECT_FALSE(reading.begins(bad)) << bad;
  }
  reading.expectNone({"1.", "-", "1e", "1e+"});
  const Reading integers(R"({"type":"integer"})");
  integers.expectDocuments({"0", "-7", "999999999999999999"});
  for (const char* bad : {"-0", "1.", "1e", "1234567890123456789"}) {
    EXPECT_FALSE(integers.ends(bad)) << bad;
  }
}

TEST(JsonSchemaTest, BoundsOfNumbersHold) {
  const Reading reading(R"({"type":"integer","minimum":-12,"maximum":105})");
  for (int i = -200; i <= 1200; ++i) {
    EXPECT_EQ(reading.ends(std::to_string(i)), i >= -12 && i <= 105) << i;
  }
  EXPECT_FALSE(reading.begins("-13"));
  EXPECT_FALSE(reading.begins("106"));
  EXPECT_TRUE(reading.begins("10"));
  Reading(R"({"type":"integer","exclusiveMinimum":2,"exclusiveMaximum":4})").expectDocuments({"3"});
  Reading(R"({"type":"integer","exclusiveMinimum":2,"exclusiveMaximum":4})").expectNone({"2", "4"});
  Reading(R"({"type":"integer","minimum":1.5,"maximum":3.5})").expectDocuments({"2", "3"});
  Reading(R"({"type":"integer","minimum":1.5,"maximum":3.5})").expectNone({"1", "4"});
  Reading(R"({"type":"integer","minimum":-3.5,"maximum":-1.5})").expectDocuments({"-2", "-3"});
  Reading(R"({"type":"integer","minimum":-3.5,"maximum":-1.5})").expectNone({"-1", "-4"});
  Reading(R"({"type":"integer","minimum":1e2,"maximum":12e1})").expectDocuments({"100", "120"});
  Reading(R"({"type":"integer","minimum":1e2,"maximum":12e1})").expectNone({"99", "121"});
  Reading(R"({"type":"integer","minimum":-1e30,"maximum":1e-30})").expectDocuments({"0", "-5"});
  Reading(R"({"type":"integer","minimum":-1e30,"maximum":1e-30})").expectNone({"1"});

  const Reading share(R"({"type":"number","minimum":0,"maximum":1})");
  share.expectDocuments({"0", "1", "0.5", "1.0", "1.000", "0.0", "0.99999999999999"});
  share.expectNone({"1.00000000000001", "2", "-0.5", "-0", "1e0", "0."});
  EXPECT_FALSE(share.begins("1.1"));
  const Reading open(R"({"type":"number","exclusiveMinimum":0.25,"exclusiveMaximum":2.5})");
  open.expectDocuments({"0.25000000000001", "2.49999999999999", "1"});
  open.expectNone({"0.25", "2.5", "0.250", "3"});
  // So many digits behind the point cannot be written here.
  EXPECT_FALSE(Reading(R"({"minimum":123456789012345.1,"maximum":123456789012346})")
                   .begins("123456789012345"));
  const Reading negative(R"({"type":"number","minimum":-1.25,"maximum":-0.5})");
  negative.expectDocuments({"-1.25", "-0.5", "-1"});
  negative.expectNone({"-1.26", "-0.49", "0", "-2"});
}

// By random bytes within random bounds.
TEST(JsonSchemaTest, NumbersThatHaveBegunCanBeEndedWithinTheirBounds) {
  std::mt19937 random(6);
  const auto decimal = [&] {
    std::string text = std::to_string(static_cast<int>(random() % 2'000) - 1'000);
    return random() % 2 == 0 ? text : text + "." + std::to_string(random() % 1'000'000);
  };
  for (int i = 0; i < 300; ++i) {
    std::string low = decimal();
    std::string high = i % 3 == 0 ? low : decimal();
    if (std::stold(low) > std::stold(high)) {
      low.swap(high);
    }
    const std::string type = i % 2 == 0 ? "number" : "integer";
    std::string schema = R"({"type":")";
    schema.append(type).append(R"(","minimum":)").append(low);
    schema.append(R"(,"maximum":)").append(high).append("}");
    std::shared_ptr<const Grammar> grammar;
    const kel::Status status = compileSchema(schema, grammar);
    if (!status.ok()) {
      EXPECT_EQ(type, "integer") << low << " " << high;
      EXPECT_GT(std::ceil(std::stold(low)), std::floor(std::stold(high)));
      continue;
    }
    GrammarMachine machine(*grammar, true);
    GrammarMachine::Places places = machine.begin(false);
    std::string text;
    for (;;) {
      std::string follows;
      GrammarMachine::Places next;
      for (const char c : std::string_view("-.0123456789+eE")) {
        machine.step(places, static_cast<uint8_t>(c), next);
        follows += next.empty() ? std::string() : std::string(1, c);
      }
      if (machine.isComplete(places)) {
        EXPECT_GE(std::stold(text), std::stold(low)) << text;
        EXPECT_LE(std::stold(text), std::stold(high)) << text;
        if (follows.empty()) {
          break;
        }
      }
      ASSERT_FALSE(follows.empty()) << text << " in " << low << " " << high;
      text += follows[random() % follows.size()];
      machine.step(places, static_cast<uint8_t>(text.back()), next);
      places = next;
    }
  }
}

TEST(JsonSchemaTest, ListedValuesAreTheOnlyOnes) {
  const Reading reading(R"({"enum":["a","ab",1,12,null,true,{"x" : [1,2]},"\u00e9\/\n"]})");
  reading.expectDocuments(
      {R"("a")", R"("ab")", "1", "12", "null", "true", R"({"x": [1, 2]})", "\"\xC3\xA9/\\n\""});
  reading.expectNone({R"("b")", R"("abc")", "2", "123", "false", R"({"x":[1,2]})", "11"});
  Reading(R"({"const":{"k":"v"}})").expectDocuments({R"({"k": "v"})"});
  Reading(R"({"type":"integer","enum":[1,"a",2.5]})").expectDocuments({"1"});
  Reading(R"({"type":"integer","enum":[1,"a",2.5]})").expectNone({R"("a")", "2.5"});
}

TEST(JsonSchemaTest, AlternativesAreFollowedUntilTheTextTells) {
  const Reading reading(R"({"anyOf":[
      {"type":"object","properties":{"k":{"const":"a"},"x":{"type":"integer"}},"required":["k","x"]},
      {"type":"object","properties":{"k":{"const":"ab"},"x":{"type":"string"}},"required":["k","x"]},
      {"const":"u"},{"enum":["v",3]},{"type":"array","items":{"type":"null"}}]})");
  reading.expectDocuments(
      {R"({"k":"a","x":1})", R"({"k":"ab","x":"s"})", R"("u")", R"("v")", "3", "[null]"});
  reading.expectNone({R"({"k":"a","x":"s"})", R"({"k":"ab","x":1})", R"("w")", "[1]"});
}

TEST(JsonSchemaTest, OneOfIsAdmittedWhereNoValueIsInTwo) {
  for (const char* schema :
       {R"({"oneOf":[{"type":"string"},{"type":["integer","null"]}]})",
        R"({"oneOf":[{"const":"a"},{"enum":["b",1]}]})",
        R"({"oneOf":[{"type":"object","properties":{"t":{"const":"a"}},"required":["t"]},
                        {"type":"object","properties":{"t":{"const":"b"}},"required":["t"]}]})"}) {
    EXPECT_EQ(errorOf(schema), "") << schema;
  }
  for (const char* schema : {R"({"oneOf":[{"type":"integer"},{"type":"number"}]})",
                             R"({"oneOf":[{"const":1},{"const":1.0}]})",
                             R"({"oneOf":[{"const":"a"},{"type":"string"}]})",
                             R"({"oneOf":[{"type":"string"},{"properties":{}}]})",
                             R"({"oneOf":[{"type":"object","properties":{"t":{"const":"a"}}},
                        {"type":"object","properties":{"t":{"const":"b"}}}]})"}) {
    EXPECT_EQ(errorOf(schema),
              "schema: \"oneOf\" of schemas 0 and 1, which may share values, is not supported, "
              "at #/oneOf")
        << schema;
  }
}

TEST(JsonSchemaTest, ReferencesLeadAnywhereInTheSchema) {
  const Reading tree(R"({"$ref":"#/$defs/node","$defs":{"node":{"type":"object","required":["v"],
      "properties":{"v":{"type":"integer"},"next":{"$ref":"#/$defs/node"}}}}})");
  tree.expectDocuments({R"({"v":1})", R"({"v":1,"next":{"v":2,"next":{"v":3}}})"});
  tree.expectNone({R"({"v":1,"next":{}})"});
  Reading(R"({"type":"array","items":{"anyOf":[{"$ref":"#"},{"type":"null"}]}})")
      .expectDocuments({"[[[null],[]],null]"});
  Reading(R"({"definitions":{"a/b~c d":{"const":1}},"$ref":"#/definitions/a~1b~0c%20d"})")
      .expectDocuments({"1"});
  Reading(R"({"allOf":[{"type":"null"}]})").expectDocuments({"null"});
}

TEST(JsonSchemaTest, WhiteSpaceIsBounded) {
  const Reading reading(R"({"type":"object"})");
  reading.expectDocuments({R"({"a": 1, "b": [1, 2]})",
                           "{\n    \"a\": 1,\n\"b\": [\n        1\n]\n}", "{\n}",
                           R"({"a":1,"b":2})"});
  for (const char* bad : {" ", "\n", "{ ", "{\n\n", "{\n     ", R"({"a" )", R"({"a":  )",
                          "{\"a\":\n", R"({"a":1 )", R"({"a":1,  )", "{\"a\":1, \n", "{\"a\":1\n,",
                          "{\"a\":[\n         ", "{}\n", "{} ", "{\t"}) {
    EXPECT_FALSE(reading.begins(bad)) << bad;
  }
}

TEST(JsonSchemaTest, LineFeedsBehindAPartStandBeforeTheEndAlone) {
  EXPECT_FALSE(Reading(R"({"required":["a","b"]})").begins("{\"a\":1\n"));
  EXPECT_FALSE(Reading(R"({"minItems":2})").begins("[1\n"));
  EXPECT_TRUE(Reading(R"({"minItems":2})").begins("[1,2\n"));
}

TEST(JsonSchemaTest, DocumentsNestToALimit) {
  const Reading reading("true");
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(reading.ends(nested(64)));
  EXPECT_FALSE(reading.begins(nested(65).substr(0, 65)));
  // Where two more levels are needed for each, an end has to stay in reach.
  const Reading chain(R"({"type":"object","required":["n"],"properties":
      {"n":{"anyOf":[{"$ref":"#"},{"type":"array","items":{"type":"array"},"minItems":1}]}}})");
  std::string text;
  for (int i = 0; i < 61; ++i) {
    text += R"({"n":)";
  }
  EXPECT_TRUE(chain.begins(text + "{"));
  EXPECT_FALSE(chain.begins(text + R"({"n":{)"));
  EXPECT_TRUE(chain.ends(text + R"({"n":[[]]})" + std::string(61, '}')));
}

TEST(JsonSchemaTest, ElementsThatDoNotFitAreNotBegun) {
  const Reading reading(R"({"prefixItems":[{"anyOf":[{"$ref":"#"},{"type":"null"}]},
      {"type":"array","items":{"type":"array"},"minItems":1}]})");
  EXPECT_TRUE(reading.begins(std::string(62, '[') + "null,[[]"));
  EXPECT_TRUE(reading.begins(std::string(63, '[') + "null]"));
  EXPECT_FALSE(reading.begins(std::string(63, '[') + "null,"));
}

TEST(JsonSchemaTest, KeywordsThatAreNotSupportedAreNamedWithTheirPlace) {
  for (const char* keyword :
       {"pattern", "not", "if", "uniqueItems", "multipleOf", "patternProperties", "propertyNames",
        "contains", "minProperties", "dependentRequired", "nullable", "$anchor", "unknown"}) {
    EXPECT_EQ(errorOf(R"({"properties":{"a":{"items":{")" + std::string(keyword) + R"(":"x"}}}})"),
              "schema: \"" + std::string(keyword) +
                  "\" is not supported, at #/properties/a/items/" + keyword);
  }
  EXPECT_EQ(errorOf(R"({"properties":{"a/b~c":{"not":{}}}})"),
            "schema: \"not\" is not supported, at #/properties/a~1b~0c/not");
  EXPECT_EQ(errorOf(R"({"$ref":"#","type":"null"})"),
            "schema: \"type\" beside \"$ref\" is not supported, at #/type");
  EXPECT_EQ(errorOf(R"({"anyOf":[{}],"minimum":1})"),
            "schema: \"minimum\" beside \"anyOf\" is not supported, at #/minimum");
  EXPECT_EQ(errorOf(R"({"enum":[1],"minimum":1})"),
            "schema: \"minimum\" beside \"enum\" is not supported, at #/minimum");
  EXPECT_EQ(errorOf(R"({"allOf":[{},{}]})"),
            "schema: \"allOf\" of more than one schema is not supported, at #/allOf");
  for (const char* keyword : {"title", "description", "default", "examples", "format", "$comment",
                              "$id", "$schema", "deprecated", "readOnly", "writeOnly"}) {
    EXPECT_EQ(errorOf(R"({")" + std::string(keyword) + R"(":"x","type":"null"})"), "") << keyword;
  }
}

TEST(JsonSchemaTest, WhatIsNoSchemaIsRefused) {
  EXPECT_EQ(errorOf("{"), "schema: it is not JSON");
  EXPECT_EQ(errorOf(""), "schema: it is not JSON");
  EXPECT_EQ(errorOf("3"), "schema: a schema is an object, true or false, at #");
  EXPECT_EQ(errorOf(R"({"items":3})"), "schema: a schema is an object, true or false, at #/items");
  EXPECT_EQ(errorOf(R"({"type":"text"})"), "schema: \"type\" does not name a type, at #/type");
  EXPECT_EQ(errorOf(R"({"type":["null",1]})"),
            "schema: \"type\" does not name a type, at #/type/1");
  EXPECT_EQ(errorOf(R"({"properties":[]})"),
            "schema: \"properties\" is no object, at #/properties");
  EXPECT_EQ(errorOf(R"({"required":"a"})"),
            "schema: \"required\" is no list of names, at #/required");
  EXPECT_EQ(errorOf(R"({"required":[1]})"),
            "schema: \"required\" is no list of names, at #/required/0");
  EXPECT_EQ(errorOf(R"({"items":[{}]})"),
            "schema: \"items\" is a list, which \"prefixItems\" has to be, at #/items");
  EXPECT_EQ(errorOf(R"({"prefixItems":{}})"),
            "schema: \"prefixItems\" is no list of schemas, at #/prefixItems");
  EXPECT_EQ(errorOf(R"({"anyOf":[]})"), "schema: \"anyOf\" is no list of schemas, at #/anyOf");
  EXPECT_EQ(errorOf(R"({"enum":1})"), "schema: \"enum\" is no list of values, at #/enum");
  EXPECT_EQ(errorOf(R"({"minLength":-1})"),
            "schema: \"minLength\" is no whole number of up to nine digits, at #/minLength");
  EXPECT_EQ(errorOf(R"({"maxItems":1000000000})"),
            "schema: \"maxItems\" is no whole number of up to nine digits, at #/maxItems");
  EXPECT_EQ(errorOf(R"({"minimum":true})"), "schema: \"minimum\" is no number, at #/minimum");
  EXPECT_EQ(errorOf(R"({"$ref":"#/a"})"),
            "schema: \"$ref\" leads to no place in the schema, at #/$ref");
  EXPECT_EQ(errorOf(R"({"$ref":"https://example.org/s"})"),
            "schema: \"$ref\" leads to no place in the schema, at #/$ref");
}

TEST(JsonSchemaTest, SchemasWithoutValuesAreRefused) {
  const std::string message = "schema: no value of up to 64 levels satisfies it";
  for (const char* schema :
       {"false", R"({"enum":[]})", R"({"type":[]})",
        R"({"type":"integer","minimum":3,"maximum":2})", R"({"type":"integer","minimum":1e18})",
        R"({"type":"string","minLength":3,"maxLength":2})",
        R"({"type":"array","minItems":2,"maxItems":1})",
        R"({"type":"array","items":false,"minItems":1})",
        R"({"type":"array","prefixItems":[{}],"minItems":2})",
        R"({"required":["a"],"additionalProperties":false})",
        R"({"required":["a"],"properties":{"a":{"$ref":"#"}}})"}) {
    EXPECT_EQ(errorOf(schema), message) << schema;
  }
  EXPECT_EQ(errorOf(R"({"properties":{"a":false,"b":{}}})"), "");
  EXPECT_FALSE(Reading(R"({"properties":{"a":false,"b":{}}})").begins(R"({"a)"));
  Reading(R"({"anyOf":[false,{"type":"null"}]})").expectDocuments({"null"});
}

TEST(JsonSchemaTest, SchemasThatReferToNothingButThemselvesAreRefused) {
  EXPECT_EQ(errorOf(R"({"$ref":"#"})"), "schema: a schema refers to nothing but itself, at #");
  const std::string error = errorOf(
      R"({"$ref":"#/$defs/a","$defs":{"a":{"anyOf":[{"type":"null"},{"$ref":"#/$defs/b"}]},
          "b":{"$ref":"#/$defs/a"}}})");
  EXPECT_TRUE(error.starts_with("schema: a schema refers to nothing but itself, at #/$defs/"))
      << error;
}

TEST(JsonSchemaTest, LimitsAreNamed) {
  EXPECT_EQ(errorOf(std::string(kMaxSchemaBytes + 1, ' ')),
            "schema: it has more than 262144 bytes");
  const auto nested = [](size_t depth) {
    std::string text;
    for (size_t i = 1; i < depth; ++i) {
      text += R"({"items":)";
    }
    return text + "{}" + std::string(depth - 1, '}');
  };
  EXPECT_EQ(errorOf(nested(64)), "");
  EXPECT_EQ(errorOf(nested(65)), "schema: it is more than 64 levels deep");
  std::string many = R"({"prefixItems":[{})";
  for (size_t i = 0; i < kMaxSchemaNodes; ++i) {
    many += ",{}";
  }
  EXPECT_EQ(errorOf(many + "]}"), "schema: there are more than 20000 schemas in it");
  std::string alternatives = R"({"properties":{"a":{"anyOf":[{"type":"string"})";
  std::string values = alternatives;
  for (size_t i = 0; i < kMaxSchemaAlternatives; ++i) {
    alternatives += R"(,{"type":"array"})";
    values += R"(,{"const":)" + std::to_string(i) + "}";
  }
  EXPECT_EQ(errorOf(alternatives + "]}}}"),
            "schema: there are more than 128 alternatives, at #/properties/a");
  EXPECT_EQ(errorOf(values + "]}}}"), "");
}

TEST(JsonSchemaTest, ObjectsHaveABoundedNumberOfFreeKeys) {
  const Reading reading(R"({"type":"object"})");
  std::string text = "{";
  for (uint32_t i = 0; i < kMaxAdditional; ++i) {
    text += (i == 0 ? "\"" : ",\"") + std::to_string(i) + "\":0";
  }
  EXPECT_TRUE(reading.ends(text + "}"));
  EXPECT_FALSE(reading.begins(text + ","));
}

// Every level doubles the ways to read the text.
TEST(JsonSchemaTest, ManyWaysToReadATextAreFollowedUpToALimit) {
  std::shared_ptr<const Grammar> grammar;
  const kel::Status status = compileSchema(
      R"({"anyOf":[{"type":"array","items":{"$ref":"#"},"maxItems":1},
          {"type":"array","items":{"$ref":"#"},"maxItems":2},{"type":"null"}]})",
      grammar);
  ASSERT_TRUE(status.ok()) << status.message;
  GrammarMachine machine(*grammar, true);
  GrammarMachine::Places places = machine.begin(false);
  GrammarMachine::Places next;
  for (const char c : std::string(20, '[') + "null" + std::string(20, ']')) {
    machine.step(places, static_cast<uint8_t>(c), next);
    places.swap(next);
    ASSERT_FALSE(places.empty());
    ASSERT_LE(places.size(), GrammarMachine::kMaxPlaces);
  }
  EXPECT_TRUE(machine.isComplete(places));
}

TEST(JsonSchemaTest, LongListsOfValuesAndPropertiesAreRead) {
  std::string values = R"({"enum":[0)";
  std::string properties = R"({"additionalProperties":{"type":"null"},"properties":{"p0":{})";
  for (int i = 1; i < 5000; ++i) {
    values += "," + std::to_string(i);
    properties += R"(,"p)" + std::to_string(i) + R"(":{"const":)" + std::to_string(i) + "}";
  }
  const Reading one(values + "]}");
  one.expectDocuments({"0", "4999", "500"});
  one.expectNone({"5000", "00"});
  const Reading keys(properties + "}}");
  keys.expectDocuments({R"({"p17":17,"p4999":4999})", R"({"p17":17,"q":null})"});
  keys.expectNone({R"({"p17":18})", R"({"p18":18,"p17":17})", R"({"q":null,"p17":17})"});
}

TEST(JsonSchemaTest, AnyObjectIsAnObjectAndNothingElse) {
  const std::shared_ptr<const Grammar> grammar = anyObjectGrammar();
  ASSERT_NE(grammar, nullptr);
  GrammarMachine machine(*grammar, true);
  GrammarMachine::Places next;
  machine.step(machine.begin(false), '{', next);
  EXPECT_FALSE(next.empty());
  machine.step(machine.begin(false), '[', next);
  EXPECT_TRUE(next.empty());
}

}  // namespace
}  // namespace engine
