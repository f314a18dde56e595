// One conversation's place in a model: the tokens fed so far, as caches and recurrent state, and
// the logits behind the last of them.
//
// Prompt tokens take the batch arithmetic, generated ones the single-token arithmetic
// (docs/architecture.md), and do so again when they are fed as part of a history: so the numbers of
// a text do not depend on how it was cut into calls, nor on what was read before or only
// remembered. Used by one thread at a time; the passes inside use several. Contexts are
// independent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "engine/bound_model.h"
#include "engine/model.h"
#include "engine/passes.h"
#include "engine/snapshot_store.h"
#include "qwen35/context.h"
#include "qwen35/model.h"
#include "qwen35/replay.h"
#include "qwen35/snapshot.h"

namespace engine {

// Bytes of remembered states; that of the 4B takes 50 MB.
constexpr uint64_t kDefaultSnapshotBytes = uint64_t{1} << 30;

// Tokens that a guess has at most.
constexpr size_t kMostGuessed = 7;

// Tokens of a long prompt between two places to go back to.
constexpr uint64_t kSnapshotInterval = 512;

struct ContextOptions {
  uint64_t positions = 0;  // at most the model's own; 0: those, at most kDefaultPositions
  size_t threads = 0;      // at most; 0: as qwen35/processors.h finds
  uint64_t snapshotBytes = kDefaultSnapshotBytes;
  // BF16 halves what positions take, and what reading them costs, for keys and values that are
  // rounded to eight bits (docs/engine.md has the error).
  qwen35::CacheType cacheType = qwen35::CacheType::F32;
  const qwen35::KernelTable* kernels = nullptr;  // null: the best that the machine has
  // To share with other contexts of the model; null: the context's own. Threads and kernels are
  // then those of the passes.
  std::shared_ptr<Passes> passes = nullptr;
};

struct Token {
  int32_t id = 0;
  bool isGenerated = false;  // by the model; otherwise read

  bool operator==(const Token&) const = default;
};

// The tokens of a text that is read.
std::vector<Token> promptTokens(std::span<const int32_t> ids);

// Told how many tokens of a prompt have been fed, after each batch.
using PromptProgress = std::function<void(size_t done, size_t total)>;

// Since the context was made.
struct ContextStatistics {
  uint64_t promptTokens = 0;     // fed in batches
  uint64_t generatedTokens = 0;  // fed in the single-token arithmetic
  uint64_t reusedTokens = 0;     // that resume() found in place, also where branchFrom() put them
  uint64_t acceptedGuesses = 0;  // tokens behind the first of feedGuess() that keep() left
  uint64_t rejectedGuesses = 0;  // tokens that keep() took back
  double promptSeconds = 0;
  double generatedSeconds = 0;  // of a pass that several contexts share, all of it
};

class Context {
 public:
  // Memory for the positions is taken as they are filled. IoError when there is not enough.
  static kel::Status create(std::shared_ptr<const Model> model, const ContextOptions& options,
                            std::unique_ptr<Context>& out);

  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  // Goes back to the longest beginning of `wanted` that the context holds or can return to, and
  // returns its length; the caller feeds what follows. That is all of wanted only where logits()
  // are those behind it.
  size_t resume(std::span<const Token> wanted);

  // The length that resume() would go back to.
  size_t held(std::span<const Token> wanted) const { return placeOf(wanted, capacity()).position; }

  // Takes over from one of others what it holds of `wanted`, where that is more than resume() would
  // find here, and true then: resume(wanted) finds it. What is copied are the caches and the state,
  // and the logits where they are known at that place, so that a text is fed once for all contexts
  // that begin with it. Places of this context within what it had in common with that remain. The
  // others are left as they are; those of another model or type of caches are passed over.
  // Allocates nothing.
  bool branchFrom(std::span<const Token> wanted, std::span<Context* const> others);

  // Remembers the place, to resume there later: the end of a message, say.
  void remember();

  enum class Fed : uint8_t { All, Cancelled, Failed };

  // Feeds tokens behind what is there; logits() are then those of the last. All or nothing: tokens
  // that have no room or no embedding row are refused before any is read; when numbers are not
  // finite, or *cancel ends the reading by not being 0 (looked at several times a second; may be
  // null), the context is left as it was, but without logits (at a beginning of that, where memory
  // had no room to remember it). status says why it failed. Long stretches are remembered every
  // kSnapshotInterval tokens.
  Fed feed(std::span<const Token> tokens, const PromptProgress& progress,
           const volatile int* cancel, kel::Status& status);

