#include "engine/reply_parser.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace engine {
namespace {

using Kind = ReplyEvent::Kind;
using Events = std::vector<ReplyEvent>;

const std::vector<Tool> kTools = {
    {R"({"type":"function","function":{"name":"f","parameters":{
  "type":"object","properties":{
    "s":{"type":"string"},"n":{"type":"number"},"i":{"type":"integer"},"b":{"type":"boolean"},
    "a":{"type":"array"},"o":{"type":"object"},"z":{"type":"null"},
    "sn":{"type":["string","null"]},"in":{"type":["integer","null"]},
    "any":{"anyOf":[{"type":"integer"},{"type":"array"}]},"one":{"oneOf":[{"type":"boolean"}]},
    "free":{"description":"x"},"true":true,"odd":{"type":7},
    "ref":{"$ref":"#/$defs/place"},"maybe":{"anyOf":[{"$ref":"#/$defs/place"},{"type":"null"}]},
    "all":{"allOf":[{"$ref":"#/$defs/place"}]},"loop":{"$ref":"#/$defs/loop"},
    "listed":{"enum":[1,"a"]},"fixed":{"const":2},"nowhere":{"$ref":"#/$defs/none"}},
  "$defs":{"place":{"type":"object"},"loop":{"anyOf":[{"$ref":"#/$defs/loop"},{"type":"array"}]}}}}})"},
    {R"({"name":"flat","parameters":{"properties":{"n":{"type":"number"}}}})"},
    {"[1"},
    {R"({"name":"bad",,"parameters":{"properties":{"n":{"type":"number"}}}})"}};

// One letter per event; text of one kind in a row is one event.
std::string shown(const Events& events) {
  std::string text;
  Kind last = Kind::End;
  for (const ReplyEvent& event : events) {
    const bool plain = event.kind == Kind::Reasoning || event.kind == Kind::Answer;
    if (plain && event.kind == last && !text.empty()) {
      text.pop_back();
      text += event.text + "]";
      continue;
    }
    last = event.kind;
    switch (event.kind) {
      case Kind::Reasoning:
        text += "R[" + event.text + "]";
        break;
      case Kind::Answer:
        text += "A[" + event.text + "]";
        break;
      case Kind::CallBegin:
        text += "B[" + event.name + "]";
        break;
      case Kind::CallArgument:
        text += "P[" + event.name + "=" + event.json + "]";
        break;
      case Kind::CallComplete:
        text += "C[" + event.name + event.json + "]";
        break;
      case Kind::CallIncomplete:
        text += "I[" + event.name + event.json + event.text + "]";
        break;
      case Kind::CallMalformed:
        text += "M[" + event.name + "]";
        break;
      case Kind::End:
        text += "E";
        break;
    }
  }
  return text;
}

std::string parsed(const std::string& reply, bool reasoning = false) {
  ReplyParser parser(reasoning, kTools);
  Events events;
  parser.text(reply, events);
  parser.finish(events);
  return shown(events);
}

const std::string kCall =
    "<tool_call>\n<function=f>\n<parameter=s>\nBern\n</parameter>\n</function>\n</tool_call>";
const std::string kCallShown = "B[f]P[s=\"Bern\"]C[f{\"s\": \"Bern\"}]";

TEST(ReplyParser, SplitsReasoningFromTheAnswer) {
  EXPECT_EQ("R[12 + 30]A[42.]E", parsed("12 + 30\n</think>\n\n42.", true));
  EXPECT_EQ("A[42.]E", parsed("42."));
  EXPECT_EQ("E", parsed("", true));
  EXPECT_EQ("E", parsed(""));
}

TEST(ReplyParser, FramingLineFeedsBelongToNeitherSide) {
  EXPECT_EQ("R[a\n\nb ]A[ c\n\nd]E", parsed("\n\na\n\nb \n\n\n</think>\n\n\n c\n\nd", true));
  EXPECT_EQ("R[a]A[b]E", parsed("a</think>b", true));
  EXPECT_EQ("A[b]E", parsed("\n</think>\n\nb", true));
  EXPECT_EQ("A[b]E", parsed("\n\nb"));
}

