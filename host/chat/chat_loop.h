// A conversation at the terminal, or through pipes.
#pragma once

#include <string>

#include "host/chat/engine.h"

namespace zym {

struct ChatLoopOptions {
  std::string session;    // file that keeps the conversation; empty: none does
  bool showsUse = false;  // a line after every reply tells what it took
};

// Reads messages and commands from standard input until it ends; returns the program's exit status.
int holdChat(Engine engine, const ChatLoopOptions& options);

}  // namespace zym