  // Feeds tokens of a longer text as feed() does, whose slices are then no places to go back to: a
  // failure goes back to the last place that is remembered. logits() only where they are wanted:
  // there are none behind a slice that others follow.
  enum class Logits : uint8_t { None, OfTheLast };
  Fed feedPart(std::span<const Token> tokens, Logits wanted, const PromptProgress& progress,
               const volatile int* cancel, kel::Status& status);
  // Feeds tokens as feed() does, and gives the logits behind each of them: logits is
  // [tokens][vocab]. No place is remembered: a reading that fails or is cancelled leaves the
  // context empty. What feed() refuses is refused here, too.
  Fed feedForLogits(std::span<const Token> tokens, std::span<float> logits,
                    const volatile int* cancel, kel::Status& status);

  // Feeds a generated token. After a failure for numbers that are not finite, only reset() helps.
  kel::Status feedToken(int32_t token);

  // Feeds a generated token to each of several contexts in one pass, which reads each weight once
  // for all of them. statuses[i] is the outcome of contexts[i], as its feedToken(tokens[i]) would
  // answer and with the same bits behind it: nothing of one context depends on the others, and one
  // that fails leaves them alone. The contexts share their passes, and none stands there twice.
  // Where memory has no room for the logits of all (the first time only), nothing is fed.
  static void feedTogether(std::span<Context* const> contexts, std::span<const int32_t> tokens,
                           std::span<kel::Status> statuses);

  // Feeds a generated token and a guess at those behind it in one pass, which reads each weight
  // once: 1 to kMostGuessed + 1 tokens. Each is as if it were fed by itself. logitsBehind(i) are
  // then those behind tokens[i]; the caller says by keep() how many of the tokens it holds for
  // right.
  kel::Status feedGuess(std::span<const int32_t> tokens);
  std::span<const float> logitsBehind(size_t i) const;

  // Once after feedGuess(): its first `count` tokens stay, at least one, and logits() are those
  // behind the last of them. Fails where those are not finite; then only reset() helps.
  kel::Status keep(size_t count);

  // [vocab] behind the last position; empty where none are known: in an empty context, and where
  // resume() or a failure went back.
  std::span<const float> logits() const;

  const std::vector<Token>& tokens() const { return fed; }
  uint64_t position() const { return fed.size(); }  // filled
  uint64_t capacity() const { return weights.maxCtx; }
  uint64_t snapshotBytes() const { return places.bytes(); }  // of remembered places
  const ContextStatistics& statistics() const { return counts; }
  size_t placeCount() const { return places.count(); }  // places to go back to
  uint64_t placeBytes() const;                          // of memory that they take

  // Writes tokens and state to a file, with a note of the caller's: complete or not at all. Places
  // are not written. The file is as large as the state and the filled cache positions.
  kel::Status save(const std::string& path, std::string_view note) const;

  // Takes the place of a saved context of the same model, and gives back the note; there are no
  // logits behind it. A file that is damaged, of another model or of another version is refused and
  // changes nothing.
  kel::Status load(const std::string& path, std::string& note);

  // Empties it and forgets every place.
  void reset();

  const Model& model() const { return *shared; }

 private:
  Context(std::shared_ptr<const Model> model, const ContextOptions& options);  // bad_alloc
  kel::Status loadSteps(const std::string& path, std::string& note);
  kel::Status check(std::span<const Token> tokens) const;
  Fed feedRuns(std::span<const Token> tokens, Logits wanted, const PromptProgress& progress,
               const volatile int* cancel, kel::Status& status);
  Fed feedBatch(std::span<const Token> tokens, bool isLast, const volatile int* cancel,
                std::span<float> allLogits = {});
  size_t batchLength(std::span<const Token> tokens, size_t longest) const;
  void embed(std::span<const Token> tokens);
  Fed finish(std::span<const Token> tokens, const float* hidden, bool isLast, double seconds);
  static void feedGroup(Passes& passes, std::span<Context* const> contexts,
                        std::span<const int32_t> tokens, std::span<kel::Status> statuses);

  // A beginning of a text that the context holds or can return to.
  struct Place {
    uint64_t position;
    bool isHere;  // nothing is to be gone back to
  };
  Place placeOf(std::span<const Token> wanted, uint64_t most) const;

  // What a pass over a guess leaves behind, made for the first one.
  struct Guess {
    explicit Guess(const qwen35::Model& m);

    qwen35::Snapshot before;
    qwen35::Replay replay;
    std::vector<float> logits;  // [tokens][vocab]
    size_t count = 0;           // tokens of the last pass
  };

  void goBackTo(uint64_t position);
  void count(std::span<const Token> tokens, double seconds);

  std::shared_ptr<const Model> shared;
  qwen35::Model weights;  // bound to the shared file; caches and state of its own
  std::shared_ptr<Passes> passes;
  SnapshotStore places;
  std::vector<Token> fed;  // has room for all positions
  std::vector<float> lastLogits;
  std::unique_ptr<Guess> guess;
  bool hasLogits = false;
  ContextStatistics counts;
};

// Whether the file at path begins as one that Context::save has written, of any version.
bool isSessionFile(const std::string& path);

}  // namespace engine
