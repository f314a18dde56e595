#include "host/serve/json_fields.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <string>

namespace zym {
namespace {

constexpr size_t kDepth = 8;

std::string bodyError(const std::string& text) {
  ApiError error;
  const bool isObject = isJsonObject(text, kDepth, error);
  EXPECT_EQ(error.status == 0, isObject);
  return error.message;
}

// Reads an object and finishes it.
ApiError errorOfReading(const std::string& json, const std::function<void(Fields&)>& read) {
  ApiError error;
  Fields fields(json, "", error);
  read(fields);
  fields.finish();
  return error;
}

TEST(JsonObjects, AreTold) {
  EXPECT_EQ("", bodyError(R"( {"a": [1, {"b": "]]]]]]]]]]]"}]} )"));
  EXPECT_EQ("", bodyError(R"({"a": 1, "a": 2})"));
  for (const char* text : {"", "{", "{\"a\": 1,}", "{\"a\": \"\\ud800\"}", "{} {}", "nope"}) {
    EXPECT_EQ("the body is not valid JSON", bodyError(text)) << text;
  }
  for (const char* text : {"[1]", "\"a\"", "1", "null"}) {
    EXPECT_EQ("the body must be a JSON object", bodyError(text)) << text;
  }
  EXPECT_EQ("the body is not valid UTF-8", bodyError("{\"a\": \"\xFF\"}"));
}

TEST(JsonObjects, NestUpToADepth) {
  EXPECT_EQ("", bodyError(R"({"a": [[[[[[[1]]]]]]]})"));
  EXPECT_EQ("the body is nested deeper than 8 levels", bodyError(R"({"a": [[[[[[[[1]]]]]]]]})"));
  EXPECT_EQ("the body is nested deeper than 8 levels", bodyError(std::string(1'000'000, '[')));
  EXPECT_EQ(2U, jsonDepth(R"({"[[[[": "\"[[[[", "b": []})"));
}

TEST(JsonItems, AreCountedWithoutCutting) {
  EXPECT_EQ(0U, jsonItems("[]"));
  EXPECT_EQ(0U, jsonItems(" { } "));
  EXPECT_EQ(1U, jsonItems("[0]"));
  EXPECT_EQ(1U, jsonItems("[\",\\\",\"]"));
  EXPECT_EQ(1U, jsonItems("[[1, 2]]"));
  EXPECT_EQ(2U, jsonItems(R"({"a,b": [1, 2], "c": ","})"));
}

TEST(Fields, GiveWhatIsThere) {
  ApiError error;
  const std::string json =
      R"({"s": "a\u00e9", "b": true, "x": -0.5, "n": 7, "e": 1e3, "o": {"k": 1}, "a": [1, [2]],)"
      R"( "none": null, "twice": 1, "twice": 2})";
  Fields fields(json, "", error);
  EXPECT_EQ("aé", fields.string("s"));
  EXPECT_EQ(true, fields.boolean("b"));
  EXPECT_EQ(-0.5, fields.number("x", -1, 1));
  EXPECT_EQ(7, fields.whole("n", 0, 7));
  EXPECT_EQ(1000, fields.whole("e", 0, 1000));
  EXPECT_EQ(R"({"k": 1})", fields.object("o"));
  const auto elements = fields.array("a", 2);
  ASSERT_TRUE(elements);
  EXPECT_EQ((std::vector<std::string_view>{"1", "[2]"}), *elements);
  EXPECT_EQ(std::nullopt, fields.string("none"));
  EXPECT_FALSE(fields.has("none"));
  EXPECT_EQ(std::nullopt, fields.string("absent"));
  EXPECT_EQ(2, fields.whole("twice", 0, 9));
  fields.finish();
  EXPECT_FALSE(error) << error.message;
}

TEST(Fields, OfAWrongKindAreNamed) {
  const auto wrong = [](const std::string& value, const std::function<void(Fields&)>& read) {
    const ApiError error = errorOfReading(R"({"k": )" + value + "}", read);
    EXPECT_EQ(400, error.status) << value;
    EXPECT_EQ("k", error.param);
    return error.message;
  };
  static constexpr std::array<std::string_view, 2> kWords = {"one", "two"};
  EXPECT_EQ("k must be a string", wrong("1", [](Fields& f) { f.string("k"); }));
  EXPECT_EQ("k must be true or false", wrong("\"true\"", [](Fields& f) { f.boolean("k"); }));
  EXPECT_EQ("k must be an object", wrong("[]", [](Fields& f) { f.object("k"); }));
  EXPECT_EQ("k must be an array", wrong("{}", [](Fields& f) { f.array("k", 1); }));
  EXPECT_EQ("k has more than 1 elements", wrong("[1, 2]", [](Fields& f) { f.array("k", 1); }));
  EXPECT_EQ("k must be one of: one, two", wrong("\"six\"", [](Fields& f) { f.word("k", kWords); }));
  for (const char* value : {"\"0.5\"", "1.01", "-0.1", "true"}) {
    EXPECT_EQ("k must be a number from 0 to 1",
              wrong(value, [](Fields& f) { f.number("k", 0, 1); }))
        << value;
  }
  for (const char* value : {"\"1\"", "4", "-4", "1.5", "1e300", "99999999999999999999"}) {
    EXPECT_EQ("k must be a whole number from -3 to 3",
              wrong(value, [](Fields& f) { f.whole("k", -3, 3); }))
        << value;
  }
}

TEST(Fields, ThatNobodyAskedForAreNamed) {
  static constexpr std::array<std::string_view, 1> kHarmless = {"fine"};
  const std::string json = R"({"fine": 1, "nothing": null, "known": 1, "odd": 1})";
  ApiError error;
  Fields fields(json, "outer", error);
  EXPECT_EQ(1, fields.whole("known", 0, 1));
  fields.finish(kHarmless);
  EXPECT_EQ("outer.odd is not known here", error.message);
  EXPECT_EQ("outer.odd", error.param);
}

TEST(Fields, ThatAreMissingOrUnwantedAreNamed) {
  EXPECT_EQ("k is required", errorOfReading("{}", [](Fields& f) { f.require("k"); }).message);
  EXPECT_EQ("k is required",
            errorOfReading(R"({"k": null})", [](Fields& f) { f.require("k"); }).message);
  EXPECT_EQ("k is odd",
            errorOfReading(R"({"k": 1})", [](Fields& f) { f.refuse("k", "is odd"); }).message);
  EXPECT_EQ(0, errorOfReading(R"({"k": null})", [](Fields& f) { f.refuse("k", "is odd"); }).status);
}

TEST(Fields, FirstFaultCounts) {
  const ApiError error = errorOfReading(R"({"a": 1, "b": 1})", [](Fields& f) {
    f.string("b");
    EXPECT_EQ(std::nullopt, f.whole("a", 0, 9)) << "nothing is given after a fault";
    f.string("a");
  });
  EXPECT_EQ("b must be a string", error.message);
}

TEST(Fields, AreNotManyInOneObject) {
  std::string json = "{";
  for (int i = 0; i < 600; ++i) {
    json += (i > 0 ? ", \"" : "\"") + std::to_string(i) + "\": 1";
  }
  EXPECT_EQ("the body has more than 512 fields",
            errorOfReading(json + "}", [](Fields&) {}).message);
}

TEST(Fields, LongNamesAreShownInPart) {
  const ApiError error =
      errorOfReading("{\"" + std::string(10'000, 'x') + "\": 1}", [](Fields&) {});
  EXPECT_EQ(std::string(64, 'x'), error.param);
}

}  // namespace
}  // namespace zym
