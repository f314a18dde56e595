#include "engine/chat_format.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace engine {
namespace {

constexpr ChatOptions kNoPrompt = {.generationPrompt = false};

Message system(std::string content) {
  return {Role::System, std::move(content), {}, {}};
}
Message user(std::string content) {
  return {Role::User, std::move(content), {}, {}};
}
Message result(std::string content) {
  return {Role::Tool, std::move(content), {}, {}};
}
Message assistant(std::string content, std::optional<std::string> reasoning = {},
                  std::vector<ToolCall> calls = {}) {
  return {Role::Assistant, std::move(content), std::move(reasoning), std::move(calls)};
}

Conversation rendered(const std::vector<Message>& messages, const ChatOptions& options = kNoPrompt,
                      const std::vector<Tool>& tools = {}) {
  Conversation conversation;
  const kel::Status status = renderConversation(messages, tools, options, conversation);
  EXPECT_TRUE(status.ok()) << status.message;
  return conversation;
}

std::string textOf(const std::vector<Message>& messages, const ChatOptions& options = kNoPrompt,
                   const std::vector<Tool>& tools = {}) {
  return plainText(rendered(messages, options, tools).segments);
}

std::string failure(const std::vector<Message>& messages, const std::vector<Tool>& tools = {}) {
  Conversation conversation;
  const kel::Status status = renderConversation(messages, tools, {}, conversation);
  EXPECT_EQ(status.ok() ? kel::StatusCode::Ok : kel::StatusCode::InvalidFormat, status.code);
  return status.message;
}

// The segments that one message, or none, gave; control tokens in [] and what the model wrote in
// {}.
std::string marked(const Conversation& conversation, size_t message = Segment::kNoMessage) {
  std::string text;
  for (const Segment& segment : conversation.segments) {
    if (segment.message == message) {
      const std::string shown = segment.control ? "[" + segment.text + "]" : segment.text;
      text += segment.generated ? "{" + shown + "}" : shown;
    }
  }
  return text;
}

TEST(ChatFormat, FramesSystemUserAndAssistant) {
  EXPECT_EQ(
      "<|im_start|>system\nBe brief.<|im_end|>\n"
      "<|im_start|>user\nHello<|im_end|>\n"
      "<|im_start|>assistant\nHi.<|im_end|>\n"
      "<|im_start|>user\nBye<|im_end|>\n",
      textOf({system("Be brief."), user("Hello"), assistant("Hi."), user("Bye")}));
}

TEST(ChatFormat, HasNoDefaultSystemMessage) {
  EXPECT_EQ("<|im_start|>user\nHello<|im_end|>\n", textOf({user("Hello")}));
}

TEST(ChatFormat, EmptyContentsKeepTheirTurns) {
  EXPECT_EQ(
      "<|im_start|>system\n<|im_end|>\n<|im_start|>user\n<|im_end|>\n"
      "<|im_start|>assistant\n<|im_end|>\n",
      textOf({system(" "), user(""), assistant("\n")}));
}

TEST(ChatFormat, GenerationPromptOpensOrClosesReasoning) {
  const std::string turn = "<|im_start|>user\nHello<|im_end|>\n";
  EXPECT_EQ(turn + "<|im_start|>assistant\n<think>\n", textOf({user("Hello")}, {.thinking = true}));
  EXPECT_EQ(turn + "<|im_start|>assistant\n<think>\n\n</think>\n\n",
            textOf({user("Hello")}, {.thinking = false}));
}

TEST(ChatFormat, TrimsWhiteSpaceOfAnyKindAtBothEnds) {
  EXPECT_EQ(
      "<|im_start|>system\na \n b<|im_end|>\n<|im_start|>user\nc<|im_end|>\n"
      "<|im_start|>assistant\nd<|im_end|>\n"
      "<|im_start|>user\n<tool_response>\ne\n</tool_response><|im_end|>\n",
      textOf({system(" \t\r\na \n b\v\f "), user("\u00A0\u3000c\u2028\u0085\u2003"),
              assistant("\u1680\u202F\u205F\u2029d\x1C\x1F"), result("\n\ne \n")}));
}

TEST(ChatFormat, OtherCharactersAreNoWhiteSpace) {
  // A byte order mark, a zero-width space, and a letter whose last byte also ends a space.
  EXPECT_EQ("<|im_start|>user\n\uFEFFa\u200B\u0405<|im_end|>\n",
            textOf({user("\uFEFFa\u200B\u0405")}));
}

TEST(ChatFormat, NamesItsErrors) {
  EXPECT_EQ("No messages provided.", failure({}));
  EXPECT_EQ("No user query found in messages.", failure({system("a"), assistant("b")}));
  EXPECT_EQ("System message must be at the beginning.", failure({user("a"), system("b")}));
  EXPECT_EQ("System message must be at the beginning.",
            failure({system("a"), system("b"), user("c")}));
  EXPECT_EQ("No user query found in messages.", failure({assistant("a"), system("b")}));
  EXPECT_EQ("", failure({user("a")}));
}

TEST(ChatFormat, UserMessageThatIsAToolResultIsNoQuery) {
  EXPECT_EQ("No user query found in messages.",
            failure({user(" <tool_response>\n1\n</tool_response>\n")}));
  EXPECT_EQ("", failure({user("<tool_response>1")}));
  EXPECT_EQ("", failure({user("1</tool_response>")}));
  EXPECT_EQ("", failure({user("<tool_response>1</tool_response>?")}));
}

TEST(ChatFormat, RolesHaveTheNamesOfClients) {
  const auto named = [](std::string_view name) {
    Role role = Role::Assistant;
    EXPECT_TRUE(roleOf(name, role).ok()) << name;
    return role;
  };
  EXPECT_EQ(Role::System, named("system"));
  EXPECT_EQ(Role::System, named("developer"));
  EXPECT_EQ(Role::User, named("user"));
  EXPECT_EQ(Role::Assistant, named("assistant"));
  EXPECT_EQ(Role::Tool, named("tool"));
  Role role = Role::Tool;
  EXPECT_EQ("Unexpected message role.", roleOf("User", role).message);
  EXPECT_EQ("Unexpected message role.", roleOf("", role).message);
  EXPECT_EQ(Role::Tool, role);
}

TEST(ChatFormat, KeepsReasoningAfterTheLastQueryAlone) {
  const std::vector<Message> messages = {user("a"),
                                         assistant("b", "first"),
                                         user("c"),
                                         assistant("d", "second"),
                                         user("<tool_response>x</tool_response>"),
                                         assistant("e", "third")};
  EXPECT_EQ(
      "<|im_start|>user\na<|im_end|>\n<|im_start|>assistant\nb<|im_end|>\n"
      "<|im_start|>user\nc<|im_end|>\n"
      "<|im_start|>assistant\n<think>\nsecond\n</think>\n\nd<|im_end|>\n"
      "<|im_start|>user\n<tool_response>x</tool_response><|im_end|>\n"
      "<|im_start|>assistant\n<think>\nthird\n</think>\n\ne<|im_end|>\n",
      textOf(messages));
}

TEST(ChatFormat, KeepsReasoningOfEarlierTurnsOnRequest) {
  EXPECT_EQ(
      "<|im_start|>user\na<|im_end|>\n"
      "<|im_start|>assistant\n<think>\nfirst\n</think>\n\nb<|im_end|>\n"
      "<|im_start|>user\nc<|im_end|>\n",
      textOf({user("a"), assistant("b", "first"), user("c")},
             {.preserveThinking = true, .generationPrompt = false}));
}

// The text of an assistant message after the last query.
std::string replyText(const Message& message) {
  const Conversation conversation = rendered({user("q"), message});
  const std::string text = plainText(conversation.segments);
  const std::string before = "<|im_start|>user\nq<|im_end|>\n<|im_start|>assistant\n";
  EXPECT_TRUE(text.starts_with(before) && text.ends_with("<|im_end|>\n"));
  return text.substr(before.size(), text.size() - before.size() - 11);
}

TEST(ChatFormat, EmptyReasoningLeavesNoTrace) {
  EXPECT_EQ("b", replyText(assistant("b", "")));
  EXPECT_EQ("b", replyText(assistant("b", " \n")));
  EXPECT_EQ("b", replyText(assistant("<think>\n\n</think>\n\nb")));
}

TEST(ChatFormat, TakesReasoningOutOfTheContent) {
  const std::string expected = "<think>\nr\n\ns\n</think>\n\nb";
  EXPECT_EQ(expected, replyText(assistant("<think>\nr\n\ns\n</think>\n\nb")));
  EXPECT_EQ(expected, replyText(assistant("\n<think>\n\nr\n\ns\n\n</think>b\n")));
  EXPECT_EQ(expected, replyText(assistant("r\n\ns</think>\n\n\nb")));
  EXPECT_EQ("<think>\nr <think> s\n</think>\n\nb", replyText(assistant("r <think> s</think>b")));
  EXPECT_EQ("<think>\nr\n</think>\n\n", replyText(assistant("<think>r</think>")));
}

TEST(ChatFormat, ReasoningEndsAtTheFirstMarkAndTheAnswerBeginsAtTheLast) {
  EXPECT_EQ("<think>\nr\n</think>\n\nb", replyText(assistant("r</think>lost</think>\nb")));
}

TEST(ChatFormat, ContentIsWholeWhereReasoningIsGivenApart) {
  EXPECT_EQ("<think>\nr\n</think>\n\na</think>b", replyText(assistant("a</think>b", "r")));
  EXPECT_EQ("a</think>b", replyText(assistant("a</think>b", "")));
  EXPECT_EQ("<think>\nr\n</think>\n\nb", replyText(assistant(" b ", "\n r\n")));
}

TEST(ChatFormat, DroppedReasoningStillLeavesTheContent) {
  EXPECT_EQ(
      "<|im_start|>user\na<|im_end|>\n<|im_start|>assistant\nb<|im_end|>\n"
      "<|im_start|>user\nc<|im_end|>\n",
      textOf({user("a"), assistant("<think>\nr\n</think>\n\nb"), user("c")}));
}

const std::string kToolsHead =
    "<|im_start|>system\n# Tools\n\nYou have access to the following functions:\n\n<tools>";
const std::string kToolsTail = R"(
</tools>

If you choose to call a function ONLY reply in the following format with NO suffix:

<tool_call>
<function=example_function_name>
<parameter=example_parameter_1>
value_1
</parameter>
<parameter=example_parameter_2>
This is the value for the second parameter
that can span
multiple lines
</parameter>
</function>
</tool_call>

<IMPORTANT>
Reminder:
- Function calls MUST follow the specified format: an inner <function=...></function> block must be nested within <tool_call></tool_call> XML tags
- Required parameters MUST be specified
- You may provide optional reasoning for your function call in natural language BEFORE the function call, but NOT after
- If there is no function call available, answer the question like normal with your current knowledge and do not tell the user about function calls
</IMPORTANT>)";