TEST(ReplyParser, TheAnswerKeepsItsLastLineFeeds) {
  EXPECT_EQ("A[a\n\n]E", parsed("a\n\n"));
  EXPECT_EQ("R[a]A[b\n]E", parsed("a</think>b\n", true));
  EXPECT_EQ("R[a]E", parsed("a</think>\n\n", true));
}

TEST(ReplyParser, ReplyWithoutTheMarkIsReasoningAsAWhole) {
  EXPECT_EQ("R[a\n" + kCall + " b]E", parsed("a\n" + kCall + " b\n", true));
  EXPECT_EQ("R[a </thin]E", parsed("a </thin", true));
}

TEST(ReplyParser, ReasoningMayOpenInFrontOfTheAnswer) {
  EXPECT_EQ("R[a]A[b]E", parsed("\n<think>\na\n</think>\n\nb"));
  EXPECT_EQ("R[a]A[b]E", parsed("<think>\na\n</think>\n\nb", true));
  EXPECT_EQ("A[b <think>\na]E", parsed("b <think>\na"));
  EXPECT_EQ("A[<thinking>]E", parsed("<thinking>"));
}

TEST(ReplyParser, OtherMarksWithinReasoningAndAnswerAreText) {
  EXPECT_EQ("R[a <think> <tool_call> </tool_call>]A[b</think>c</tool_call>]E",
            parsed("a <think> <tool_call> </tool_call></think>b</think>c</tool_call>", true));
  EXPECT_EQ("A[{\"a\": \"<think>\"}]E", parsed("{\"a\": \"<think>\"}"));
}

TEST(ReplyParser, TellsACallStepByStep) {
  EXPECT_EQ(kCallShown + "E", parsed(kCall));
  EXPECT_EQ("R[why]" + kCallShown + "E", parsed("why\n</think>\n\n" + kCall, true));
  EXPECT_EQ("B[now]C[now{}]E", parsed("<tool_call>\n<function=now>\n</function>\n</tool_call>"));
}

TEST(ReplyParser, KeepsTextBeforeACallWithoutItsLastLineFeeds) {
  EXPECT_EQ("A[Let me\n\nsee. ]" + kCallShown + "E", parsed("Let me\n\nsee. \n\n" + kCall));
  EXPECT_EQ("R[r]A[a]" + kCallShown + "E", parsed("r\n</think>\n\na\n\n" + kCall, true));
}

TEST(ReplyParser, SeveralCallsAndTextBehindThem) {
  EXPECT_EQ(kCallShown + kCallShown + kCallShown + "E",
            parsed(kCall + "\n" + kCall + kCall + "\n"));
  EXPECT_EQ("A[a]" + kCallShown + "A[\n\nb\n]E", parsed("a\n" + kCall + "\n\nb\n"));
  EXPECT_EQ(kCallShown + "A[<think>]E", parsed(kCall + "<think>"));
}

TEST(ReplyParser, ValuesSpanLinesAndLoseOneLineFeedAtEitherEnd) {
  const auto value = [](const std::string& text) {
    return parsed("<tool_call>\n<function=f>\n<parameter=s>" + text +
                  "</parameter>\n</function>\n</tool_call>");
  };
  const auto expected = [](const std::string& json) {
    return "B[f]P[s=" + json + "]C[f{\"s\": " + json + "}]E";
  };
  EXPECT_EQ(expected(R"("a\n\nb")"), value("\na\n\nb\n"));
  EXPECT_EQ(expected(R"("\na \n")"), value("\n\na \n\n"));
  EXPECT_EQ(expected(R"("a")"), value("a"));
  EXPECT_EQ(expected(R"("")"), value(""));
  EXPECT_EQ(expected(R"("")"), value("\n"));
  EXPECT_EQ(expected(R"("")"), value("\n\n"));
  EXPECT_EQ(expected(R"("</function>\n</tool_call> <tool_call> </think> </param \"\\")"),
            value("\n</function>\n</tool_call> <tool_call> </think> </param \"\\\n"));
}

TEST(ReplyParser, WhiteSpaceBetweenTheMarksOfACallIsFree) {
  EXPECT_EQ(
      kCallShown + "E",
      parsed("<tool_call><function= f ><parameter=s>Bern</parameter></function></tool_call>"));
  EXPECT_EQ(kCallShown + "E",
            parsed("<tool_call> \r\n\n<function=f>\t<parameter= s>\nBern\n</parameter>\n\n"
                   "</function>  </tool_call>"));
}

