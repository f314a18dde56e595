// Models, tokens, and requests that no interface takes.
#include "host/serve/model_list_api.h"

#include <gtest/gtest.h>

#include <string>

#include "host/serve/api_output.h"
#include "tests/host/serve/fake_service.h"
#include "tests/support/json_text.h"

namespace zym {
namespace {

using kel::test::parseOrderedJson;
using namespace testing_support;

const std::string kSmall =
    R"({"id":"small","object":"model","created":1700000000,"owned_by":"zym","type":"model",)"
    R"("display_name":"small","created_at":"2023-11-14T22:13:20Z","context_length":64})";

class ModelListApi : public testing::Test {
 protected:
  std::string paramOf(const std::string& path, const std::string& body) {
    const auto exchange = service.ask("POST", path, body);
    EXPECT_EQ(400, exchange->status) << body;
    return parseOrderedJson(exchange->written)["error"]["param"].dump();
  }

  FakeService service;
};

TEST_F(ModelListApi, ListsEveryName) {
  const auto exchange = service.ask("GET", "/v1/models", "");
  EXPECT_EQ(200, exchange->status);
  const Json body = parseOrderedJson(exchange->written);
  EXPECT_EQ("list", body["object"]);
  ASSERT_EQ(2U, body["data"].size());
  EXPECT_EQ(kSmall, body["data"][0].dump());
  EXPECT_EQ("other-name", body["data"][1]["id"]);
  EXPECT_EQ(R"([{"name":"small","model":"small"},{"name":"other-name","model":"other-name"}])",
            body["models"].dump());
  EXPECT_EQ(false, body["has_more"]);
}

TEST_F(ModelListApi, GivesOneByItsName) {
  EXPECT_EQ(kSmall, service.ask("GET", "/v1/models/small", "")->written);
  EXPECT_EQ("other-name",
            parseOrderedJson(service.ask("GET", "/v1/models/other-name", "")->written)["id"]);
  EXPECT_EQ("", service.routes.find("GET", "/v1/models/larger").allowed);
}

TEST_F(ModelListApi, TokenizesAndBack) {
  const int32_t a = kel::test::chatId("a");
  const int32_t space = kel::test::chatId("\u2581");
  const auto ids = [](const std::vector<int32_t>& list) { return Json(list).dump(); };
  EXPECT_EQ(R"({"tokens":)" + ids({a, space, a + 1}) + R"(,"count":3})",
            service.ask("POST", "/tokenize", R"({"text": "a b"})")->written);
  EXPECT_EQ(
      R"({"tokens":[101],"count":1})",
      service.ask("POST", "/tokenize", R"({"text": "<tool_call>", "special": true})")->written);
  EXPECT_EQ(11,
            parseOrderedJson(
                service.ask("POST", "/tokenize", R"({"text": "<tool_call>"})")->written)["count"])
      << "plain text by itself";
  EXPECT_EQ(
      R"({"text":"a b<tool_call>"})",
      service.ask("POST", "/detokenize", R"({"tokens": )" + ids({a, space, a + 1, kCallId}) + "}")
          ->written);
}

TEST_F(ModelListApi, RefusedTokens) {
  EXPECT_EQ("\"text\"", paramOf("/tokenize", "{}"));
  EXPECT_EQ("\"text\"", paramOf("/tokenize", R"({"text": 1})"));
  EXPECT_EQ("\"odd\"", paramOf("/tokenize", R"({"text": "", "odd": 1})"));
  EXPECT_EQ("\"tokens\"", paramOf("/detokenize", "{}"));
  EXPECT_EQ("\"tokens\"", paramOf("/detokenize", R"({"tokens": "1"})"));
  EXPECT_EQ("\"tokens\"", paramOf("/detokenize", R"({"tokens": [120]})"));
  EXPECT_EQ("null", paramOf("/detokenize", "]"));
}

TEST_F(ModelListApi, TooManyTokens) {
  std::string tokens = "[0";
  for (int i = 0; i < (1 << 20); ++i) {
    tokens += ",0";
  }
  EXPECT_EQ("\"tokens\"", paramOf("/detokenize", R"({"tokens": )" + tokens + "]}"));
}

}  // namespace
}  // namespace zym
