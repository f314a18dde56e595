// Sampling, reasoning, stop strings and forms, as requests of a chat state them.
#include "host/serve/request_fields.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "host/serve/chat_api.h"
#include "tests/host/serve/fake_service.h"

namespace zym {
namespace {

using namespace testing_support;

class RequestFields : public testing::Test {
 protected:
  RequestFields() : served(service.services()) {}

  GenerationRequest read(const std::string& fields) {
    ChatCompletion chat;
    error = readChatCompletion(R"({"messages": [{"role": "user", "content": "a"}])" +
                                   std::string(fields.empty() ? "" : ", ") + fields + "}",
                               served, chat);
    return std::move(chat.request);
  }
  std::string paramOf(const std::string& fields) {
    read(fields);
    EXPECT_EQ(400, error.status) << fields;
    return error.param;
  }

  FakeService service;
  ServedModel served;
  ApiError error;
};

TEST_F(RequestFields, AbsentSettingsAreTheMakers) {
  const GenerationRequest plain = read("");
  EXPECT_EQ(0.7F, plain.options.sampling.temperature);
  EXPECT_EQ(0.8F, plain.options.sampling.topP);
  EXPECT_EQ(20, plain.options.sampling.topK);
  EXPECT_EQ(1.5F, plain.options.sampling.presencePenalty);
  const GenerationRequest thinking = read(R"("reasoning_effort": "high")");
  EXPECT_EQ(1.0F, thinking.options.sampling.temperature);
  EXPECT_EQ(0.95F, thinking.options.sampling.topP);
}

TEST_F(RequestFields, StatedSettings) {
  const GenerationRequest request = read(
      R"("temperature": 0.25, "top_p": 0.5, "top_k": 3, "min_p": 0.125, "presence_penalty": -1,)"
      R"( "frequency_penalty": 0.5, "repetition_penalty": 1.25, "seed": -2,)"
      R"( "logit_bias": {"7": -100, "8": 2.5})");
  ASSERT_FALSE(error) << error.message;
  const engine::SamplerSettings& sampling = request.options.sampling;
  EXPECT_EQ(0.25F, sampling.temperature);
  EXPECT_EQ(0.5F, sampling.topP);
  EXPECT_EQ(3, sampling.topK);
  EXPECT_EQ(0.125F, sampling.minP);
  EXPECT_EQ(-1.0F, sampling.presencePenalty);
  EXPECT_EQ(0.5F, sampling.frequencyPenalty);
  EXPECT_EQ(1.25F, sampling.repetitionPenalty);
  EXPECT_EQ(static_cast<uint64_t>(-2), request.seed);
  EXPECT_EQ(-100.0F, sampling.logitBias.at(7));
  EXPECT_EQ(2.5F, sampling.logitBias.at(8));
}

TEST_F(RequestFields, ATopPOfNothingLeavesTheBestToken) {
  const GenerationRequest request = read(R"("top_p": 0)");
  EXPECT_TRUE(engine::check(request.options.sampling, 120).ok());
  EXPECT_LT(request.options.sampling.topP, 1e-30F);
}

TEST_F(RequestFields, SeedsAreDrawnWhereNoneIsStated) {
  const uint64_t first = read("").seed;
  EXPECT_NE(first, read("").seed);
  EXPECT_EQ(5U, read(R"("seed": 5)").seed);
}

TEST_F(RequestFields, SettingsOutOfRange) {
  EXPECT_EQ("temperature", paramOf(R"("temperature": 2.1)"));
  EXPECT_EQ("temperature", paramOf(R"("temperature": "hot")"));
  EXPECT_EQ("top_p", paramOf(R"("top_p": 1.5)"));
  EXPECT_EQ("top_k", paramOf(R"("top_k": -2)"));
  EXPECT_EQ("min_p", paramOf(R"("min_p": -0.1)"));
  EXPECT_EQ("presence_penalty", paramOf(R"("presence_penalty": 3)"));
  EXPECT_EQ("frequency_penalty", paramOf(R"("frequency_penalty": -3)"));
  EXPECT_EQ("repetition_penalty", paramOf(R"("repetition_penalty": 0)"));
  EXPECT_EQ("seed", paramOf(R"("seed": 1.5)"));
  EXPECT_EQ("logit_bias", paramOf(R"("logit_bias": [])"));
  EXPECT_EQ("logit_bias.7", paramOf(R"("logit_bias": {"7": 101})"));
  EXPECT_EQ("logit_bias.120", paramOf(R"("logit_bias": {"120": 1})"));
  EXPECT_EQ("logit_bias.a", paramOf(R"("logit_bias": {"a": 1})"));
}

TEST_F(RequestFields, EffortOfReasoning) {
  for (const char* effort : {"none", "minimal"}) {
    EXPECT_FALSE(read(R"("reasoning_effort": ")" + std::string(effort) + "\"").thinking);
  }
  EXPECT_EQ(1024U, read(R"("reasoning_effort": "low")").options.thinkingTokens);
  EXPECT_EQ(8192U, read(R"("reasoning_effort": "medium")").options.thinkingTokens);
  const GenerationRequest high = read(R"("reasoning_effort": "high")");
  EXPECT_TRUE(high.thinking);
  EXPECT_EQ(std::nullopt, high.options.thinkingTokens);
  EXPECT_EQ("reasoning_effort", paramOf(R"("reasoning_effort": "huge")"));
}

TEST_F(RequestFields, ReasoningByTheTemplatesArguments) {
  EXPECT_FALSE(read("").thinking) << "as models of this size do";
  EXPECT_FALSE(read("").preserveThinking);
  served.thinksByDefault = true;
  EXPECT_TRUE(read("").thinking);
  EXPECT_FALSE(read(R"("chat_template_kwargs": {"enable_thinking": false})").thinking);
  served.thinksByDefault = false;
  const GenerationRequest request =
      read(R"("chat_template_kwargs": {"enable_thinking": true, "preserve_thinking": true},)"
           R"( "reasoning_effort": "low")");
  EXPECT_TRUE(request.thinking);
  EXPECT_TRUE(request.preserveThinking);
  EXPECT_EQ(1024U, request.options.thinkingTokens);
  EXPECT_FALSE(
      read(R"("reasoning_effort": "low", "chat_template_kwargs": {"enable_thinking": false})")
          .thinking);
  EXPECT_EQ("chat_template_kwargs.odd", paramOf(R"("chat_template_kwargs": {"odd": 1})"));
  EXPECT_EQ("chat_template_kwargs.enable_thinking",
            paramOf(R"("chat_template_kwargs": {"enable_thinking": 1})"));
}

TEST_F(RequestFields, ModelsThatDoNotReason) {
  served.canThink = false;
  EXPECT_EQ("reasoning_effort", paramOf(R"("reasoning_effort": "low")"));
  EXPECT_EQ("chat_template_kwargs.enable_thinking",
            paramOf(R"("chat_template_kwargs": {"enable_thinking": true})"));
  read(R"("reasoning_effort": "none", "chat_template_kwargs": {"enable_thinking": false})");
  EXPECT_FALSE(error) << error.message;
}

TEST_F(RequestFields, StopStrings) {
  EXPECT_EQ((std::vector<std::string>{"a\n"}), read(R"("stop": "a\n")").options.stops);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), read(R"("stop": ["a", "b"])").options.stops);
  EXPECT_TRUE(read(R"("stop": [])").options.stops.empty());
  EXPECT_EQ("stop", paramOf(R"("stop": "")"));
  EXPECT_EQ("stop", paramOf(R"("stop": [1])"));
  EXPECT_EQ("stop", paramOf(R"("stop": ")" + std::string(257, 'x') + "\""));
  std::string many = R"("stop": [")";
  for (int i = 0; i < 16; ++i) {
    many += "x\", \"";
  }
  EXPECT_EQ("stop", paramOf(many + "x\"]"));
}

