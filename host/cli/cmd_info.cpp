// zym info: what a container holds.
#include <cstdio>
#include <memory>
#include <string>

#include "host/chat/open_failure.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/inspect/container_report.h"
#include "host/terminal/terminal.h"

namespace zym {
namespace {

struct InfoOptions {
  std::string file;
  std::string pattern;
  bool json = false;
};

int info(const InfoOptions& options) {
  kel::Status status = checkInputFile(options.file);
  kel::ZYMLoader loader;
  if (status.ok()) {
    status = loader.open(options.file.c_str());
    if (!status.ok()) {
      status = openFailure(options.file, status);
    }
  }
  if (status.ok() && !options.pattern.empty() && !anyTensorMatches(loader, options.pattern)) {
    status = kel::Status::invalid(options.file + ": no tensor matches \"" + options.pattern +
                                  "\"; `zym info` without --tensors lists all");
  }
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  if (options.json) {
    std::printf("%s\n", reportJson(loader, options.pattern).dump(2).c_str());
    return 0;
  }
  if (options.pattern.empty()) {
    std::printf("%s\n", summaryText(loader).c_str());
  }
  std::printf("%s", tensorTableText(loader, options.pattern).c_str());
  return 0;
}

}  // namespace

void addInfo(const Command& program, Action& action) {
  auto options = std::make_shared<InfoOptions>();
  const Command command = program.addCommand("info", "Show what a model holds");
  const auto model = addModelArgument(command);
  command.addOption("--tensors", options->pattern, "Only the tensors whose names match")
      .typeName("PATTERN");
  command.addFlag("--json", options->json, "Everything as one JSON object");
  addExamples(command,
              "  zym info model.zym\n"
              "  zym info model.zym --tensors 'blk.0.*'\n"
              "  zym info model.zym --json");
  command.onCall([options, model, &action] {
    action = onModel(model, options->file, [options] { return info(*options); });
  });
}

}  // namespace zym
