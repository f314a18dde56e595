// What programs read of an error.
#include "host/serve/api_error.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace zym {
namespace {

TEST(ApiError, FormIsThatOfTheInterfaceAtThePath) {
  for (const char* path : {"/v1/messages", "/v1/messages/count_tokens", "/v1/messages/nothing"}) {
    EXPECT_EQ(errorFormOf(path), ErrorForm::Messages) << path;
  }
  for (const char* path :
       {"", "/", "/v1/messagesque", "/v1/chat/completions", "/v2/v1/messages", "/v1/models"}) {
    EXPECT_EQ(errorFormOf(path), ErrorForm::Completions) << path;
  }
}

TEST(ApiError, BodyOfEachForm) {
  const ApiError error{400, "top_p is no number", "top_p", "wrong"};
  EXPECT_EQ(jsonText(errorBody(ErrorForm::Completions, error)),
            R"({"error":{"message":"top_p is no number","type":"invalid_request_error",)"
            R"("param":"top_p","code":"wrong"}})");
  EXPECT_EQ(jsonText(errorBody(ErrorForm::Messages, error)),
            R"({"type":"error","error":{"type":"invalid_request_error",)"
            R"("message":"top_p is no number"}})");
  EXPECT_EQ(jsonText(errorBody(ErrorForm::Completions, {503, "full \xff", {}})),
            "{\"error\":{\"message\":\"full \xef\xbf\xbd\",\"type\":\"server_error\","
            "\"param\":null,\"code\":null}}");
}

TEST(ApiError, TypesAreThoseThatTheClientsOfEachInterfaceKnow) {
  struct Case {
    int status;
    const char* completions;
    const char* messages;
  };
  constexpr const char* kInvalid = "invalid_request_error";
  for (const Case& one :
       {Case{400, kInvalid, kInvalid}, Case{401, kInvalid, "authentication_error"},
        Case{403, kInvalid, "permission_error"}, Case{404, kInvalid, "not_found_error"},
        Case{405, kInvalid, kInvalid}, Case{408, kInvalid, "timeout_error"},
        Case{413, kInvalid, "request_too_large"}, Case{431, kInvalid, kInvalid},
        Case{500, "server_error", "api_error"}, Case{503, "server_error", "overloaded_error"}}) {
    const ApiError error{one.status, "", {}};
    EXPECT_EQ(errorBody(ErrorForm::Completions, error)["error"]["type"], one.completions)
        << one.status;
    EXPECT_EQ(errorBody(ErrorForm::Messages, error)["error"]["type"], one.messages) << one.status;
  }
}

}  // namespace
}  // namespace zym