std::string argument(const std::string& key, const std::string& value,
                     const std::string& function = "f") {
  ReplyParser parser(false, kTools);
  Events events;
  parser.text("<tool_call>\n<function=" + function + ">\n<parameter=" + key + ">\n" + value +
                  "\n</parameter>\n</function>\n</tool_call>",
              events);
  EXPECT_EQ(3U, events.size());
  EXPECT_EQ("{\"" + key + "\": " + events[1].json + "}", events[2].json);
  return events[1].json;
}

TEST(ReplyParser, StringsStayText) {
  for (const std::string value : {"5", "true", "None", "null", "[1]", "{}", "\"q\"", " a "}) {
    EXPECT_EQ(value == "\"q\"" ? R"("\"q\"")" : "\"" + value + "\"", argument("s", value));
  }
  EXPECT_EQ("\"\u00E9\U0001F600\\u0001\"", argument("s", "\u00E9\U0001F600\x01"));
}

TEST(ReplyParser, ValuesOfOtherKindsAreParsed) {
  EXPECT_EQ("5", argument("n", "5"));
  EXPECT_EQ("-1.50e3", argument("n", " -1.50e3 "));
  EXPECT_EQ("5", argument("i", "5"));
  EXPECT_EQ("5.0", argument("i", "5.0"));
  EXPECT_EQ("true", argument("b", "true"));
  EXPECT_EQ("true", argument("b", "True"));
  EXPECT_EQ("false", argument("b", " False\n"));
  EXPECT_EQ("null", argument("z", "None"));
  EXPECT_EQ("null", argument("z", "null"));
  EXPECT_EQ("[1, {\"x\": \"a, b\"}]", argument("a", "[1,\n {\"x\":\"a, b\"}]"));
  EXPECT_EQ("{\"k\": [true]}", argument("o", "{\"k\":[true]}"));
}

TEST(ReplyParser, ValuesThatAreNotOfTheirKindStayText) {
  EXPECT_EQ("\"five\"", argument("n", "five"));
  EXPECT_EQ("\"01\"", argument("i", "01"));
  EXPECT_EQ("\"NaN\"", argument("n", "NaN"));
  EXPECT_EQ("\"true\"", argument("n", "true"));
  EXPECT_EQ("\"yes\"", argument("b", "yes"));
  EXPECT_EQ("\"1\"", argument("b", "1"));
  EXPECT_EQ("\"{}\"", argument("a", "{}"));
  EXPECT_EQ("\"[1,\"", argument("a", "[1,"));
  EXPECT_EQ("\"[]\"", argument("o", "[]"));
  EXPECT_EQ("\"None\"", argument("i", "None"));
  EXPECT_EQ("\"\"", argument("n", ""));
}

TEST(ReplyParser, SeveralKindsTakeWhatFits) {
  EXPECT_EQ("null", argument("sn", "None"));
  EXPECT_EQ("\"5\"", argument("sn", "5"));
  EXPECT_EQ("null", argument("in", "null"));
  EXPECT_EQ("5", argument("in", "5"));
  EXPECT_EQ("\"x\"", argument("in", "x"));
  EXPECT_EQ("[5]", argument("any", "[5]"));
  EXPECT_EQ("5", argument("any", "5"));
  EXPECT_EQ("\"{}\"", argument("any", "{}"));
  EXPECT_EQ("true", argument("one", "True"));
}

TEST(ReplyParser, KindsAreThoseOfTheSchemasThatAreReferredTo) {
  EXPECT_EQ("{\"x\": 1}", argument("ref", "{\"x\":1}"));
  EXPECT_EQ("\"5\"", argument("ref", "5"));
  EXPECT_EQ("{\"x\": 1}", argument("maybe", "{\"x\":1}"));
  EXPECT_EQ("null", argument("maybe", "None"));
  EXPECT_EQ("{}", argument("all", "{}"));
  EXPECT_EQ("[5]", argument("loop", "[5]"));
  EXPECT_EQ("\"5\"", argument("nowhere", "5"));
}

TEST(ReplyParser, ListedValuesTellTheirKinds) {
  EXPECT_EQ("1", argument("listed", "1"));
  EXPECT_EQ("\"a\"", argument("listed", "a"));
  EXPECT_EQ("2", argument("fixed", "2"));
}

