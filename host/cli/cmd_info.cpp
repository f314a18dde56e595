// zym info: what a container holds.
#include <cstdio>
#include <memory>
#include <string>

#include "host/cli/commands.h"
#include "host/inspect/container_report.h"
#include "host/inspect/open_failure.h"
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

void addInfo(CLI::App& program, Action& action) {
  auto options = std::make_shared<InfoOptions>();
  CLI::App* command = program.add_subcommand("info", "Show what a container holds");
  command->add_option("FILE", options->file, "Container file (.zym)")->required();
  command->add_option("--tensors", options->pattern, "Only the tensors whose names match")
      ->type_name("PATTERN");
  command->add_flag("--json", options->json, "Everything as one JSON object");
  addExamples(*command,
              "  zym info model.zym\n"
              "  zym info model.zym --tensors 'blk.0.*'\n"
              "  zym info model.zym --json");
  command->callback([options, &action] { action = [options] { return info(*options); }; });
}

}  // namespace zym
