#include "convert/json_reader.h"

#include <gtest/gtest.h>

namespace {

using nlohmann::json;

std::string message(const std::string& text) {
  json value;
  return kel::convert::parseJson(text, "file", value).message;
}

std::string nested(int depth) {
  return std::string(static_cast<size_t>(depth), '[') +
         std::string(static_cast<size_t>(depth), ']');
}

TEST(JsonReader, SoundTextIsParsed) {
  json value;
  ASSERT_TRUE(kel::convert::parseJson(R"({"a": [1, {"a": 2}], "b": -3})", "file", value).ok());
  EXPECT_EQ(2, value["a"][1]["a"]);
  EXPECT_EQ(nullptr, kel::convert::jsonMember(value, "c"));
  EXPECT_EQ(nullptr, kel::convert::jsonMember(value["a"], "c"));
  EXPECT_EQ(std::nullopt, kel::convert::jsonUnsigned(value["b"]));
  EXPECT_EQ(1U, kel::convert::jsonUnsigned(value["a"][0]));
}

TEST(JsonReader, FaultsAreStatuses) {
  EXPECT_EQ("file is not valid JSON (near byte 1)", message(""));
  EXPECT_EQ("file is not valid JSON (near byte 4)", message("[1,]"));
  EXPECT_EQ("file is not valid JSON (near byte 3)", message("\"a\xFF\""));
  EXPECT_EQ("file holds the key \"a\" twice", message(R"({"b": {"a": 1, "a": 2}})"));
  EXPECT_EQ("", message(R"([{"a": 1}, {"a": 2}])"));
  EXPECT_NE("", message("1e999999"));
}

TEST(JsonReader, NestingIsBounded) {
  EXPECT_EQ("", message(nested(32)));
  EXPECT_EQ("file is nested too deeply", message(nested(40)));
  EXPECT_EQ("file is nested too deeply", message(std::string(1'000'000, '[')));
}

}  // namespace
