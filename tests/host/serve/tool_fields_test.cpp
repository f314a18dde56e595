// Tools and the choice of them, as the interfaces state them.
#include "host/serve/tool_fields.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "host/serve/call_constraint.h"
#include "tests/host/serve/fake_service.h"

namespace zym {
namespace {

using namespace testing_support;
using Choice = ToolUse::Choice;

// In the interface of chats.
std::string tool(const std::string& name) {
  return R"({"type": "function", "function": {"name": ")" + name +
         R"(", "parameters": {"z": 1, "a": 2}}})";
}

class Tools : public testing::Test {
 protected:
  Tools() : served(service.services()) {}

  ToolUse read(const std::string& fields, ToolPlace place = ToolPlace::Function) {
    error = {};
    Fields body(fields, "", error);
    ToolUse use = readTools(body, place, served);
    body.finish();
    return use;
  }
  std::string paramOf(const std::string& fields, ToolPlace place = ToolPlace::Function) {
    read(fields, place);
    EXPECT_EQ(400, error.status) << fields;
    return error.param;
  }
  GenerationRequest apply(const std::string& fields, bool withForm = false) {
    GenerationRequest out;
    const ToolUse use = read(fields);
    const std::optional<AnswerForm> form =
        withForm ? std::optional<AnswerForm>({{}, "form"}) : std::nullopt;
    applyTools(use, form, served, error, out);
    return out;
  }
  static bool bansCalls(const GenerationRequest& request) {
    const auto& biases = request.options.sampling.logitBias;
    return biases.contains(kCallId) && std::isinf(biases.at(kCallId));
  }

  FakeService service;
  ServedModel served;
  ApiError error;
};

TEST_F(Tools, OfAChatStayAsTheyAre) {
  const ToolUse use = read(R"({"tools": [)" + tool("f") + ",  " + tool("g") + "]}");
  ASSERT_FALSE(error) << error.message;
  ASSERT_EQ(2U, use.tools.size());
  EXPECT_EQ(tool("f"), use.tools[0].json);
  EXPECT_EQ((std::vector<std::string>{"f", "g"}), use.names);
  EXPECT_EQ(Choice::Auto, use.choice);
  EXPECT_TRUE(use.allowsSeveral);
}

TEST_F(Tools, OfOtherInterfacesAreLaidOutAlike) {
  const std::string wanted =
      R"({"type": "function", "function": {"name": "f", "description": "Does \"f\".", )"
      R"("parameters": {"z": 1, "a": 2}}})";
  ToolUse use = read(R"({"tools": [{"type": "function", "name": "f", "description": "Does \"f\".",)"
                     R"( "strict": true, "parameters": {"z": 1, "a": 2}}]})",
                     ToolPlace::Parameters);
  ASSERT_FALSE(error) << error.message;
  EXPECT_EQ(wanted, use.tools.at(0).json);
  use = read(
      R"({"tools": [{"name": "f", "description": "Does \"f\".", "input_schema": {"z": 1, "a": 2},)"
      R"( "cache_control": {"type": "ephemeral"}}]})",
      ToolPlace::InputSchema);
  ASSERT_FALSE(error) << error.message;
  EXPECT_EQ(wanted, use.tools.at(0).json);
}

