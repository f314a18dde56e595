// zym perplexity: how well a model foretells a text, and how far it is from a reference.
#include <fmt/core.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "engine/text_score.h"
#include "engine/utf8_text.h"
#include "host/chat/engine_backend.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/cli/text_source.h"
#include "host/cli/threads.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"

namespace zym {
namespace {

using engine::Context;
using kel::Status;

constexpr uint64_t kDefaultWindow = 2048;

struct PerplexityOptions {
  std::shared_ptr<ModelArgument> given;
  std::shared_ptr<ModelArgument> givenReference = std::make_shared<ModelArgument>();
  std::string model;  // containers of them
  std::string reference;
  std::string file;     // "-": standard input
  uint64_t window = 0;  // 0: kDefaultWindow, or as many as the models have room for
  uint64_t stride = 0;  // 0: half the window
  std::string cache = "f32";
  bool json = false;
};

// What was evaluated, and how it went.
struct Evaluation {
  size_t tokens = 0;  // of the text
  engine::ScoreOptions options;
  engine::TextScore score;
};

using ModelPointer = std::shared_ptr<const engine::Model>;

// What the model reads, with the beginning token that its container asks for.
std::vector<int32_t> idsOf(const engine::Model& model, const std::string& text) {
  if (!engine::isValid(text)) {
    remark("(the text is not valid UTF-8; bytes that belong to no character are read as U+FFFD)");
  }
  std::vector<int32_t> ids;
  if (model.tokenizer().bosId >= 0) {
    ids.push_back(model.tokenizer().bosId);
  }
  model.textEncoder().encode(text, ids);
  return ids;
}

Status openModels(const PerplexityOptions& options, ModelPointer& model, ModelPointer& reference) {
  Status status = checkInputFile(options.model);
  if (status.ok()) {
    status = openModel(options.model, model);
  }
  if (!status.ok() || options.reference.empty()) {
    return status;
  }
  status = checkInputFile(options.reference);
  if (status.ok()) {
    status = openModel(options.reference, reference);
  }
  return status.ok() ? checkSameVocabulary(*model, *reference) : status;
}

engine::ScoreOptions scoreOptionsOf(const PerplexityOptions& options, const engine::Model& model,
                                    const engine::Model* reference) {
  engine::ScoreOptions chosen;
  chosen.window = options.window;
  if (chosen.window == 0) {
    chosen.window = std::min(kDefaultWindow, model.shape().contextLength);
    if (reference != nullptr) {
      chosen.window = std::min(chosen.window, reference->shape().contextLength);
    }
  }
  chosen.stride = options.stride == 0 ? chosen.window / 2 : options.stride;
  chosen.threads = static_cast<size_t>(threadCount());
  return chosen;
}

// With room for what is read of a text at a time. Places to go back to are of no use.
Status makeContext(const PerplexityOptions& options, const std::string& path, ModelPointer model,
                   uint64_t positions, std::unique_ptr<Context>& context) {
  Status status = Context::create(
      std::move(model),
      {.positions = positions, .snapshotBytes = 0, .cacheType = cacheTypeOf(options.cache)},
      context);
  return status.ok() ? status : Status{status.code, path + ": " + status.message};
}

Context::Fed evaluate(const PerplexityOptions& options, Evaluation& evaluation, Status& status) {
  std::string text;
  status = options.file == "-" ? readStandardInput(text) : readTextFile(options.file, text);
  ModelPointer model;
  ModelPointer reference;
  if (status.ok()) {
    status = openModels(options, model, reference);
  }
  if (!status.ok()) {
    return Context::Fed::Failed;
  }
  const std::vector<int32_t> ids = idsOf(*model, text);
  evaluation.tokens = ids.size();
  evaluation.options = scoreOptionsOf(options, *model, reference.get());
  const uint64_t positions = std::max<uint64_t>(1, std::min(evaluation.options.window, ids.size()));
  std::unique_ptr<Context> context;
  std::unique_ptr<Context> referenceContext;
  status = makeContext(options, options.model, model, positions, context);
  if (status.ok() && reference != nullptr) {
    status = makeContext(options, options.reference, reference, positions, referenceContext);
  }
  if (!status.ok()) {
    return Context::Fed::Failed;
  }
  Progress bar("evaluating", ProgressUnit::Positions);
  const Context::Fed outcome = scoreText(
      {*context, referenceContext.get()}, ids, evaluation.options,
      [&bar](uint64_t done, uint64_t total) { bar.update(done, total); }, cancelFlag(),
      evaluation.score, status);
  if (status.code == kel::StatusCode::Corrupted) {
    status.message += "; `zym check --full` names the tensors at fault";
  }
  return outcome;
}

std::string withError(double value, double error) {
  return fmt::format("{:.4f} ± {:.4f}", value, error);
}

std::string perplexityText(const engine::RunningMean& losses) {
  const engine::Perplexity perplexity = perplexityOf(losses);
  return withError(perplexity.value, perplexity.standardError);
}

void printTable(const Evaluation& evaluation, bool hasReference) {
  const engine::TextScore& score = evaluation.score;
  const auto line = [](const char* name, const std::string& value) {
    fmt::print("{:<16} {}\n", name, value);
  };
  line("perplexity", perplexityText(score.losses));
  if (hasReference) {
    const engine::ModelDistance& distance = score.distance;
    line("of the reference", perplexityText(score.referenceLosses));
    line("ratio", perplexityText(score.excess));
    line("KL divergence",
         fmt::format("{:.6f} ± {:.6f}, at most {:.4f}", distance.divergence.mean(),
                     distance.divergence.standardError(), distance.greatestDivergence));
    line("same best token", fmt::format("{:.2f} ± {:.2f} %", distance.sameBest.mean() * 100,
                                        distance.sameBest.standardError() * 100));
  }
  line("tokens scored", fmt::format("{} of {}", score.losses.count(), evaluation.tokens));
  line("windows", fmt::format("{} of {} tokens, {} apart", score.windows, evaluation.options.window,
                              evaluation.options.stride));
}

using Json = nlohmann::ordered_json;

Json meanJson(const engine::RunningMean& mean) {
  return {{"mean", mean.mean()}, {"standardError", mean.standardError()}};
}

Json perplexityJson(const engine::RunningMean& losses) {
  const engine::Perplexity perplexity = perplexityOf(losses);
  return {{"value", perplexity.value}, {"standardError", perplexity.standardError}};
}

void printJson(const PerplexityOptions& options, const Evaluation& evaluation) {
  const engine::TextScore& score = evaluation.score;
  Json all = {{"model", options.given->given},
              {"file", options.file},
              {"tokens", evaluation.tokens},
              {"tokensScored", score.losses.count()},
              {"windows", score.windows},
              {"window", evaluation.options.window},
              {"stride", evaluation.options.stride},
              {"cache", options.cache},
              {"negativeLogLikelihood", meanJson(score.losses)},
              {"perplexity", perplexityJson(score.losses)}};
  if (!options.reference.empty()) {
    Json divergence = meanJson(score.distance.divergence);
    divergence["greatest"] = score.distance.greatestDivergence;
    all["reference"] = {{"model", options.givenReference->given},
                        {"perplexity", perplexityJson(score.referenceLosses)},
                        {"perplexityRatio", perplexityJson(score.excess)},
                        {"klDivergence", divergence},
                        {"sameBestToken", meanJson(score.distance.sameBest)}};
  }
  fmt::print("{}\n", all.dump(2, ' ', false, Json::error_handler_t::replace));
}

std::string stoppedText(const engine::TextScore& score) {
  std::string text = fmt::format("stopped after {} windows", score.windows);
  if (score.losses.count() > 1) {
    text += fmt::format("; the perplexity of {} tokens is {}", score.losses.count(),
                        perplexityText(score.losses));
  }
  return text;
}

int perplexity(const PerplexityOptions& options) {
  catchRequestsToEnd();
  const CancelScope scope;
  Evaluation evaluation;
  Status status;
  switch (evaluate(options, evaluation, status)) {
    case Context::Fed::Failed:
      complain(status.message);
      return 1;
    case Context::Fed::Cancelled:
      complain(stoppedText(evaluation.score));
      return cancelledExit();
    case Context::Fed::All:
      break;
  }
  if (options.json) {
    printJson(options, evaluation);
  } else {
    printTable(evaluation, !options.reference.empty());
  }
  return 0;
}

}  // namespace

void addPerplexity(const Command& program, Action& action) {
  auto options = std::make_shared<PerplexityOptions>();
  const Command command = program.addCommand(
      "perplexity", "Measure how well a model foretells a text, or how far it is from another");
  options->given = addModelArgument(command);
  command.addOption("FILE", options->file, "The text; \"-\": read it from standard input")
      .required();
  command
      .addOption("--reference", options->givenReference->given,
                 "Compare with this model, such as the same weights in a larger type")
      .typeName("MODEL");
  const Option window =
      command
          .addOption("--window", options->window,
                     "Tokens that are read into an empty context at a time (default: "
                     "2048, or as many as the model has room for)")
          .range(2, 262144)
          .typeName("N");
  command
      .addOption("--stride", options->stride,
                 "Tokens from one window to the next (default: half the window, so that what "
                 "counts has half a window in front of it)")
      .range(1, 262144)
      .typeName("N");
  command
      .addOption("--cache", options->cache,
                 "Type of the attention caches; bf16 takes half the memory, and rounds")
      .oneOf({"f32", "bf16"})
      .typeName("f32|bf16");
  command.addFlag("--json", options->json, "One JSON object");
  addExamples(command,
              "  zym perplexity model.zym text.txt\n"
              "  zym perplexity model-q4.zym text.txt --reference model-bf16.zym\n"
              "  zym perplexity model.zym text.txt --window 512 --json");
  command.onCall([options, window, &action] {
    if (window.count() > 0 && options->stride > options->window) {
      refuseUse("--stride is at most --window");
    }
    options->givenReference->withoutCache = options->given->withoutCache;
    Action perform = [options] { return perplexity(*options); };
    if (!options->givenReference->given.empty()) {
      perform = onModel(options->givenReference, options->reference, std::move(perform));
    }
    action = onModel(options->given, options->model, std::move(perform));
  });
}

}  // namespace zym