TEST(ReplyParser, ValuesWithoutASchemaStayText) {
  EXPECT_EQ("\"5\"", argument("free", "5"));
  EXPECT_EQ("\"5\"", argument("true", "5"));
  EXPECT_EQ("\"5\"", argument("odd", "5"));
  EXPECT_EQ("\"5\"", argument("unknown", "5"));
  EXPECT_EQ("\"5\"", argument("n", "5", "g"));
  EXPECT_EQ("\"5\"", argument("n", "5", "bad"));
  EXPECT_EQ("5", argument("n", "5", "flat"));
}

TEST(ReplyParser, BytesThatAreNoTextStillMakeJson) {
  EXPECT_EQ("\"a\uFFFD\"", argument("s", "a\xC3"));
}

TEST(ReplyParser, OfAParameterThatOccursAgainTheLastValueCounts) {
  EXPECT_EQ("B[f]P[i=1]P[s=\"x\"]P[i=2]C[f{\"i\": 2, \"s\": \"x\"}]E",
            parsed("<tool_call>\n<function=f>\n<parameter=i>\n1\n</parameter>\n<parameter=s>\nx\n"
                   "</parameter>\n<parameter=i>\n2\n</parameter>\n</function>\n</tool_call>"));
}

TEST(ReplyParser, CallCutShortTellsWhatIsKnown) {
  const std::string one = "<tool_call>\n<function=f>\n<parameter=i>\n1\n</parameter>\n";
  EXPECT_EQ("A[a]I[{}<tool_call>]E", parsed("a\n\n<tool_call>"));
  EXPECT_EQ("I[{}<tool_call>\n<function=f]E", parsed("<tool_call>\n<function=f"));
  EXPECT_EQ("B[f]P[i=1]I[f{\"i\": 1}" + one + "]E", parsed(one));
  EXPECT_EQ("B[f]P[i=1]I[f{\"i\": 1}" + one + "<parameter=s>\nBe\n</param]E",
            parsed(one + "<parameter=s>\nBe\n</param"));
  EXPECT_EQ("B[f]P[i=1]I[f{\"i\": 1}" + one + "</funct]E", parsed(one + "</funct"));
  EXPECT_EQ("A[a\n\n<tool_ca]E", parsed("a\n\n<tool_ca"));
  EXPECT_EQ(kCallShown + "I[{}<tool_call>]E", parsed(kCall + "<tool_call>"));
}

TEST(ReplyParser, CallThatLacksOnlyItsLastMarkIsComplete) {
  const std::string whole = kCall.substr(0, kCall.find("</tool_call>"));
  EXPECT_EQ(kCallShown + "E", parsed(whole));
  EXPECT_EQ(kCallShown + "E", parsed(whole + "</tool"));
}

TEST(ReplyParser, MalformedCallsBecomeAnswerText) {
  const auto lost = [](const std::string& text) { EXPECT_EQ("A[" + text + "]E", parsed(text)); };
  lost("Use\n\n<tool_call> as a mark");
  lost("<tool_call>\n{\"name\": \"f\"}\n</tool_call>");
  lost("<tool_call>\n<function=>\n</function>");
  lost("<tool_call>\n<function=\nf>");
  lost("<tool_call>\n<function=<x>");
  lost("<tool_call></tool_call>\n");
  EXPECT_EQ(kCallShown + "A[<tool_call>x]E", parsed(kCall + "<tool_call>x"));
}

TEST(ReplyParser, MalformedCallsThatHaveBegunAreTakenBack) {
  const auto taken = [](const std::string& text, const std::string& told = "B[f]") {
    EXPECT_EQ("A[a]" + told + "M[f]A[\n\n" + text + "]E", parsed("a\n\n" + text));
  };
  taken("<tool_call>\n<function=f>\nx");
  taken("<tool_call>\n<function=f>\n</tool_call>");
  taken("<tool_call>\n<function=f>\n<parameter=>\n1\n</parameter>\n</function>\n</tool_call>");
  taken("<tool_call>\n<function=f>\n<parameter=\n>");
  taken("<tool_call>\n<function=f>\n</function>\nx");
  taken("<tool_call>\n<function=f>\n<parameter=i>\n1\n</parameter>x</function>", "B[f]P[i=1]");
}