TEST_F(RequestFields, FormsOfTheAnswer) {
  EXPECT_EQ(nullptr, read(R"("response_format": {"type": "text"})").makeConstraint);
  EXPECT_NE(nullptr, read(R"("response_format": {"type": "json_object"})").makeConstraint);
  EXPECT_EQ(ConstraintRequest::Form::Object, service.constraint.form);
  EXPECT_FALSE(service.constraint.followsReasoning);
  read(R"("reasoning_effort": "high", "response_format": {"type": "json_schema", "json_schema":)"
       R"( {"name": "n", "strict": true, "schema": {"type": "object", "b": 1, "a": 2}}})");
  EXPECT_FALSE(error) << error.message;
  EXPECT_EQ(ConstraintRequest::Form::Schema, service.constraint.form);
  EXPECT_EQ(R"({"type": "object", "b": 1, "a": 2})", service.constraint.schema);
  EXPECT_TRUE(service.constraint.followsReasoning);
}

TEST_F(RequestFields, RefusedForms) {
  const auto schema = [](const std::string& text) {
    return R"("response_format": {"type": "json_schema", "json_schema": {"schema": )" + text + "}}";
  };
  EXPECT_EQ("response_format", paramOf(R"("response_format": "json")"));
  EXPECT_EQ("response_format.type", paramOf(R"("response_format": {})"));
  EXPECT_EQ("response_format.type", paramOf(R"("response_format": {"type": "grammar"})"));
  EXPECT_EQ("response_format.json_schema",
            paramOf(R"("response_format": {"type": "json_schema"})"));
  EXPECT_EQ("response_format.json_schema.schema", paramOf(schema("1")));
  EXPECT_EQ("response_format.json_schema.schema",
            paramOf(schema(R"({"a": ")" + std::string(300'000, 'x') + "\"}")));
  EXPECT_EQ("response_format.json_schema.schema",
            paramOf(schema(R"({"a": )" + std::string(32, '[') + std::string(32, ']') + "}")));
  EXPECT_EQ("response_format.odd", paramOf(R"("response_format": {"type": "text", "odd": 1})"));
  service.constrainStatus = kel::Status::invalid("\"pattern\" is not supported");
  EXPECT_EQ("response_format.json_schema.schema", paramOf(schema("{}")));
  EXPECT_EQ("response_format.json_schema.schema cannot be followed: \"pattern\" is not supported",
            error.message);
}

}  // namespace
}  // namespace zym
