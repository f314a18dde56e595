#include "engine/reply_parser.h"

#include <algorithm>
#include <utility>

#include "engine/json_text.h"

namespace engine {

namespace {

using Kind = ReplyEvent::Kind;

constexpr std::string_view kFunctionBegin = "<function=";
constexpr std::string_view kFunctionEnd = "</function>";
constexpr std::string_view kParameterBegin = "<parameter=";
constexpr std::string_view kParameterEnd = "</parameter>";
constexpr std::string_view kSpace = " \t\r\n";
constexpr size_t kStepBytes = 256;

bool isBeginning(std::string_view text, std::string_view whole) {
  return text.size() < whole.size() && whole.starts_with(text);
}

// Where an end of text begins that may become mark; text.size() where none does.
size_t possibleMark(std::string_view text, std::string_view mark) {
  size_t at = text.size() - std::min(text.size(), mark.size() - 1);
  while (at < text.size() && !isBeginning(text.substr(at), mark)) {
    ++at;
  }
  return at;
}

std::string_view withoutSpace(std::string_view text) {
  const size_t begin = std::min(text.find_first_not_of(kSpace), text.size());
  text.remove_prefix(begin);
  return text.substr(0, text.find_last_not_of(kSpace) + 1);
}

std::string_view withoutFraming(std::string_view value) {
  if (value.starts_with('\n')) {
    value.remove_prefix(1);
  }
  if (value.ends_with('\n')) {
    value.remove_suffix(1);
  }
  return value;
}

}  // namespace

ReplyParser::ReplyParser(bool reasoning, std::span<const Tool> tools)
    : schemas(tools), state(reasoning ? State::Reasoning : State::Answer) {}

void ReplyParser::text(std::string_view piece, Events& events) {
  // In small steps: what is told is taken off the front of pending, whose rest then moves.
  while (!piece.empty() && state != State::Done) {
    const std::string_view part = piece.substr(0, kStepBytes);
    pending += part;
    piece.remove_prefix(part.size());
    while (step(events)) {
    }
  }
}

void ReplyParser::control(std::string_view token, Events& events) {
  if (token == kTurnEnd || token == kTextEnd) {
    finish(events);
  } else {
    text(token, events);
  }
}

void ReplyParser::finish(Events& events) {
  switch (state) {
    case State::Done:
      return;
    case State::Reasoning:
      emitUpTo(pending.size(), Kind::Reasoning, events);
      break;
    case State::Answer:
      emitUpTo(pending.size(), Kind::Answer, events);
      if (!atFront && !afterCall) {
        emitText({}, Kind::Answer, events);
      }
      break;
    case State::CallEndMark:
      completeCall(events);
      break;
    default:
      events.push_back({Kind::CallIncomplete, pending, function, argumentsJson()});
  }
  state = State::Done;
  events.push_back({Kind::End, {}, {}, {}});
}

// One step forward; false when that takes more text.
bool ReplyParser::step(Events& events) {
  switch (state) {
    case State::Reasoning:
      return stepReasoning(events);
    case State::Answer:
      return stepAnswer(events);
    case State::FunctionMark:
      switch (expect(kFunctionBegin)) {
        case Found::TooShort:
          return false;
        case Found::Other:
          return abandonCall(events);
        default:
          state = State::FunctionName;
          return true;
      }
    case State::FunctionName:
      return stepFunctionName(events);
    case State::ParameterMark:
      return stepParameterMark(events);
    case State::ParameterName:
      return stepParameterName(events);
    case State::Value:
      return stepValue(events);
    case State::CallEndMark:
      return stepCallEnd(events);
    case State::Done:
      break;
  }
  return false;
}

bool ReplyParser::stepReasoning(Events& events) {
  if (atFront && skipFront()) {
    return false;
  }
  const size_t end = pending.find(kThinkEnd);
  if (end != std::string::npos) {
    emitUpTo(end, Kind::Reasoning, events);
    pending.erase(0, kThinkEnd.size());
    beginSection(State::Answer);
    return true;
  }
  emitUpTo(possibleMark(pending, kThinkEnd), Kind::Reasoning, events);
  return false;
}

bool ReplyParser::stepAnswer(Events& events) {
  if (atFront && skipFront()) {
    return false;
  }
  if (state == State::Reasoning) {
    return true;
  }
  const size_t mark = pending.find(kCallBegin);
  if (mark != std::string::npos) {
    emitUpTo(mark, Kind::Answer, events);
    state = State::FunctionMark;
    at = kCallBegin.size();
    scanned = at;
    begun = false;
    function.clear();
    arguments.clear();
    return true;
  }
  emitUpTo(possibleMark(pending, kCallBegin), Kind::Answer, events);
  return false;
}

// At the front of reasoning or answer: drops line feeds, and a "<think>", behind which reasoning
// goes on or begins. True when more text has to tell.
bool ReplyParser::skipFront() {
  for (;;) {
    pending.erase(0, std::min(pending.find_first_not_of('\n'), pending.size()));
    if (!pending.starts_with(kThinkBegin)) {
      return isBeginning(pending, kThinkBegin);
    }
    pending.erase(0, kThinkBegin.size());
    state = State::Reasoning;
  }
}

// Tells pending up to end and drops it; line feeds at its end wait.
void ReplyParser::emitUpTo(size_t end, Kind kind, Events& events) {
  const std::string_view text = std::string_view(pending).substr(0, end);
  const size_t size = text.find_last_not_of('\n') + 1;
  if (size > 0) {
    emitText(text.substr(0, size), kind, events);
  }
  lineFeeds += end - size;
  pending.erase(0, end);
}

// Tells the line feeds that wait, and text.
void ReplyParser::emitText(std::string_view text, Kind kind, Events& events) {
  if (lineFeeds == 0 && text.empty()) {
    return;
  }
  if (events.empty() || events.back().kind != kind) {
    events.push_back({kind, {}, {}, {}});
  }
  events.back().text.append(lineFeeds, '\n').append(text);
  lineFeeds = 0;
  atFront = false;
  afterCall = false;
}

void ReplyParser::beginSection(State section) {
  state = section;
  atFront = true;
  lineFeeds = 0;
}

// Passes white space and one of the marks. Where neither stands, nothing is passed: line feeds
// before what stands there instead may turn out to be framing.
ReplyParser::Found ReplyParser::expect(std::string_view first, std::string_view second) {
  const size_t begin =
      std::min(pending.find_first_not_of(kSpace, std::max(at, scanned)), pending.size());
  scanned = begin;
  const std::string_view rest = std::string_view(pending).substr(begin);
  for (const auto& [mark, found] :
       {std::pair(first, Found::First), std::pair(second, Found::Second)}) {
    if (isBeginning(rest, mark)) {
      return Found::TooShort;
    }
    if (!mark.empty() && rest.starts_with(mark)) {
      at = begin + mark.size();
      return found;
    }
  }
  return Found::Other;
}

ReplyParser::Found ReplyParser::readName(std::string& name) {
  const size_t end = pending.find_first_of(">\n<", std::max(at, scanned));
  if (end == std::string::npos) {
    scanned = pending.size();
    return Found::TooShort;
  }
  name = withoutSpace(std::string_view(pending).substr(at, end - at));
  if (pending[end] != '>' || name.empty()) {
    name.clear();
    return Found::Other;
  }
  at = end + 1;
  return Found::First;
}

bool ReplyParser::stepFunctionName(Events& events) {
  switch (readName(function)) {
    case Found::TooShort:
      return false;
    case Found::Other:
      return abandonCall(events);
    default:
      begun = true;
      events.push_back({Kind::CallBegin, {}, function, {}});
      state = State::ParameterMark;
      return true;
  }
}

bool ReplyParser::stepParameterMark(Events& events) {
  switch (expect(kParameterBegin, kFunctionEnd)) {
    case Found::TooShort:
      return false;
    case Found::Other:
      return abandonCall(events);
    case Found::First:
      state = State::ParameterName;
      return true;
    case Found::Second:
      state = State::CallEndMark;
      return true;
  }
  return false;
}

bool ReplyParser::stepParameterName(Events& events) {
  switch (readName(parameter)) {
    case Found::TooShort:
      return false;
    case Found::Other:
      return abandonCall(events);
    default:
      scanned = at;
      state = State::Value;
      return true;
  }
}

bool ReplyParser::stepValue(Events& events) {
  const size_t end = pending.find(kParameterEnd, scanned);
  if (end == std::string::npos) {
    scanned = std::max(at, pending.size() - std::min(pending.size(), kParameterEnd.size() - 1));
    return false;
  }
  const std::string_view value = std::string_view(pending).substr(at, end - at);
  std::string json = schemas.argumentJson(function, parameter, withoutFraming(value));
  events.push_back({Kind::CallArgument, {}, parameter, json});
  addArgument(std::move(json));
  at = end + kParameterEnd.size();
  state = State::ParameterMark;
  return true;
}

bool ReplyParser::stepCallEnd(Events& events) {
  switch (expect(kCallEnd)) {
    case Found::TooShort:
      return false;
    case Found::Other:
      return abandonCall(events);
    default:
      completeCall(events);
      pending.erase(0, at);
      beginSection(State::Answer);
      atFront = false;
      afterCall = true;
      return true;
  }
}

// What stands in pending is no call: as far as it has been read it is answer.
bool ReplyParser::abandonCall(Events& events) {
  if (begun) {
    events.push_back({Kind::CallMalformed, {}, function, {}});
  }
  state = State::Answer;
  emitUpTo(at, Kind::Answer, events);
  return true;
}

void ReplyParser::addArgument(std::string json) {
  const auto same = std::find_if(arguments.begin(), arguments.end(),
                                 [&](const auto& argument) { return argument.first == parameter; });
  if (same == arguments.end()) {
    arguments.emplace_back(parameter, std::move(json));
  } else {
    same->second = std::move(json);
  }
}

std::string ReplyParser::argumentsJson() const {
  std::string object = "{";
  for (const auto& [key, json] : arguments) {
    object += object.size() > 1 ? ", " : "";
    object += quotedJson(key) + ": " + json;
  }
  return object + "}";
}

void ReplyParser::completeCall(Events& events) {
  events.push_back({Kind::CallComplete, {}, function, argumentsJson()});
}

}  // namespace engine