TEST(ReplyParser, ACallMayFollowAMalformedOne) {
  EXPECT_EQ("A[<tool_call>]" + kCallShown + "E", parsed("<tool_call>\n\n" + kCall));
  EXPECT_EQ("B[g]M[g]A[<tool_call>\n<function=g>]" + kCallShown + "E",
            parsed("<tool_call>\n<function=g>\n" + kCall));
  // Marks in the value of the abandoned call are no marks afterwards either.
  const std::string outer =
      "<tool_call><function=f><parameter=i><tool_call><function=g></function>"
      "</tool_call></parameter>x";
  EXPECT_TRUE(parsed(outer).ends_with("M[f]A[" + outer + "]E")) << parsed(outer);
  // What the abandoned call had as arguments is not part of the next.
  EXPECT_EQ(
      "B[f]P[i=1]M[f]A[<tool_call><function=f><parameter=i>1</parameter>x]" + kCallShown + "E",
      parsed("<tool_call><function=f><parameter=i>1</parameter>x" + kCall));
}

TEST(ReplyParser, HoldsBackOnlyWhatMayBecomeAMark) {
  ReplyParser parser(true, kTools);
  const auto told = [&](const std::string& piece) {
    Events events;
    parser.text(piece, events);
    return shown(events);
  };
  EXPECT_EQ("R[a]", told("a"));
  EXPECT_EQ("R[ b]", told(" b\n"));
  EXPECT_EQ("", told("\n</th"));
  EXPECT_EQ("R[\n\n</the]", told("e<"));
  EXPECT_EQ("R[<]", told("</"));
  EXPECT_EQ("R[</tool_call>]", told("tool_call>"));
  EXPECT_EQ("", told("</think>"));
  EXPECT_EQ("", told("\n\n<t"));
  EXPECT_EQ("A[<to x]", told("o x"));
  EXPECT_EQ("", told("\n\n<tool_call"));
  EXPECT_EQ("A[\n\n<tool_calls]", told("s"));
  EXPECT_EQ("A[ <think]", told(" <think"));
  EXPECT_EQ("", told("<tool_call>\n<function=f"));
  EXPECT_EQ("B[f]", told(">\n<parameter=i>\n5\n</parameter"));
  EXPECT_EQ("P[i=5]", told(">\n</function>\n"));
  EXPECT_EQ("C[f{\"i\": 5}]", told("</tool_call>"));
}

TEST(ReplyParser, ControlTokensAreMarksAndEndReplies) {
  ReplyParser parser(true, kTools);
  Events events;
  EXPECT_TRUE(parser.inReasoning());
  parser.text("why\n", events);
  parser.control("</think>", events);
  EXPECT_FALSE(parser.inReasoning());
  parser.text("\n\n", events);
  parser.control("<tool_call>", events);
  parser.text("\n<function=f>\n<parameter=s>\nBern\n</parameter>\n</function>\n", events);
  parser.control("</tool_call>", events);
  parser.control("<|im_start|>", events);
  parser.control("<|im_end|>", events);
  parser.text("more", events);
  parser.control("<|endoftext|>", events);
  parser.finish(events);
  EXPECT_EQ("R[why]" + kCallShown + "A[<|im_start|>]E", shown(events));

  ReplyParser another(false);
  events.clear();
  another.text("<|im_end|>", events);  // spelt in text it ends nothing
  another.control("<|endoftext|>", events);
  EXPECT_EQ("A[<|im_end|>]E", shown(events));
}

TEST(ReplyParser, ReadsTheClosingOfAThinkingBudget) {
  ReplyParser parser(true);
  Events events;
  parser.text("cut sho", events);
  for (const Segment& segment : thinkingEnd()) {
    segment.control ? parser.control(segment.text, events) : parser.text(segment.text, events);
  }
  EXPECT_FALSE(parser.inReasoning());
  parser.text("So 42.", events);
  EXPECT_EQ("R[cut sho]A[So 42.]", shown(events));
}

