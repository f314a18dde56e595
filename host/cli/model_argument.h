// The word MODEL of the commands: whatever it names, they see a container.
#pragma once

#include <memory>
#include <string>

#include "host/cli/commands.h"

namespace zym {

struct ModelArgument {
  std::string given;  // as typed, for messages
  bool withoutCache = false;
};

// Adds MODEL and --no-cache.
std::shared_ptr<ModelArgument> addModelArgument(const Command& command);

// What opens MODEL, sets container to the path of a container of it, and then carries out the
// command. A GGUF file or a checkpoint folder is converted unless the cache has its container;
// with --no-cache the container lasts as long as the command. container lives as long as perform.
Action onModel(std::shared_ptr<ModelArgument> model, std::string& container, Action perform);

}  // namespace zym