TEST(ChatFormat, ToolsComeInASystemTurnOfTheirOwn) {
  EXPECT_EQ(kToolsHead + "\n{\"a\": 1}\n{\"b\": 2}" + kToolsTail +
                "<|im_end|>\n<|im_start|>user\nHello<|im_end|>\n",
            textOf({user("Hello")}, kNoPrompt, {{R"({"a":1})"}, {R"({"b":2})"}}));
}

TEST(ChatFormat, ToolsShareTheTurnOfTheSystemMessage) {
  EXPECT_EQ(kToolsHead + "\n{}" + kToolsTail +
                "\n\nBe brief.<|im_end|>\n<|im_start|>user\nHello<|im_end|>\n",
            textOf({system(" Be brief.\n"), user("Hello")}, kNoPrompt, {{"{}"}}));
  EXPECT_EQ(kToolsHead + "\n{}" + kToolsTail + "<|im_end|>\n<|im_start|>user\nHello<|im_end|>\n",
            textOf({system("\n"), user("Hello")}, kNoPrompt, {{"{}"}}));
}

std::string toolLine(const std::string& json) {
  const std::string text = textOf({user("q")}, kNoPrompt, {{json}});
  EXPECT_TRUE(text.starts_with(kToolsHead + "\n"));
  const size_t begin = kToolsHead.size() + 1;
  return text.substr(begin, text.find(kToolsTail) - begin);
}

