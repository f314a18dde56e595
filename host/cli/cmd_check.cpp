// zym check: can this runtime run the file?
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/chat/open_failure.h"
#include "host/cli/commands.h"
#include "host/cli/model_argument.h"
#include "host/cli/threads.h"
#include "host/inspect/container_check.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/progress.h"
#include "host/terminal/terminal.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

struct CheckCommand {
  std::string file;
  bool full = false;
};

// Opens the container; a fault of the file is left in faults, any other is the status.
kel::Status openFile(const std::string& path, kel::ZYMLoader& loader, std::vector<Fault>& faults) {
  kel::Status status = checkInputFile(path);
  if (!status.ok()) {
    return status;
  }
  status = loader.open(path.c_str());
  if (status.ok()) {
    return status;
  }
  OpenFailure failure = explainOpenFailure(path, status);
  if (!failure.ofFile) {
    return kel::Status::invalid(path + ": " + failure.what + "; " + failure.advice);
  }
  faults.push_back({"file", std::move(failure.what)});
  return kel::Status::success();
}

CheckResult checkFile(const CheckCommand& command, const kel::ZYMLoader& loader) {
  catchInterrupts();
  const CancelScope scope;
  Progress progress("checking");
  return checkContainer(loader, {command.full, static_cast<unsigned>(threadCount())},
                        [&](uint64_t done, uint64_t total) {
                          progress.update(done, total);
                          return !scope.cancelled();
                        });
}

void showUnguarded(const std::vector<std::string>& sections) {
  if (!sections.empty()) {
    remark(fmt::format("(no checksum covers: {}; damage to that goes unnoticed)",
                       fmt::join(sections, ", ")));
  }
}

// What makes a faulty container anew: one in the cache is no file of the user's.
std::string remedy(const std::string& container, const ModelArgument& model) {
  return container == model.given || model.withoutCache
             ? "`zym convert` makes the file anew"
             : fmt::format("`zym cache clear {}` has it converted anew", model.given);
}

int check(const CheckCommand& command, const ModelArgument& model) {
  const std::string& path = command.file;
  kel::ZYMLoader loader;
  CheckResult result;
  const kel::Status status = openFile(path, loader, result.faults);
  if (!status.ok()) {
    complain(status.message);
    return 1;
  }
  if (result.faults.empty()) {
    result = checkFile(command, loader);
  }
  if (result.stopped) {
    complain("stopped before the whole file was checked");
    return cancelledExit();
  }
  const std::vector<Fault>& faults = result.faults;
  for (const Fault& fault : faults) {
    std::printf("%s: %s\n", withoutControls(replaceInvalid(fault.where)).c_str(),
                withoutControls(replaceInvalid(fault.what)).c_str());
  }
  if (!faults.empty()) {
    complain(fmt::format("{}: {} {}; {}", model.given, faults.size(),
                         faults.size() == 1 ? "fault" : "faults", remedy(path, model)));
    return 1;
  }
  std::printf("%s: can be run\n%s\n", model.given.c_str(), verdictText(result.library).c_str());
  showUnguarded(result.unguarded);
  return 0;
}

}  // namespace

void addCheck(const Command& program, Action& action) {
  auto chosen = std::make_shared<CheckCommand>();
  const Command command = program.addCommand("check", "Tell whether a model can be run");
  const auto model = addModelArgument(command);
  command.addFlag("--full", chosen->full,
                  "Look at every weight for values that are not finite, not at vectors alone");
  addExamples(command,
              "  zym check model.zym && zym chat model.zym\n"
              "  zym check model.zym --full");
  command.onCall([chosen, model, &action] {
    action = onModel(model, chosen->file, [chosen, model] { return check(*chosen, *model); });
  });
}

}  // namespace zym
