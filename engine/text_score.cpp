#include "engine/text_score.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace engine {

namespace {

using kel::Status;
using Fed = Context::Fed;

// Enough for products with the output matrix to be nearly as fast as in a whole batch; with a
// vocabulary of 248,320 tokens their logits take 64 MB.
constexpr size_t kScoredAtOnce = 64;

// Calls work(i) for every i below n, each once, on at most `threads` threads.
template <typename Work>
void inParallel(size_t n, size_t threads, const Work& work) {
  std::atomic<size_t> next = 0;
  const auto takePieces = [&] {
    for (size_t i = next++; i < n; i = next++) {
      work(i);
    }
  };
  std::vector<std::jthread> others;
  while (others.size() + 1 < std::min(n, threads)) {
    others.emplace_back(takePieces);
  }
  takePieces();
}

// What is known of one prediction.
struct Prediction {
  double loss = 0;
  double referenceLoss = 0;
  double divergence = 0;
  bool isSameBest = false;
};

class Scorer {
 public:
  Scorer(const ScoredModels& scored, std::span<const int32_t> text, const ScoreOptions& chosen,
         const ScoreProgress& told, const volatile int* flag, TextScore& result)
      : models(scored),
        ids(text),
        options(chosen),
        progress(told),
        cancel(flag),
        score(result),
        windows(textWindows(text.size(), chosen.window, chosen.stride)),
        vocab(scored.model.model().sizes().vocab),
        logits(kScoredAtOnce * vocab),
        referenceLogits(scored.reference == nullptr ? 0 : logits.size()) {
    for (const TextWindow& window : windows) {
      total += (window.length - 1) * (models.reference == nullptr ? 1 : 2);
    }
  }

  Fed run(Status& status) {
    for (const TextWindow& window : windows) {
      const Fed outcome = scoreWindow(window, status);
      if (outcome != Fed::All) {
        return outcome;
      }
      ++score.windows;
    }
    return Fed::All;
  }

 private:
  // What follows the last token of a window is not asked for, so that this one is not fed.
  Fed scoreWindow(const TextWindow& window, Status& status) {
    const size_t firstAsked = window.firstScored - 1;
    const size_t end = window.first + window.length - 1;
    Fed outcome = readAhead(models.model, window.first, firstAsked, status);
    if (outcome == Fed::All && models.reference != nullptr) {
      outcome = readAhead(*models.reference, window.first, firstAsked, status);
    }
    for (size_t at = firstAsked; outcome == Fed::All && at < end; at += kScoredAtOnce) {
      outcome = scorePart(at, std::min(kScoredAtOnce, end - at), status);
    }
    return outcome;
  }

  // Tokens of a window whose logits nobody asks for.
  Fed readAhead(Context& context, size_t begin, size_t end, Status& status) {
    context.reset();
    if (begin == end) {
      return Fed::All;
    }
    const uint64_t before = done;
    const auto tell = [&](size_t read, size_t) {
      done = before + read;
      tellProgress();
    };
    return context.feed(promptTokens(ids.subspan(begin, end - begin)), tell, cancel, status);
  }

  Fed scorePart(size_t begin, size_t count, Status& status) {
    Fed outcome = read(models.model, begin, count, logits, status);
    if (outcome == Fed::All && models.reference != nullptr) {
      outcome = read(*models.reference, begin, count, referenceLogits, status);
    }
    if (outcome == Fed::All) {
      compare(begin, count);
    }
    return outcome;
  }

  Fed read(Context& context, size_t begin, size_t count, std::span<float> out, Status& status) {
    const Fed outcome = context.feedForLogits(promptTokens(ids.subspan(begin, count)),
                                              out.first(count * vocab), cancel, status);
    if (outcome == Fed::All) {
      done += count;
      tellProgress();
    }
    return outcome;
  }

  // The threads look at predictions; sums are formed in the order of the text.
  void compare(size_t begin, size_t count) {
    std::vector<Prediction> predictions(count);
    inParallel(count, options.threads, [&](size_t i) {
      const auto own = std::span<const float>(logits).subspan(i * vocab, vocab);
      const int32_t next = ids[begin + i + 1];
      Prediction& made = predictions[i];
      made.loss = negativeLogLikelihood(own, next);
      if (models.reference != nullptr) {
        const auto other = std::span<const float>(referenceLogits).subspan(i * vocab, vocab);
        made.referenceLoss = negativeLogLikelihood(other, next);
        made.divergence = klDivergence(other, own);
        made.isSameBest = haveSameBest(other, own);
      }
    });
    for (const Prediction& made : predictions) {
      score.losses.add(made.loss);
      if (models.reference != nullptr) {
        score.referenceLosses.add(made.referenceLoss);
        score.excess.add(made.loss - made.referenceLoss);
        score.distance.add(made.divergence, made.isSameBest);
      }
    }
  }

  void tellProgress() const {
    if (progress) {
      progress(done, total);
    }
  }

  const ScoredModels& models;
  std::span<const int32_t> ids;
  const ScoreOptions& options;
  const ScoreProgress& progress;
  const volatile int* cancel;
  TextScore& score;
  std::vector<TextWindow> windows;
  size_t vocab;
  std::vector<float> logits;           // [kScoredAtOnce][vocab]
  std::vector<float> referenceLogits;  // likewise, where there is a reference
  uint64_t done = 0;
  uint64_t total = 0;
};

Status check(std::span<const int32_t> ids, const ScoreOptions& options) {
  if (options.window < 2) {
    return Status::invalid("a window has to have at least 2 tokens");
  }
  if (options.stride < 1 || options.stride > options.window) {
    return Status::invalid("the stride of windows of " + std::to_string(options.window) +
                           " tokens must be from 1 to " + std::to_string(options.window) +
                           ", not " + std::to_string(options.stride));
  }
  if (ids.empty()) {
    return Status::invalid("the text is empty");
  }
  return ids.size() > 1 ? Status::success()
                        : Status::invalid("the text has one token, in front of which is nothing");
}

}  // namespace

Status checkSameVocabulary(const Model& model, const Model& reference) {
  const auto different = [](const std::string& how) {
    return Status::invalid("the models have different vocabularies: " + how);
  };
  const uint64_t count = model.sizes().vocab;
  if (reference.sizes().vocab != count) {
    return different(std::to_string(count) + " and " + std::to_string(reference.sizes().vocab) +
                     " tokens");
  }
  const std::vector<std::string>& own = model.tokenizer().tokens;
  const std::vector<std::string>& other = reference.tokenizer().tokens;
  const size_t id = static_cast<size_t>(
      std::mismatch(own.begin(), own.end(), other.begin(), other.end()).first - own.begin());
  if (id == own.size() && id == other.size()) {
    return Status::success();
  }
  const auto nameOf = [id](const std::vector<std::string>& tokens) {
    return id < tokens.size() ? "\"" + tokens[id] + "\"" : "none";
  };
  return different("token " + std::to_string(id) + " is " + nameOf(own) + " and " + nameOf(other));
}

Fed scoreText(const ScoredModels& models, std::span<const int32_t> ids, const ScoreOptions& options,
              const ScoreProgress& progress, const volatile int* cancel, TextScore& score,
              Status& status) {
  score = {};
  status = check(ids, options);
  if (!status.ok()) {
    return Fed::Failed;
  }
  try {
    return Scorer(models, ids, options, progress, cancel, score).run(status);
  } catch (const std::bad_alloc&) {
    status = Status::ioError("not enough memory to hold the logits of a text");
    return Fed::Failed;
  }
}

}  // namespace engine
