// What the commands that generate text need from a runtime. They use this interface alone, whatever
// implements it.
//
// One call at a time per backend, from any thread; only the cancel flag may change meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"

namespace zym {

// Members without a value leave the backend's setting as it is.
struct Sampling {
  std::optional<float> temperature = {};  // 0 is greedy
  std::optional<int32_t> topK = {};
  std::optional<float> topP = {};
  std::optional<uint32_t> seed = {};

  // What follows not every backend has.
  std::optional<float> minP = {};
  std::optional<float> presencePenalty = {};
  std::optional<float> frequencyPenalty = {};
  std::optional<float> repetitionPenalty = {};
  std::optional<int32_t> repetitionWindow = {};  // 0: all tokens
  std::map<int32_t, float> logitBias = {};
};

struct BackendStats {
  uint64_t contextTokens = 0;  // positions the conversation holds
  double decodeMsTotal = 0;    // forward passes since the last reset, those of prompts too
  double lastDecodeMs = 0;     // a position's share of the last pass
};

struct BackendLimits {
  uint64_t turnTokens;       // tokens that one generating call emits at most
  uint64_t contextCapacity;  // positions that a conversation may hold
};

// A piece of a reply: UTF-8, whole characters, perhaps none. Called on the thread that called turn,
// between forward passes.
using PieceSink = std::function<void(std::string_view piece)>;

// Told how many tokens of a prompt have been read; not every backend can tell.
using PromptSink = std::function<void(uint64_t done, uint64_t total)>;

// What a generating call is watched and stopped by; all may be null.
struct TurnCalls {
  PieceSink piece;
  PieceSink reasoning;  // of models that think before they answer
  PromptSink prompt;
  volatile int* cancel = nullptr;  // set from anywhere to what is not 0
};

// Unknown: a completion that may have stopped by itself or been cut at the limit. A runtime library
// reports neither the reason nor the number of pieces, and the filled positions do not tell either:
// a completion that stops one piece early fills as many as one that was cut.
enum class TurnEnd { Stopped, StopString, Limit, Cancelled, ContextFull, Unknown, Failed };

// What a reply took.
struct Usage {
  uint64_t promptTokens = 0;  // of what the reply is to
  uint64_t reusedTokens = 0;  // of those, not read again
  uint64_t replyTokens = 0;
  double promptSeconds = 0;
  double replySeconds = 0;
};

// A function that the model asks to have called.
struct CalledTool {
  std::string name;
  std::string arguments;  // a JSON object
};

struct TurnOutcome {
  TurnEnd end = TurnEnd::Failed;
  std::string stopString;      // that ended it
  uint64_t pieces = 0;         // tokens of the reply
  std::optional<Usage> usage;  // where the backend counts
  std::vector<CalledTool> calls;
  bool needsReset = false;  // of a failure: the conversation has no room left, or may be damaged
};

struct ConversationUse {
  uint64_t positions = 0;
  uint64_t capacity = 0;
  uint64_t messages = 0;      // the system message among them
  uint64_t readTokens = 0;    // of prompts, since the backend was opened
  uint64_t reusedTokens = 0;  // of prompts, not read again
  uint64_t snapshots = 0;     // places to go back to without reading
  uint64_t snapshotBytes = 0;
  double promptTokensPerSecond = 0;  // 0: not measured yet
  double replyTokensPerSecond = 0;
};

// What can be done to the conversation of a backend that keeps its messages.
class Conversation {
 public:
  virtual ~Conversation() = default;

  // The message in front of all others; empty: none. A new one takes effect with the next turn,
  // which reads the conversation again.
  virtual const std::string& system() const = 0;
  virtual void setSystem(const std::string& text) = 0;
  // Whether replies begin with reasoning. Refused on a model that cannot.
  virtual bool thinks() const = 0;
  virtual kel::Status setThinking(bool thinks) = 0;

  // The user's last message that was said.
  virtual std::optional<std::string> lastMessage() const = 0;
  // Like Backend::turn, with text in the place of that message and the reply to it. What was said
  // stays when the turn fails or is cancelled before the reply.
  virtual kel::Status replaceLast(const std::string& text, const TurnCalls& calls,
                                  TurnOutcome& outcome) = 0;

  // To a file, complete or not at all, in place of a conversation in it; any other file is left
  // alone. And back: of a file that cannot be had, nothing is taken.
  virtual kel::Status save(const std::string& path) = 0;
  virtual kel::Status load(const std::string& path) = 0;

  virtual ConversationUse use() const = 0;
};

class Backend {
 public:
  virtual ~Backend() = default;

  // Feeds text, as it was typed, as the user's next message and streams the reply. The cancel flag
  // ends the turn after the piece in flight. Set while the message is read, it ends the turn before
  // the reply; whether the message then counts as said is the backend's.
  virtual kel::Status turn(const std::string& text, const TurnCalls& calls,
                           TurnOutcome& outcome) = 0;
  // Completes a prompt from an empty context; ends the conversation. Not every backend streams: one
  // that does not hands over the whole reply as one piece, and looks at no flag.
  virtual kel::Status complete(const std::string& prompt, const TurnCalls& calls,
                               TurnOutcome& outcome) = 0;
  // Empties the context; sampling settings stay.
  virtual void reset() = 0;
  // All of the settings, or none of them where one is out of the backend's range or none of its
  // settings; the message names it.
  virtual kel::Status configure(const Sampling& sampling) = 0;
  // The settings in force, as far as the backend knows them; those without effect have no value.
  virtual Sampling sampling() const = 0;
  virtual BackendStats stats() = 0;
  virtual BackendLimits limits() const = 0;
  // Whether top-p is held against weights relative to the best token, so that below 1 it leaves
  // that token alone.
  virtual bool hasRelativeTopP() const = 0;
  // What to tell people once before they talk with the model; empty: nothing.
  virtual std::string chatRemark() const { return {}; }
  // Null where the backend keeps no messages. Lives as long as the backend.
  virtual Conversation* conversation() { return nullptr; }
};

}  // namespace zym
