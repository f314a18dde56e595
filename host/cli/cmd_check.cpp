// zym check: can this runtime run the file?
#include <fmt/format.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/inspect/container_check.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

std::vector<Fault> faultsOf(const std::string& path) {
  kel::ZYMLoader loader;
  const kel::Status status = loader.open(path.c_str());
  if (!status.ok()) {
    return {{"file", status.message}};
  }
  Progress progress("checking");
  return checkContainer(loader,
                        [&](uint64_t done, uint64_t total) { progress.update(done, total); });
}

// What makes a faulty container anew: one in the cache is no file of the user's.
std::string remedy(const std::string& container, const ModelArgument& model) {
  return container == model.given || model.withoutCache
             ? "`zym convert` makes the file anew"
             : fmt::format("`zym cache clear {}` has it converted anew", model.given);
}

int check(const std::string& path, const ModelArgument& model) {
  const kel::Status status = checkInputFile(path);
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  const std::vector<Fault> faults = faultsOf(path);
  for (const Fault& fault : faults) {
    std::printf("%s: %s\n", withoutControls(replaceInvalid(fault.where)).c_str(),
                withoutControls(replaceInvalid(fault.what)).c_str());
  }
  if (!faults.empty()) {
    complain(fmt::format("{}: {} {}; {}", model.given, faults.size(),
                         faults.size() == 1 ? "fault" : "faults", remedy(path, model)));
    return 1;
  }
  std::printf("%s: can be run\n", model.given.c_str());
  return 0;
}

}  // namespace

void addCheck(CLI::App& program, Action& action) {
  auto path = std::make_shared<std::string>();
  CLI::App* command = program.add_subcommand("check", "Tell whether a model can be run");
  const auto model = addModelArgument(*command);
  addExamples(*command, "  zym check model.zym && zym chat model.zym");
  command->callback([path, model, &action] {
    action = onModel(model, *path, [path, model] { return check(*path, *model); });
  });
}

}  // namespace zym
