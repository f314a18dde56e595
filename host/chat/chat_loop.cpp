#include "host/chat/chat_loop.h"

#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include "host/chat/chat_command.h"
#include "host/chat/sampling_settings.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/line_reader.h"
#include "host/terminal/reply_wrap.h"
#include "host/terminal/terminal.h"
#include "host/terminal/units.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

namespace fs = std::filesystem;

constexpr const char* kHint = "Leave with /quit, Ctrl-D, or Ctrl-C once more.";

// A remark whose lines end between words.
void say(std::string_view text) {
  remark(wrappedText(text, terminalColumns(STDERR_FILENO)));
}

// As a shell would have it.
std::string pathOf(const std::string& typed) {
  const char* home = std::getenv("HOME");
  return typed.starts_with("~/") && home != nullptr ? home + typed.substr(1) : typed;
}

std::string rateText(const char* what, double perSecond) {
  return perSecond > 0 ? fmt::format("{:<11}{:.1f} tokens/s\n", what, perSecond) : "";
}

std::string useText(const ConversationUse& use) {
  std::string text = fmt::format("{:<11}{} of {}\n", "positions", use.positions, use.capacity);
  text += fmt::format("{:<11}{}\n", "messages", use.messages);
  text += fmt::format("{:<11}{} tokens of prompts\n", "read", use.readTokens);
  text += fmt::format("{:<11}{} tokens of prompts\n", "reused", use.reusedTokens);
  text += fmt::format("{:<11}{}, {}\n", "snapshots", use.snapshots, bytesText(use.snapshotBytes));
  text += rateText("prompts", use.promptTokensPerSecond);
  text += rateText("replies", use.replyTokensPerSecond);
  return text;
}