TEST_F(Tools, ThatAreRefused) {
  const auto with = [](const std::string& entry) { return R"({"tools": [)" + entry + "]}"; };
  EXPECT_EQ("tools", paramOf(R"({"tools": {}})"));
  EXPECT_EQ("tools[0]", paramOf(with("1")));
  EXPECT_EQ("tools[0].type", paramOf(with("{}")));
  EXPECT_EQ("tools[0].type", paramOf(with(R"({"type": "web_search"})")));
  EXPECT_EQ("tools[0].type \"web_search\" is not supported: tools are functions", error.message);
  EXPECT_EQ("tools[0].type", paramOf(with(R"({"type": "web_search_20250305", "name": "w"})"),
                                     ToolPlace::InputSchema));
  EXPECT_EQ("tools[0].function", paramOf(with(R"({"type": "function"})")));
  EXPECT_EQ("tools[0].function.name", paramOf(with(R"({"type": "function", "function": {}})")));
  EXPECT_EQ("tools[0].function.name", paramOf(with(tool("a b"))));
  EXPECT_EQ("tools[0].function.name", paramOf(with(tool(std::string(129, 'a')))));
  EXPECT_EQ("tools[1].function.name", paramOf(with(tool("f") + "," + tool("f"))));
  EXPECT_EQ("tools[0].function.parameters",
            paramOf(with(R"({"type": "function", "function": {"name": "f", "parameters": 1}})")));
  EXPECT_EQ("tools[0].function.odd",
            paramOf(with(R"({"type": "function", "function": {"name": "f", "odd": 1}})")));
  EXPECT_EQ("tools[0].odd",
            paramOf(with(R"({"type": "function", "odd": 1, "function": {"name": "f"}})")));
  EXPECT_EQ("tools", paramOf(R"({"tools": [")" + std::string(1 << 20, 'x') + "\"]}"));
  EXPECT_EQ("parallel_tool_calls", paramOf(R"({"parallel_tool_calls": 1})"));
  served.knowsTools = false;
  EXPECT_EQ("tools", paramOf(with(tool("f"))));
}

TEST_F(Tools, ChoicesOfAChat) {
  const auto with = [&](const std::string& choice) {
    return R"({"tools": [)" + tool("f") + "," + tool("g") + R"(], "tool_choice": )" + choice + "}";
  };
  EXPECT_EQ(Choice::Auto, read(with("\"auto\"")).choice);
  EXPECT_EQ(Choice::None, read(with("\"none\"")).choice);
  EXPECT_EQ(Choice::Required, read(with("\"required\"")).choice);
  const ToolUse named = read(with(R"({"type": "function", "function": {"name": "g"}})"));
  EXPECT_EQ(Choice::Required, named.choice);
  EXPECT_EQ("g", named.chosen);
  EXPECT_EQ("g", read(R"({"tools": [{"type": "function", "name": "g"}], "tool_choice":)"
                      R"( {"type": "function", "name": "g"}})",
                      ToolPlace::Parameters)
                     .chosen);
  EXPECT_EQ("tool_choice", paramOf(with("\"always\"")));
  EXPECT_EQ("tool_choice", paramOf(with("1")));
  EXPECT_EQ("tool_choice.type", paramOf(with(R"({"type": "custom"})")));
  EXPECT_EQ("tool_choice.function.name",
            paramOf(with(R"({"type": "function", "function": {"name": "h"}})")));
  EXPECT_EQ("tool_choice", paramOf(R"({"tool_choice": "required"})"));
}

TEST_F(Tools, ChoicesOfMessages) {
  const auto with = [](const std::string& choice) {
    return R"({"tools": [{"name": "f", "input_schema": {}}], "tool_choice": )" + choice + "}";
  };
  const auto readChoice = [&](const std::string& choice) {
    return read(with(choice), ToolPlace::InputSchema);
  };
  EXPECT_EQ(Choice::Auto, readChoice(R"({"type": "auto"})").choice);
  EXPECT_EQ(Choice::None, readChoice(R"({"type": "none"})").choice);
  EXPECT_EQ(Choice::Required, readChoice(R"({"type": "any"})").choice);
  const ToolUse named =
      readChoice(R"({"type": "tool", "name": "f", "disable_parallel_tool_use": true})");
  EXPECT_EQ(Choice::Required, named.choice);
  EXPECT_EQ("f", named.chosen);
  EXPECT_FALSE(named.allowsSeveral);
  EXPECT_EQ("tool_choice", paramOf(with("\"auto\""), ToolPlace::InputSchema));
  EXPECT_EQ("tool_choice.name", paramOf(with(R"({"type": "tool"})"), ToolPlace::InputSchema));
  EXPECT_EQ("tool_choice.name",
            paramOf(with(R"({"type": "tool", "name": "h"})"), ToolPlace::InputSchema));
}

