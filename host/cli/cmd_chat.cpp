// zym chat: a conversation at the terminal, or through pipes.
#include <memory>
#include <utility>

#include "host/chat/chat_loop.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/terminal/terminal.h"

namespace zym {
namespace {

struct ChatOptions {
  EngineOptions engine;
  ChatLoopOptions loop;
};

int chat(const ChatOptions& options) {
  Engine engine;
  kel::Status status = options.loop.session.empty() || !namesPlugin(options.engine)
                           ? kel::Status::success()
                           : beyondLibraries("--session");
  if (status.ok()) {
    status = openEngine(options.engine, engine);
  }
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  return holdChat(std::move(engine), options.loop);
}

}  // namespace

void addChat(const Command& program, Action& action) {
  auto options = std::make_shared<ChatOptions>();
  const Command command = program.addCommand("chat", "Talk with a model");
  const auto model = addModel(command, options->engine);
  command
      .addOption("--session", options->loop.session,
                 "Keep the conversation in a file, and take it up again where there is one")
      .typeName("FILE");
  command.addFlag("--stats", options->loop.showsUse,
                  "Show after every reply what it took: tokens, speed, positions");
  addRaw(command, options->engine.raw);
  addReply(command, options->engine);
  addSampling(command, options->engine.sampling);
  addExamples(command,
              "  zym chat model.zym\n"
              "  zym chat model.zym --session talk.zyms --system 'Be brief.'\n"
              "  zym chat model.zym --temperature 0.7 --top-k 40 --seed 1\n"
              "  printf 'Hello\\nWho are you?\\n' | zym chat model.zym --greedy");
  command.onCall([options, model, &action] {
    action = onModel(model, options->engine.model, [options] { return chat(*options); });
  });
}

}  // namespace zym