TEST(ChatFormat, ToolsStandOnOneLineWithTheirKeysInOrder) {
  EXPECT_EQ(
      R"({"type": "function", "function": {"name": "f", "a": [1, {"z": null, "b": true}], "c": {}}})",
      toolLine("{\r\n\t\"type\":\"function\" ,\"function\" : {\"name\":\"f\",\"a\":[ 1,"
               "{\"z\":null,\"b\":true}\n],\"c\":{ }}}\n"));
}

TEST(ChatFormat, ToolsKeepNumbersAsTheClientWroteThem) {
  EXPECT_EQ(R"({"n": [1.0, 1.50, -0, 1e5, 2E+3, 12345678901234567890123]})",
            toolLine(R"({"n":[1.0,1.50,-0,1e5,2E+3,12345678901234567890123]})"));
}

TEST(ChatFormat, ToolsSpellStringsWithTheShortestEscapes) {
  EXPECT_EQ(
      "{\"\u00E9\": \"\u00E9 \U0001F600 \\\" \\\\ / \\n \\u0001 <b> , : { [\"}",
      toolLine("{\"\\u00e9\":\"\u00E9 \\ud83d\\ude00 \\\" \\\\ \\/ \\n \\u0001 <b> , : { [\"}"));
  EXPECT_EQ("{\"a  b\": \"c ,d:e\"}", toolLine("{\"a  b\":\"c ,d:e\"}"));
}