// Where text is cut, and whether marks come as control tokens, changes nothing.
TEST(ReplyParser, CutsChangeNothing) {
  const std::vector<std::string> replies = {
      "12 + 30\n</think>\n\n42.\n",
      "\n<think>\na\n\n</th</think>\n\n\nb\n<tool_ca\n\n" + kCall + "\n" + kCall + "\n\nc\n",
      "a <tool_call>\n\n{}</think> <function=f>\n" + kCall,
      "r</think><tool_call>\n<function=f>\n<parameter=s>\n</parameters\n\n</parameter>\n\n"
      "<parameter=a>[1,\n2]</parameter> </function>\n</tool_call>\n",
      "r</think>\n\n<tool_call>\n<function=f>\n<parameter=i>\n7\n</parameter>\n\n<tool_call>\n"
      "<function=g></function>\n\n",
      "r</think>x\n\n<tool_call>\n<function=f>\n<parameter=i>\n7\n</para",
  };
  const std::vector<std::string> pieces[] = {
      {}, {"<think>", "</think>", "<tool_call>", "</tool_call>"}};
  for (const std::string& reply : replies) {
    for (const bool reasoning : {false, true}) {
      const std::string whole = parsed(reply, reasoning);
      const ReplyParser fresh(reasoning, kTools);
      for (size_t first = 0; first <= reply.size(); ++first) {
        for (size_t second = first; second <= reply.size(); ++second) {
          ReplyParser parser = fresh;
          Events events;
          parser.text(std::string_view(reply).substr(0, first), events);
          parser.text(std::string_view(reply).substr(first, second - first), events);
          parser.text(std::string_view(reply).substr(second), events);
          parser.finish(events);
          ASSERT_EQ(whole, shown(events)) << reply << " cut at " << first << " and " << second;
        }
      }
      for (const std::vector<std::string>& controls : pieces) {
        ReplyParser parser = fresh;
        Events events;
        for (size_t at = 0; at < reply.size();) {
          size_t taken = 1;
          for (const std::string& control : controls) {
            if (reply.compare(at, control.size(), control) == 0) {
              taken = control.size();
              parser.control(control, events);
            }
          }
          if (taken == 1) {
            parser.text(std::string_view(reply).substr(at, 1), events);
          }
          at += taken;
        }
        parser.finish(events);
        ASSERT_EQ(whole, shown(events)) << reply;
      }
    }
  }
}

TEST(ReplyParser, LongRepliesInOnePieceAreReadAsWell) {
  const size_t count = 3000;
  std::string reply;
  std::string expected;
  for (size_t i = 0; i < count; ++i) {
    reply += kCall + "\n";
    expected += kCallShown;
  }
  EXPECT_EQ(expected + "E", parsed(reply));
  const std::string text(100000, '\n');
  EXPECT_EQ("A[a" + text + "b]E", parsed("a" + text + "b"));
}

// What is rendered of an assistant message reads back as the message.
TEST(ReplyParser, ReadsWhatTheChatFormatWrites) {
  const std::vector<Message> messages = {
      {Role::User, "q", {}, {}},
      {Role::Assistant,
       "First:\n\n- a",
       "because\n\nof",
       {{"f",
         R"({"s": "two\nlines\n", "n": 1.50, "b": true, "z": null, "a": [1, "x"], "o": {"k": {}}})"},
        {"f", "{}"},
        {"f", R"({"s": ""})"}}}};
  Conversation conversation;
  ASSERT_TRUE(renderConversation(messages, {}, {.generationPrompt = false}, conversation).ok());
  ReplyParser parser(true, kTools);
  Events events;
  for (const Segment& segment : conversation.segments) {
    if (segment.generated) {
      segment.control ? parser.control(segment.text, events) : parser.text(segment.text, events);
    }
  }
  parser.finish(events);
  std::vector<ToolCall> calls;
  for (const ReplyEvent& event : events) {
    if (event.kind == Kind::CallComplete) {
      calls.push_back({event.name, event.json});
    }
  }
  EXPECT_TRUE(shown(events).starts_with("R[because\n\nof]A[First:\n\n- a]B[f]")) << shown(events);
  ASSERT_EQ(messages[1].toolCalls.size(), calls.size());
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(messages[1].toolCalls[i].name, calls[i].name);
    EXPECT_EQ(messages[1].toolCalls[i].arguments, calls[i].arguments);
  }
}

}  // namespace
}  // namespace engine
