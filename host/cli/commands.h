// The subcommands. Each adds its options to the program's command line; when it is the one that was
// called, action is set to what carries it out and returns the exit status: 0 done, 1 failed, 2
// wrong use, 130 left by Ctrl-C, 128 and the number of another signal that ended the work.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>

#include "host/chat/engine.h"
#include "host/cli/command.h"

namespace zym {

using Action = std::function<int()>;
struct ModelArgument;  // model_argument.h

// Makes program the zym program: its own options, and all of the commands.
void addCommands(CLI::App& program, Action& action);

void addChat(const Command& program, Action& action);
void addRun(const Command& program, Action& action);
void addServe(const Command& program, Action& action);
void addBench(const Command& program, Action& action);
void addInfo(const Command& program, Action& action);
void addCheck(const Command& program, Action& action);
void addTokenize(const Command& program, Action& action);
void addPerplexity(const Command& program, Action& action);
void addConvert(const Command& program, Action& action);
void addCompletion(const Command& program, Action& action);
void addCache(const Command& program, Action& action);

// Options that the generating commands share.
// Their action is wrapped by onModel with what addModel returns.
std::shared_ptr<ModelArgument> addModel(const Command& command, EngineOptions& options);
void addSampling(const Command& command, Sampling& sampling);
void addRaw(const Command& command, bool& raw);
// What the reply of a model is like, but for its sampling, and the context that it is given in.
// Returned are the options that conversations alone have.
using ConversationOptions = std::array<Option, 3>;
ConversationOptions addReply(const Command& command, EngineOptions& options);
// Size and type of a context.
void addContext(const Command& command, EngineOptions& options);
// Puts examples below a command's help.
void addExamples(const Command& command, const std::string& lines);

}  // namespace zym