TEST(ChatFormat, RefusesToolsThatAreNoObjects) {
  const std::string text = "chat: a tool is not a JSON object";
  for (const std::string json : {"", "[]", "1", "{", "{}{}", "{'a':1}", "{\"a\":1e999}",
                                 "\xEF\xBB\xBF{}", "{\"a\":\"\xFF\"}"}) {
    EXPECT_EQ(text, failure({user("q")}, {{json}})) << json;
  }
  EXPECT_EQ(text, failure({user("q")}, {{std::string("{}\0x", 4)}}));
  EXPECT_EQ("", failure({user("q")}, {{" {} "}}));
}

TEST(ChatFormat, DeepNestingCostsNoStack) {
  const size_t depth = 200000;
  const std::string json = "{\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}";
  EXPECT_EQ("{\"a\": " + std::string(depth, '[') + std::string(depth, ']') + "}", toolLine(json));
  EXPECT_EQ("", failure({user("q"), assistant("", {}, {{"f", json}})}));
}

TEST(ChatFormat, CallsFollowTheContentAfterAnEmptyLine) {
  EXPECT_EQ(
      "Let me see.\n\n<tool_call>\n<function=get_weather>\n<parameter=city>\nBern\n</parameter>\n"
      "</function>\n</tool_call>\n<tool_call>\n<function=now>\n</function>\n</tool_call>",
      replyText(
          assistant("Let me see.\n", {}, {{"get_weather", R"({"city":"Bern"})"}, {"now", "{}"}})));
}

TEST(ChatFormat, CallsWithoutContentFollowAtOnce) {
  EXPECT_EQ("<tool_call>\n<function=now>\n</function>\n</tool_call>",
            replyText(assistant(" ", {}, {{"now", " "}})));
  EXPECT_EQ("<think>\nr\n</think>\n\n<tool_call>\n<function=now>\n</function>\n</tool_call>",
            replyText(assistant("", "r", {{"now", ""}})));
}

std::string argumentLines(const std::string& arguments) {
  const std::string text = replyText(assistant("", {}, {{"f", arguments}}));
  const std::string head = "<tool_call>\n<function=f>\n";
  const std::string tail = "</function>\n</tool_call>";
  EXPECT_TRUE(text.starts_with(head) && text.ends_with(tail)) << text;
  return text.substr(head.size(), text.size() - head.size() - tail.size());
}

TEST(ChatFormat, ArgumentsAreBareStringsWordsOrJson) {
  EXPECT_EQ(
      "<parameter=z>\n two\nlines \n</parameter>\n<parameter=a>\n1.50\n</parameter>\n"
      "<parameter=t>\nTrue\n</parameter>\n<parameter=f>\nFalse\n</parameter>\n"
      "<parameter=n>\nNone\n</parameter>\n<parameter=l>\n[1, true, null, \"x\"]\n</parameter>\n"
      "<parameter=o>\n{\"k\": {\"\u00E9\": 2}}\n</parameter>\n<parameter=e>\n\n</parameter>\n",
      argumentLines(R"({"z":" two\nlines ","a":1.50,"t":true,"f":false,"n":null,)"
                    R"("l":[1,true,null,"x"],"o":{"k":{"\u00e9":2}},"e":""})"));
}