double rateOf(uint64_t count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

class Chat {
 public:
  Chat(Engine ready, const ChatLoopOptions& given)
      : engine(std::move(ready)),
        options(given),
        lines(openLineReader(defaultHistoryFile())),
        interactive(isTerminal(STDIN_FILENO)),
        replyOnTerminal(isTerminal(STDOUT_FILENO)) {}

  int loop();

 private:
  // False when there is no further message or command; status is then the exit status.
  bool readMessage(std::string& message, int& status);
  LineResult readLine(const char* prompt, std::string& line);
  // Appends the lines up to a single dot to message, which holds the first one. After Failed,
  // message is the reason.
  LineResult readFurtherLines(std::string& message);
  // False when the line asks to leave. replaces: a message stands for the last one.
  bool obey(const ChatCommand& command, bool replaces);
  void obeyOnConversation(const ChatCommand& command);
  void answer(const std::string& message, bool replaces);
  TurnReport showReply(const std::string& message, bool replaces);
  void explainEnd(const TurnReport& report);
  void keepSession(const TurnReport& report);
  static void write(std::string_view text);
  void printStats();
  void printContext();
  void printUse(const TurnReport& report);
  void retry(Conversation& conversation);
  void edit(Conversation& conversation, const std::string& text);
  static void setSystem(Conversation& conversation, const std::string& text);
  static void setThinking(Conversation& conversation, const std::string& word);
  void save(Conversation& conversation, const std::string& path);
  void load(Conversation& conversation, const std::string& path);

  Engine engine;
  ChatLoopOptions options;
  std::unique_ptr<LineReader> lines;
  ReplyWrap wrap;
  bool interactive;
  bool replyOnTerminal;
  bool multiline = false;
  bool editing = false;  // the line that is read is the last message, to be changed
  bool failed = false;   // a turn failed or found no room, or a file could not be had
  bool warned = false;   // the last thing at the prompt was a Ctrl-C
};

int Chat::loop() {
  if (interactive) {
    say("Type a message. /help lists the commands.");
  }
  int status = 0;
  std::string line;
  bool stays = true;
  while (stays && readMessage(line, status)) {
    const bool replaces = std::exchange(editing, false);
    stays = obey(parseChatCommand(line), replaces);
  }
  // At a terminal the message of the failure was seen; a script has only the exit status.
  return status == 0 && failed && !interactive ? 1 : status;
}

LineResult Chat::readLine(const char* prompt, std::string& line) {
  while (true) {
    bool wasEmpty = true;
    const LineResult result = lines->read(prompt, line, wasEmpty);
    if (result != LineResult::Interrupted) {
      warned = false;
      return result;
    }
    if (std::exchange(editing, false)) {
      say("(the message stays as it was)");
    }
    if (warned || !interactive) {
      return result;
    }
    if (wasEmpty) {
      say(kHint);
      warned = true;
    }
  }
}

// Exit status of a chat when its input has ended or cannot be read.
int exitStatus(LineResult result, const std::string& fault) {
  if (result == LineResult::Interrupted) {
    return kInterruptedExit;
  }
  if (result != LineResult::Failed) {
    return 0;
  }
  complain(fault);
  return 1;
}

bool Chat::readMessage(std::string& message, int& status) {
  LineResult result = LineResult::Interrupted;
  do {
    result = readLine("> ", message);
    if (result != LineResult::Line) {
      break;
    }
    // A message that is changed has all of its lines already.
    if (multiline && !editing && !isChatCommand(message)) {
      result = readFurtherLines(message);
    }
    // An unfinished message is kept too: it can be had back.
    if (!message.empty() && result != LineResult::Failed) {
      lines->remember(message);
    }
    // A person drops the unfinished message with Ctrl-C and starts over.
  } while (result == LineResult::Interrupted && interactive);
  if (result == LineResult::Line) {
    return true;
  }
  status = exitStatus(result, message);
  return false;
}

LineResult Chat::readFurtherLines(std::string& message) {
  if (message == ".") {
    message.clear();
  }
  // Of the lines that are typed the first one alone can be a command, and doubles its slash where
  // it is none. In a text of several lines a slash is a slash.
  const bool isDoubled = message.starts_with("//") && message.find('\n') == std::string::npos;
  std::string line;
  while (!message.empty()) {
    bool wasEmpty = true;
    const LineResult next = lines->read(". ", line, wasEmpty);
    if (next == LineResult::Interrupted && interactive) {
      say("(the message is dropped)");
    }
    if (next == LineResult::Failed) {
      message = line;
    }
    if (next == LineResult::Interrupted || next == LineResult::Failed) {
      return next;
    }
    if (next == LineResult::End || line == ".") {
      break;
    }
    message += "\n" + line;
  }
  if (isDoubled && message.find('\n') != std::string::npos) {
    message.erase(0, 1);
  }
  return LineResult::Line;
}

bool Chat::obey(const ChatCommand& command, bool replaces) {
  switch (command.kind) {
    case ChatCommandKind::Message:
      answer(command.text, replaces);
      break;
    case ChatCommandKind::Context:
      printContext();
      break;
    case ChatCommandKind::Reset:
      engine.backend->reset();
      say("The conversation is forgotten.");
      break;
    case ChatCommandKind::Stats:
      printStats();
      break;
    case ChatCommandKind::Set:
      if (const kel::Status status = configureEngine(command.sampling, engine); !status.ok()) {
        say(status.message);
      }
      break;
    case ChatCommandKind::ShowSettings:
      say(samplingText(engine.backend->sampling()));
      break;
    case ChatCommandKind::Multiline:
      multiline = !multiline;
      say(multiline ? "A line with a single dot ends a message." : "One line is one message.");
      break;
    case ChatCommandKind::Help:
      remark(chatHelp(terminalColumns(STDERR_FILENO)));
      break;
    case ChatCommandKind::Quit:
      return false;
    case ChatCommandKind::Unknown:
      say(command.text);
      break;
    case ChatCommandKind::Nothing:
      break;
    case ChatCommandKind::Retry:
    case ChatCommandKind::Edit:
    case ChatCommandKind::System:
    case ChatCommandKind::Think:
    case ChatCommandKind::Save:
    case ChatCommandKind::Load:
      obeyOnConversation(command);
      break;
  }
  return true;
}

void Chat::obeyOnConversation(const ChatCommand& command) {
  Conversation* conversation = engine.backend->conversation();
  if (conversation == nullptr) {
    say(beyondLibraries("/" + std::string(chatCommandName(command.kind))).message);
    failed = true;
    return;
  }
  switch (command.kind) {
    case ChatCommandKind::Retry:
      retry(*conversation);
      break;
    case ChatCommandKind::Edit:
      edit(*conversation, command.text);
      break;
    case ChatCommandKind::System:
      setSystem(*conversation, command.text);
      break;
    case ChatCommandKind::Think:
      setThinking(*conversation, command.text);
      break;
    case ChatCommandKind::Save:
      save(*conversation, pathOf(command.text));
      break;
    case ChatCommandKind::Load:
      load(*conversation, pathOf(command.text));
      break;
    default:
      break;
  }
}

TurnReport Chat::showReply(const std::string& message, bool replaces) {
  const bool styled = styleWanted(STDOUT_FILENO);
  bool isThinking = false;
  const auto wrapped = [this](std::string_view text) {
    return replyOnTerminal ? wrap.feed(withoutControls(text), terminalColumns(STDOUT_FILENO))
                           : std::string(text);
  };
  const auto show = [&](std::string_view text) {
    if (std::exchange(isThinking, false)) {
      write(dimmed(wrap.finish(), styled) + "\n\n");
    }
    write(wrapped(text));
  };
  // Not part of the reply that a script wants.
  const auto showReasoning = [&](std::string_view text) {
    if (replyOnTerminal) {
      isThinking = true;
      write(dimmed(wrapped(text), styled));
    }
  };
  const ReplyShow sinks{show, showReasoning};
  TurnReport report = replaces ? runReplacement(engine, message, sinks, true)
                               : runTurn(engine, message, sinks, true);
  write(dimmed(wrap.finish(), styled && isThinking) + "\n");
  return report;
}

void Chat::answer(const std::string& message, bool replaces) {
  const TurnReport report = showReply(message, replaces);
  if (report.end == TurnEnd::Failed || report.end == TurnEnd::ContextFull) {
    failed = true;
  }
  explainEnd(report);
  if (options.showsUse) {
    printUse(report);
  }
  keepSession(report);
}

void Chat::explainEnd(const TurnReport& report) {
  const BackendLimits limits = engine.backend->limits();
  for (const CalledTool& call : report.calls) {
    say(fmt::format("(the model asks for {} {}; no tools are offered here)", call.name,
                    call.arguments));
  }
  switch (report.end) {
    case TurnEnd::Limit:
      say(fmt::format("(cut at {} tokens; say \"go on\" for more)", limits.turnTokens));
      break;
    case TurnEnd::Cancelled:
      say("(stopped)");
      break;
    case TurnEnd::ContextFull:
      say(fmt::format("The context of {} positions is full; /reset starts afresh.",
                      limits.contextCapacity));
      break;
    case TurnEnd::Failed:
      complain(report.backendFault ? report.fault + ", /reset starts afresh" : report.fault);
      break;
    case TurnEnd::Stopped:
    case TurnEnd::StopString:
    case TurnEnd::Unknown:
      break;
  }
}

void Chat::keepSession(const TurnReport& report) {
  Conversation* conversation = engine.backend->conversation();
  if (options.session.empty() || report.end == TurnEnd::Failed || !conversation->lastMessage()) {
    return;
  }
  if (const kel::Status status = conversation->save(options.session); !status.ok()) {
    complain("the session is not kept: " + status.message);
    failed = true;
  }
}

void Chat::write(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

void Chat::printStats() {
  const BackendStats stats = engine.backend->stats();
  const BackendLimits limits = engine.backend->limits();
  std::string text =
      fmt::format("{} of {} positions in use", stats.contextTokens, limits.contextCapacity);
  if (stats.contextTokens > 0 && stats.decodeMsTotal > 0) {
    text += fmt::format(", {:.1f} ms a position, the last one {:.1f} ms",
                        stats.decodeMsTotal / static_cast<double>(stats.contextTokens),
                        stats.lastDecodeMs);
  }
  say(text);
}

void Chat::printContext() {
  const Conversation* conversation = engine.backend->conversation();
  if (conversation == nullptr) {
    printStats();
    return;
  }
  std::string text = useText(conversation->use());
  if (const Sampling sampling = engine.backend->sampling(); sampling.temperature) {
    text += fmt::format("{:<11}{}\n", "seed", *sampling.seed);
  }
  text.pop_back();
  say(text);
}

void Chat::printUse(const TurnReport& report) {
  const BackendStats stats = engine.backend->stats();
  std::string text = "(";
  if (report.usage) {
    const Usage& usage = *report.usage;
    const uint64_t read = usage.promptTokens - usage.reusedTokens;
    text += fmt::format("read {} tokens, {:.1f}/s; reused {}; reply {} tokens, {:.1f}/s; ", read,
                        rateOf(read, usage.promptSeconds), usage.reusedTokens, usage.replyTokens,
                        rateOf(usage.replyTokens, usage.replySeconds));
  }
  say(text + fmt::format("{} of {} positions)", stats.contextTokens,
                         engine.backend->limits().contextCapacity));
}

void Chat::retry(Conversation& conversation) {
  const std::optional<std::string> message = conversation.lastMessage();
  if (!message) {
    say("Nothing has been said yet.");
    return;
  }
  if (!engine.backend->sampling().temperature) {
    say("(at temperature 0 the reply stays the same; /set temperature 0.7)");
  }
  answer(*message, true);
}

void Chat::edit(Conversation& conversation, const std::string& text) {
  const std::optional<std::string> message = conversation.lastMessage();
  if (!message) {
    say("Nothing has been said yet.");
    return;
  }
  if (!text.empty()) {
    answer(text, true);
    return;
  }
  const bool isLikeCommand = message->starts_with('/') && message->find('\n') == std::string::npos;
  editing = lines->offer((isLikeCommand ? "/" : "") + *message);
  if (!editing) {
    say("Lines are not edited here; /edit TEXT puts TEXT in the place of the last message.");
  }
}

void Chat::setSystem(Conversation& conversation, const std::string& text) {
  if (text.empty()) {
    say(conversation.system().empty() ? "There is no system message." : conversation.system());
    return;
  }
  conversation.setSystem(text == "-" ? "" : text);
  if (conversation.lastMessage()) {
    say("(the next message has the conversation read again)");
  }
}

void Chat::setThinking(Conversation& conversation, const std::string& word) {
  if (!word.empty()) {
    if (const kel::Status status = conversation.setThinking(word == "on"); !status.ok()) {
      say(status.message);
      return;
    }
  }
  say(conversation.thinks() ? "Replies begin with reasoning." : "Replies come without reasoning.");
}

void Chat::save(Conversation& conversation, const std::string& path) {
  const kel::Status status = conversation.save(path);
  failed = failed || !status.ok();
  say(status.ok() ? "Saved to " + path + "." : status.message);
}

void Chat::load(Conversation& conversation, const std::string& path) {
  const kel::Status status = conversation.load(path);
  failed = failed || !status.ok();
  say(status.ok() ? fmt::format("{} messages from {}.", conversation.use().messages, path)
                  : status.message);
}

// Takes up the conversation in the session's file, if there is one.
kel::Status openSession(const ChatLoopOptions& options, Engine& engine, bool& isResumed) {
  const fs::path path = options.session;
  std::error_code error;
  isResumed = fs::exists(path, error);
  if (isResumed) {
    return engine.backend->conversation()->load(options.session);
  }
  // Told before there is something to lose.
  const fs::path folder = path.has_parent_path() ? path.parent_path() : ".";
  if (error || access(folder.c_str(), W_OK | X_OK) != 0) {
    return kel::Status::invalid(
        options.session + ": cannot be made: " + std::strerror(error ? error.value() : errno));
  }
  return kel::Status::success();
}

}  // namespace

int holdChat(Engine engine, const ChatLoopOptions& options) {
  if (!options.session.empty()) {
    Conversation& conversation = *engine.backend->conversation();
    const std::string asked = conversation.system();
    bool isResumed = false;
    const kel::Status status = openSession(options, engine, isResumed);
    if (!status.ok()) {
      complain(status.message);
      return 1;
    }
    if (!asked.empty() && asked != conversation.system()) {
      conversation.setSystem(asked);
    }
    if (isResumed) {
      say(fmt::format("({} messages from {})", conversation.use().messages, options.session));
    }
  }
  catchInterrupts();
  return Chat(std::move(engine), options).loop();
}

}  // namespace zym
