// zym chat: a conversation at the terminal, or through pipes.
#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/chat/chat_command.h"
#include "host/chat/sampling_settings.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/line_reader.h"
#include "host/terminal/reply_wrap.h"
#include "host/terminal/terminal.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

class Chat {
 public:
  explicit Chat(Engine ready)
      : engine(std::move(ready)),
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
  // False when the line asks to leave.
  bool obey(const ChatCommand& command);
  void answer(const std::string& message);
  static void write(std::string_view text);
  void printStats();
  const char* hint() const { return "Leave with /quit, Ctrl-D, or Ctrl-C once more."; }

  Engine engine;
  std::unique_ptr<LineReader> lines;
  ReplyWrap wrap;
  bool interactive;
  bool replyOnTerminal;
  bool multiline = false;
  bool unanswered = false;  // a turn failed or found no room
  bool warned = false;      // the last thing at the prompt was a Ctrl-C
};

int Chat::loop() {
  if (interactive) {
    remark("Type a message. /help lists the commands.");
  }
  int status = 0;
  std::string line;
  bool stays = true;
  while (stays && readMessage(line, status)) {
    stays = obey(parseChatCommand(line));
  }
  // At a terminal the message of the failure was seen; a script has only the exit status.
  return status == 0 && unanswered && !interactive ? 1 : status;
}

LineResult Chat::readLine(const char* prompt, std::string& line) {
  while (true) {
    bool wasEmpty = true;
    const LineResult result = lines->read(prompt, line, wasEmpty);
    if (result != LineResult::Interrupted) {
      warned = false;
      return result;
    }
    if (warned || !interactive) {
      return result;
    }
    if (wasEmpty) {
      remark(hint());
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
    if (multiline && !isChatCommand(message)) {
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
      remark("(the message is dropped)");
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

bool Chat::obey(const ChatCommand& command) {
  switch (command.kind) {
    case ChatCommandKind::Message:
      answer(command.text);
      break;
    case ChatCommandKind::Reset:
      engine.backend->reset();
      remark("The conversation is forgotten.");
      break;
    case ChatCommandKind::Stats:
      printStats();
      break;
    case ChatCommandKind::Set:
      if (const kel::Status status = configureEngine(command.sampling, engine); !status.ok()) {
        remark(status.message);
      }
      break;
    case ChatCommandKind::ShowSettings:
      remark(samplingText(engine.sampling));
      break;
    case ChatCommandKind::Multiline:
      multiline = !multiline;
      remark(multiline ? "A line with a single dot ends a message." : "One line is one message.");
      break;
    case ChatCommandKind::Help:
      remark(kChatHelp);
      break;
    case ChatCommandKind::Quit:
      return false;
    case ChatCommandKind::Unknown:
      remark(command.text);
      break;
    case ChatCommandKind::Nothing:
      break;
  }
  return true;
}

void Chat::answer(const std::string& message) {
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
  const TurnReport report = runTurn(engine, message, {show, showReasoning}, true);
  write(wrap.finish() + "\n");
  const BackendLimits limits = engine.backend->limits();
  if (report.end == TurnEnd::Failed || report.end == TurnEnd::ContextFull) {
    unanswered = true;
  }
  switch (report.end) {
    case TurnEnd::Limit:
      remark(fmt::format("(cut at {} tokens; say \"go on\" for more)", limits.turnTokens));
      break;
    case TurnEnd::Cancelled:
      remark("(stopped)");
      break;
    case TurnEnd::ContextFull:
      remark(fmt::format("The context of {} positions is full; /reset starts afresh.",
                         limits.contextCapacity));
      break;
    case TurnEnd::Failed:
      complain(report.backendFault ? report.fault + ", /reset starts afresh" : report.fault);
      break;
    case TurnEnd::Stopped:
    case TurnEnd::Unknown:
      break;
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
  remark(text);
}

int chat(const EngineOptions& options) {
  Engine engine;
  const kel::Status status = openEngine(options, engine);
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  catchInterrupts();
  return Chat(std::move(engine)).loop();
}

}  // namespace

void addChat(CLI::App& program, Action& action) {
  auto options = std::make_shared<EngineOptions>();
  CLI::App* command = program.add_subcommand("chat", "Talk with a model");
  const auto model = addModel(*command, *options);
  addRaw(*command, options->raw);
  addReply(*command, *options);
  addSampling(*command, options->sampling);
  addExamples(*command,
              "  zym chat model.zym\n"
              "  zym chat model.zym --temperature 0.7 --top-k 40 --seed 1\n"
              "  printf 'Hello\\nWho are you?\\n' | zym chat model.zym");
  command->callback([options, model, &action] {
    action = onModel(model, options->model, [options] { return chat(*options); });
  });
}

}  // namespace zym
