// One conversation: everything that a runtime handle owns.
//
// Used by one host thread at a time; the forward passes inside use several.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "container/zym_loader.h"
#include "qwen35/context.h"
#include "qwen35/model.h"
#include "qwen35/snapshot.h"
#include "tokenizer/tokenizer.h"

namespace session {

struct Qwen35Session {
  static constexpr uint32_t kDefaultSeed = 42;

  std::unique_ptr<kel::ZYMLoader> loader;  // owns the file mapping that model points into
  qwen35::Model model;
  std::unique_ptr<qwen35::Context> context;       // null where the model cannot run
  std::unique_ptr<qwen35::Snapshot> beforeBatch;  // of a prompt; beside the context
  bool loaded = false;                            // every loading step succeeded
  std::unique_ptr<kel::Tokenizer> tokenizer;
  std::string modelPath;

  float temperature = 0;  // 0: greedy
  int32_t topK = 0;
  float topP = 0;
  uint64_t seed = kDefaultSeed;  // the generator was built with; reseeding leaves it
  std::mt19937 rng{kDefaultSeed};

  uint64_t position = 0;       // positions held in the model's caches
  uint64_t sampledTokens = 0;  // since the last reset
  double decodeMsTotal = 0;    // timed forward passes since the last reset
  double lastDecodeMs = 0;     // the last timed forward pass, divided by its tokens
  bool chatActive = false;     // the caches hold a conversation

  // Why the opened model cannot be run safely; empty when it can. Found once, at open; prefill
  // refuses to feed a model that has an entry here.
  std::string unfitReason;

  // To be asked before anything of a size from the file is allocated: a file of a kilobyte may
  // claim a vocabulary of billions.
  bool canRun() const { return context != nullptr; }

  // Empties the model's caches and zeroes the counters of a conversation. lastDecodeMs stays: it
  // reports the last measured pass until the host resets the session.
  void clearContext();

  // Clears the context and ends any chat: the next turn begins a new one.
  void endChat();
};

// Opens a model file into a session: container, architecture, tokenizer, layers, model, run check.
// False with a message in err (may be null or of capacity 0) on failure; the session then holds
// whatever was opened and is to be destroyed.
bool openSession(Qwen35Session* session, const char* path, char* err, size_t errCap);

}  // namespace session
