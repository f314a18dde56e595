// zym convert: a container from a GGUF file or a checkpoint directory.
#include <fmt/core.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "convert/convert.h"
#include "convert/storage_plan.h"
#include "host/cli/commands.h"
#include "host/cli/threads.h"
#include "host/inspect/conversion_report.h"
#include "host/serve/lower_case.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"
#include "host/terminal/units.h"

namespace zym {
namespace {

namespace fs = std::filesystem;
using kel::convert::ConvertOptions;
using kel::convert::ConvertResult;

// Shows the progress of a conversion and asks it to stop after Ctrl-C.
class ConversionWatch : public kel::convert::ProgressSink {
 public:
  void onProgress(uint64_t doneBytes, uint64_t totalBytes) override {
    bar.update(doneBytes, totalBytes);
  }
  bool cancelled() override { return scope.cancelled(); }

 private:
  Progress bar{"converting"};
  CancelScope scope{FurtherInterrupt::IsIgnored};
};

// Refuses what the converter would refuse too, but with messages that name this command's options.
kel::Status checkTarget(const ConvertOptions& options) {
  std::error_code error;
  if (fs::is_directory(options.target, error)) {
    return kel::Status::invalid(options.target + ": is a folder; name a file in it, " +
                                (fs::path(options.target) / "model.zym").string() +
                                " for instance");
  }
  if (!options.force && fs::exists(fs::symlink_status(options.target, error))) {
    return kel::Status::invalid(options.target +
                                ": exists already; --force replaces it, or choose another name");
  }
  return kel::Status::success();
}

ConvertResult convertWatched(const ConvertOptions& options) {
  catchRequestsToEnd();
  ConversionWatch watch;
  return kel::convert::convertModel(options, watch);
}

int convert(ConvertOptions options, const std::string& planFile) {
  kel::Status status = options.dryRun ? kel::Status::success() : checkTarget(options);
  if (status.ok() && !planFile.empty()) {
    status = kel::convert::readStoragePlan(planFile, options.storage.plan);
  }
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  options.threads = static_cast<unsigned>(threadCount());
  const ConvertResult result = convertWatched(options);
  if (result.cancelled) {
    complain("stopped; nothing was written");
    return cancelledExit();
  }
  if (!result.status.ok()) {
    complain(result.status.message);
    return 1;
  }
  if (options.dryRun) {
    fmt::print("{}at most {} in all; nothing was written\n", conversionText(result.summary),
               bytesText(result.summary.fileBytes));
  } else {
    fmt::print("{}: {}", options.target, conversionText(result.summary));
  }
  return 0;
}

// Adds an option of which find turns a word into a value, or into none when the word is unknown.
template <typename Value>
Option addChoice(const Command& command, const std::string& option, const std::string& words,
                 const std::string& what, std::optional<Value> (*find)(std::string_view),
                 std::optional<Value>& chosen) {
  return command
      .addOptionFunction<std::string>(
          option,
          [=, &chosen](const std::string& word) {
            chosen = find(word);
            if (!chosen) {
              refuseUse(fmt::format("{} is one of {}, not \"{}\"", option, words, word));
            }
          },
          what)
      .typeName(words);
}

// As with types and presets, capitals count as small letters.
std::optional<kel::convert::VocabularyForm> vocabularyFormByName(std::string_view word) {
  using kel::convert::VocabularyForm;
  const std::string name = lowerCase(word);
  if (name == "alphabet") {
    return VocabularyForm::Alphabet;
  }
  if (name == "raw") {
    return VocabularyForm::Raw;
  }
  return std::nullopt;
}

struct ConvertCommand {
  ConvertOptions options;
  std::optional<kel::convert::VocabularyForm> vocabulary;
  std::string planFile;
};

}  // namespace

void addConvert(const Command& program, Action& action) {
  constexpr const char* kTypes = "f32|bf16|q8_0|q5_k|q4_k";
  auto chosen = std::make_shared<ConvertCommand>();
  ConvertOptions& options = chosen->options;
  const Command command =
      program.addCommand("convert", "Make a container from a GGUF file or a checkpoint folder");
  command.addOption("SRC", options.source, "GGUF file, or folder with config.json").required();
  command.addOption("DST", options.target, "Container file to write (.zym)");
  const Option type =
      addChoice(command, "--type", kTypes, "Type of all matrices (default: kept where possible)",
                kel::convert::storageTypeByName, options.storage.type);
  addChoice(command, "--embedding-type", kTypes, "Type of the embedding",
            kel::convert::storageTypeByName, options.storage.embeddingType);
  addChoice(command, "--preset", "small|balanced|best|full", "Types by size, instead of --type",
            kel::convert::presetByName, options.storage.preset)
      .excludes(type);
  command
      .addOption("--plan", chosen->planFile,
                 "File of lines \"PATTERN TYPE\": the first that matches a tensor's name counts")
      .typeName("FILE");
  addChoice(command, "--vocab", "alphabet|raw",
            "How tokens are stored: in the byte alphabet (default), or as bytes",
            vocabularyFormByName, chosen->vocabulary);
  command.addOption("--name", options.name, "Name of the model (default: the source's)")
      .typeName("NAME");
  command.addFlag("--keep-mtp", options.keepPrediction, "Keep the layer of multi-token prediction");
  command.addFlag("--dry-run", options.dryRun,
                  "Say what would be stored how, and write nothing; needs no DST");
  command.addFlag("--force", options.force, "Replace DST where it exists");
  addExamples(command,
              "  zym convert model.gguf model.zym\n"
              "  zym convert checkpoint/ model.zym --preset balanced\n"
              "  zym convert checkpoint/ model.zym --type q8_0 --embedding-type bf16\n"
              "  zym convert checkpoint/ --plan types.plan --dry-run");
  command.onCall([chosen, &action] {
    if (chosen->options.target.empty() && !chosen->options.dryRun) {
      askFor("DST");
    }
    if (chosen->vocabulary) {
      chosen->options.vocabulary = *chosen->vocabulary;
    }
    action = [chosen] { return convert(chosen->options, chosen->planFile); };
  });
}

}  // namespace zym