TEST(ChatFormat, AnArgumentThatOccursAgainGivesItsValueToTheFirst) {
  EXPECT_EQ("<parameter=a>\n3\n</parameter>\n<parameter=b>\n2\n</parameter>\n",
            argumentLines(R"({"a":1,"b":2,"a":3})"));
}

TEST(ChatFormat, RefusesArgumentsThatAreNoObject) {
  for (const std::string arguments : {"[]", "\"{}\"", "{", "null", "x"}) {
    EXPECT_EQ("chat: the arguments of a tool call are not a JSON object",
              failure({user("q"), assistant("", {}, {{"f", arguments}})}))
        << arguments;
  }
}

TEST(ChatFormat, ResultsOfConsecutiveToolMessagesShareATurn) {
  EXPECT_EQ(
      "<|im_start|>user\nq<|im_end|>\n<|im_start|>assistant\na<|im_end|>\n"
      "<|im_start|>user\n<tool_response>\n1\n</tool_response>\n<tool_response>\n2\n</tool_response>"
      "<|im_end|>\n<|im_start|>assistant\nb<|im_end|>\n"
      "<|im_start|>user\n<tool_response>\n3\n</tool_response><|im_end|>\n",
      textOf({user("q"), assistant("a"), result("1"), result("2"), assistant("b"), result("3")}));
}

TEST(ChatFormat, ToolMessagesAreNoQueries) {
  EXPECT_EQ("No user query found in messages.", failure({result("1")}));
  EXPECT_NE(std::string::npos,
            textOf({user("q"), assistant("a", "r"), result("1")}).find("<think>\nr\n</think>"));
}

TEST(ChatFormat, FramingIsControlTokensAndContentsAreText) {
  const std::string marks = "<|im_end|><|im_start|><think></think><tool_call></tool_call>";
  const std::vector<Message> messages = {
      system(marks), user(marks + "x"),
      assistant("a", marks + "r", {{marks, "{\"<think>\":\"<|im_end|>\"}"}}),
      result("<tool_response>")};
  const Conversation conversation = rendered(messages, {.thinking = false}, {{"{\"<think>\":1}"}});
  EXPECT_EQ("[<|im_start|>]user\n" + marks + "x[<|im_end|>]\n", marked(conversation, 1));
  EXPECT_EQ("[<|im_start|>]assistant\n[<think>]\n{" + marks + "r\n}{[</think>]}{\n\na\n\n}" +
                "{[<tool_call>]}{\n<function=" + marks +
                ">\n<parameter=<think>>\n<|im_end|>\n</parameter>\n</function>\n}"
                "{[</tool_call>]}[<|im_end|>]\n",
            marked(conversation, 2));
  EXPECT_EQ(
      "[<|im_start|>]user\n[<tool_response>]\n<tool_response>\n[</tool_response>][<|im_end|>]\n",
      marked(conversation, 3));
  EXPECT_EQ("[<|im_start|>]assistant\n[<think>]\n\n[</think>]\n\n", marked(conversation));
  // The instructions spell a call, which models see as the tokens of one.
  const std::string systemTurn = marked(conversation, 0);
  EXPECT_TRUE(systemTurn.starts_with("[<|im_start|>]system\n# Tools\n"));
  EXPECT_NE(std::string::npos, systemTurn.find("\n{\"<think>\": 1}\n</tools>"));
  EXPECT_NE(std::string::npos, systemTurn.find("suffix:\n\n[<tool_call>]\n<function=example"));
  EXPECT_NE(std::string::npos, systemTurn.find("</function>\n[</tool_call>]\n\n<IMPORTANT>"));
  EXPECT_NE(std::string::npos, systemTurn.find("within [<tool_call>][</tool_call>] XML tags"));
  EXPECT_TRUE(systemTurn.ends_with("</IMPORTANT>\n\n" + marks + "[<|im_end|>]\n"));
  for (const Segment& segment : conversation.segments) {
    EXPECT_FALSE(segment.text.empty());
    if (segment.control) {
      EXPECT_NE(kControlTokens.end(),
                std::find(kControlTokens.begin(), kControlTokens.end(), segment.text));
    }
  }
}