TEST_F(Tools, ThatMustNotBeCalledStayInThePrompt) {
  const std::string tools = R"("tools": [)" + tool("f") + "]";
  EXPECT_FALSE(bansCalls(apply("{" + tools + "}")));
  const GenerationRequest none = apply("{" + tools + R"(, "tool_choice": "none"})");
  EXPECT_TRUE(bansCalls(none));
  EXPECT_EQ(1U, none.tools.size());
  EXPECT_TRUE(bansCalls(apply("{}")));
}

TEST_F(Tools, RequiredCallsAreAForm) {
  const std::string tools = R"("tools": [)" + tool("f") + "," + tool("g") + "]";
  EXPECT_NE(nullptr, apply("{" + tools + R"(, "tool_choice": "required"})").makeConstraint);
  EXPECT_EQ(ConstraintRequest::Form::Calls, service.constraint.form);
  EXPECT_EQ(2U, service.constraint.tools.size());
  EXPECT_TRUE(service.constraint.allowsSeveral);
  const GenerationRequest named = apply("{" + tools +
                                        R"(, "parallel_tool_calls": false, "tool_choice":)"
                                        R"( {"type": "function", "function": {"name": "g"}}})");
  ASSERT_EQ(1U, service.constraint.tools.size());
  EXPECT_EQ(tool("g"), service.constraint.tools[0].json);
  EXPECT_FALSE(service.constraint.allowsSeveral);
  EXPECT_EQ(2U, named.tools.size()) << "in the prompt";
  apply("{" + tools + R"(, "tool_choice": "required"})", true);
  EXPECT_EQ("form", error.param) << "a reply is a call or of a form";
}

// A form of two tokens.
class TwoTokens : public engine::ReplyConstraint {
 public:
  void allowed(engine::TokenMask& mask) override {
    mask.setAll(false);
    mask.allow(accepted == 0 ? 5 : 6);
  }
  void accept(int32_t) override { ++accepted; }

 private:
  int accepted = 0;
};

std::vector<size_t> allowedBy(engine::ReplyConstraint& constraint) {
  engine::TokenMask mask(120);
  constraint.allowed(mask);
  std::vector<size_t> ids;
  for (size_t id = 0; id < 120; ++id) {
    if (mask.allows(id)) {
      ids.push_back(id);
    }
  }
  return ids;
}

TEST_F(Tools, AnswersAreOfAFormOrBeginWithACall) {
  const auto made = [&] {
    return callConstraint(served, true, [] { return std::make_unique<TwoTokens>(); })();
  };
  auto constraint = made();
  EXPECT_EQ((std::vector<size_t>{5, kCallId}), allowedBy(*constraint));
  constraint->accept(5);
  EXPECT_EQ((std::vector<size_t>{6}), allowedBy(*constraint)) << "no call within it";
  constraint = made();
  constraint->accept(kCallId);
  EXPECT_EQ(120U, allowedBy(*constraint).size());
  constraint = made();
  constraint->accept(kel::test::chatId("\n"));  // as may stand behind reasoning
  EXPECT_EQ((std::vector<size_t>{6, kCallId}), allowedBy(*constraint));
}

TEST_F(Tools, OneCallEndsTheReply) {
  const auto constraint = callConstraint(served, false, nullptr)();
  constraint->accept(kCallId);
  EXPECT_EQ(120U, allowedBy(*constraint).size());
  constraint->accept(kCallEndId);
  EXPECT_EQ((std::vector<size_t>{static_cast<size_t>(kel::test::chatId("<|im_end|>")),
                                 static_cast<size_t>(kel::test::chatId("<|eos|>"))}),
            allowedBy(*constraint));
  const auto several = callConstraint(served, true, nullptr)();
  several->accept(kCallEndId);
  EXPECT_EQ(120U, allowedBy(*several).size());
}

TEST_F(Tools, NothingConstrainsFreeAnswers) {
  const std::string tools = R"("tools": [)" + tool("f") + "]";
  EXPECT_EQ(nullptr, apply("{" + tools + "}").makeConstraint);
  EXPECT_NE(nullptr, apply("{" + tools + R"(, "parallel_tool_calls": false})").makeConstraint);
  EXPECT_EQ(nullptr, apply(R"({"parallel_tool_calls": false})").makeConstraint);
}

}  // namespace
}  // namespace zym
