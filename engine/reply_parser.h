// A reply as it is generated, taken apart: reasoning, answer, and calls of tools.
//
//   ReplyParser parser(options.thinking, tools);
//   std::vector<ReplyEvent> events;
//   parser.text("12 ", events);           // text as it is decoded, cut anywhere between characters
//   parser.control("<tool_call>", events);  // control tokens by name, or spelt within the text
//   parser.finish(events);
//
// Where the text is cut changes how answer and reasoning are cut, and nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/chat_format.h"
#include "engine/tool_schema.h"

namespace engine {

struct ReplyEvent {
  enum class Kind : uint8_t {
    Reasoning,       // text
    Answer,          // text
    CallBegin,       // name of the function
    CallArgument,    // name of the parameter, json of its value
    CallComplete,    // name of the function, json of all arguments: an object
    CallIncomplete,  // the reply ended within a call: name (empty where it has not been written as
                     // a whole), json of the arguments that are whole, text of the call as written
    CallMalformed,   // the call that has begun is none after all; its text follows as answer
    End,
  };

  Kind kind;
  std::string text;
  std::string name;
  std::string json;

  bool operator==(const ReplyEvent&) const = default;
};

// One reply; one thread at a time.
//
// Line feeds at both ends of the reasoning, before the answer and before a call are framing and
// left out, those between calls too. Reasoning ends at the first "</think>"; a reply without one is
// reasoning as a whole. It also begins at a "<think>" in front of the answer. No other mark means
// anything within reasoning, nor within the value of an argument.
//
// A call is "<tool_call>", "<function=NAME>", for each argument "<parameter=KEY>", the value and
// "</parameter>", then "</function>" and "</tool_call>", with white space between them; of the
// value, one line feed at either end is framing. Names stand on one line. Anything else is answer
// text from the first mark up to where it goes wrong, with the line feeds before it. Of a parameter
// that occurs again the last value counts. A call of which nothing but "</tool_call>" is lacking
// when the reply ends is complete.
class ReplyParser {
 public:
  // reasoning: the prompt has opened it. tools: see ToolSchemas.
  explicit ReplyParser(bool reasoning, std::span<const Tool> tools = {});

  // Each appends its events; nothing comes after End. Text that may be the beginning of a mark, and
  // the line feeds before it, wait for what follows; so do calls, but for the events that tell of
  // their progress.
  void text(std::string_view piece, std::vector<ReplyEvent>& events);
  // A token that ends a turn or a text finishes the reply; any other counts as the text of its
  // name.
  void control(std::string_view token, std::vector<ReplyEvent>& events);
  void finish(std::vector<ReplyEvent>& events);

  // Whether what comes is reasoning: tokens of a thinking budget are counted while it is.
  bool inReasoning() const { return state == State::Reasoning; }

 private:
  enum class State : uint8_t {
    Reasoning,
    Answer,
    FunctionMark,  // from here on pending is the call from its first mark on
    FunctionName,
    ParameterMark,
    ParameterName,
    Value,
    CallEndMark,
    Done,
  };
  using Events = std::vector<ReplyEvent>;

  bool step(Events& events);
  bool stepReasoning(Events& events);
  bool stepAnswer(Events& events);
  bool stepFunctionName(Events& events);
  bool stepParameterMark(Events& events);
  bool stepParameterName(Events& events);
  bool stepValue(Events& events);
  bool stepCallEnd(Events& events);

  bool skipFront();
  void emitUpTo(size_t end, ReplyEvent::Kind kind, Events& events);
  void emitText(std::string_view text, ReplyEvent::Kind kind, Events& events);
  void beginSection(State section);

  enum class Found : uint8_t { First, Second, TooShort, Other };
  Found expect(std::string_view first, std::string_view second = {});
  Found readName(std::string& name);
  bool abandonCall(Events& events);
  void addArgument(std::string json);
  std::string argumentsJson() const;
  void completeCall(Events& events);

  ToolSchemas schemas;
  State state;
  std::string pending;     // read, not yet told
  size_t lineFeeds = 0;    // that stand before pending, waiting for what follows
  bool atFront = true;     // of reasoning or answer: no text of it has been told
  bool afterCall = false;  // no text has been told since a call

  // Of the call in pending.
  size_t at = 0;       // understood up to here
  size_t scanned = 0;  // what is looked for does not begin before here
  bool begun = false;  // CallBegin has been told
  std::string function;
  std::string parameter;
  std::vector<std::pair<std::string, std::string>> arguments;  // key, JSON
};

}  // namespace engine