TEST(ChatFormat, WhatTheModelWroteBeginsBehindTheFraming) {
  const Conversation conversation =
      rendered({user("q"), assistant("a"), user("r"), assistant("b", "c"), user("s")},
               {.preserveThinking = true, .generationPrompt = false});
  EXPECT_EQ("[<|im_start|>]assistant\n{a}[<|im_end|>]\n", marked(conversation, 1));
  EXPECT_EQ("[<|im_start|>]assistant\n[<think>]\n{c\n}{[</think>]}{\n\nb}[<|im_end|>]\n",
            marked(conversation, 3));
}

TEST(ChatFormat, TellsWhereMessagesEnd) {
  const Conversation conversation = rendered(
      {system("s"), user("q"), assistant("a"), result("1"), result("2")}, {.thinking = true}, {});
  ASSERT_EQ(5U, conversation.messageEnds.size());
  const auto upTo = [&](size_t end) {
    return plainText(std::span(conversation.segments).first(end));
  };
  const std::string first = "<|im_start|>system\ns<|im_end|>\n";
  const std::string second = first + "<|im_start|>user\nq<|im_end|>\n";
  const std::string third = second + "<|im_start|>assistant\na<|im_end|>\n";
  const std::string fourth = third + "<|im_start|>user\n<tool_response>\n1\n</tool_response>";
  EXPECT_EQ(first, upTo(conversation.messageEnds[0]));
  EXPECT_EQ(second, upTo(conversation.messageEnds[1]));
  EXPECT_EQ(third, upTo(conversation.messageEnds[2]));
  EXPECT_EQ(fourth, upTo(conversation.messageEnds[3]));
  EXPECT_EQ(conversation.messageEnds[4], conversation.promptBegin);
  EXPECT_EQ(0U, conversation.preambleEnd);
  EXPECT_EQ("<|im_start|>assistant\n<think>\n",
            plainText(std::span(conversation.segments).subspan(conversation.promptBegin)));
}

TEST(ChatFormat, TellsWhereToolsEndThatNoMessageShares) {
  const Conversation alone = rendered({user("q")}, kNoPrompt, {{"{}"}});
  EXPECT_EQ(kToolsHead + "\n{}" + kToolsTail + "<|im_end|>\n",
            plainText(std::span(alone.segments).first(alone.preambleEnd)));
  EXPECT_EQ(Segment::kNoMessage, alone.segments.front().message);
  EXPECT_EQ(alone.segments.size(), alone.promptBegin);
  const Conversation shared = rendered({system(""), user("q")}, kNoPrompt, {{"{}"}});
  EXPECT_EQ(0U, shared.preambleEnd);
  EXPECT_EQ(0U, shared.segments.front().message);
}

TEST(ChatFormat, ClosesReasoningWithItsControlToken) {
  const std::vector<Segment> end = thinkingEnd();
  EXPECT_EQ("\n</think>\n\n", plainText(end));
  ASSERT_EQ(3U, end.size());
  EXPECT_TRUE(!end[0].control && end[1].control && !end[2].control);
  EXPECT_TRUE(end[0].generated && end[1].generated && end[2].generated);
}

TEST(ChatFormat, JoinsTextPartsAndRefusesOthers) {
  std::string content = "kept";
  EXPECT_TRUE(
      joinContentParts(std::vector<ContentPart>{{"text", "a "}, {"text", "b"}}, content).ok());
  EXPECT_EQ("a b", content);
  for (const std::string type : {"image", "image_url", "video", "video_url"}) {
    EXPECT_EQ(
        "chat: image and video parts are not supported",
        joinContentParts(std::vector<ContentPart>{{"text", "x"}, {type, ""}}, content).message);
  }
  EXPECT_EQ("chat: unknown type of content part",
            joinContentParts(std::vector<ContentPart>{{"input_audio", ""}}, content).message);
  EXPECT_EQ("a b", content);
  EXPECT_TRUE(joinContentParts({}, content).ok());
  EXPECT_EQ("", content);
}

TEST(ChatFormat, ModelsFromFourBillionUpThink) {
  EXPECT_FALSE(thinksByDefault(1024));
  EXPECT_FALSE(thinksByDefault(2048));
  EXPECT_TRUE(thinksByDefault(2560));
  EXPECT_TRUE(thinksByDefault(5120));
}

}  // namespace
}  // namespace engine
