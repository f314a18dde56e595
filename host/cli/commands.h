// The subcommands. Each adds its options to the program's command line; when it is the one that was
// called, action is set to what carries it out and returns the exit status: 0 done, 1 failed, 2
// wrong use, 130 left by Ctrl-C, 128 and the number of another signal that ended the work.
#pragma once

#include <CLI/CLI.hpp>

#include <array>
#include <functional>
#include <memory>
#include <string>

#include "host/chat/engine.h"

namespace zym {

using Action = std::function<int()>;
struct ModelArgument;  // model_argument.h

// Makes program the zym program: its own options, and all of the commands.
void addCommands(CLI::App& program, Action& action);

void addChat(CLI::App& program, Action& action);
void addRun(CLI::App& program, Action& action);
void addServe(CLI::App& program, Action& action);
void addBench(CLI::App& program, Action& action);
void addInfo(CLI::App& program, Action& action);
void addCheck(CLI::App& program, Action& action);
void addTokenize(CLI::App& program, Action& action);
void addPerplexity(CLI::App& program, Action& action);
void addConvert(CLI::App& program, Action& action);
void addCompletion(CLI::App& program, Action& action);
void addCache(CLI::App& program, Action& action);

// Options that the generating commands share.
// Their action is wrapped by onModel with what addModel returns.
std::shared_ptr<ModelArgument> addModel(CLI::App& command, EngineOptions& options);
void addSampling(CLI::App& command, Sampling& sampling);
void addRaw(CLI::App& command, bool& raw);
// What the reply of a model is like, but for its sampling, and the context that it is given in.
// Returned are the options that conversations alone have.
using ConversationOptions = std::array<CLI::Option*, 3>;
ConversationOptions addReply(CLI::App& command, EngineOptions& options);
// Size and type of a context.
void addContext(CLI::App& command, EngineOptions& options);
// Puts examples below a command's help.
void addExamples(CLI::App& command, const std::string& lines);

}  // namespace zym
