#include "host/cli/program.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <langinfo.h>

#include <clocale>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

#include "host/cli/commands.h"
#include "host/cli/threads.h"
#include "host/cli/wrong_use.h"
#include "host/terminal/terminal.h"
#include "qwen35/simd/instruction_sets.h"

namespace zym {
namespace {

// The line editor asks the locale whether text is UTF-8. The rest of the program assumes it.
void useUtf8() {
  std::setlocale(LC_CTYPE, "");
  if (std::string_view(nl_langinfo(CODESET)) != "UTF-8") {
    std::setlocale(LC_CTYPE, "C.UTF-8");
  }
}

// The kernels as the runtime library chooses them. A name in ZYM_CPU that cannot be had is the
// library's to tell of, when it computes.
std::string versionText() {
  return fmt::format("zym " ZYM_VERSION "\nkernels: {} (supported: {})",
                     qwen35::instructionSet().name,
                     fmt::join(qwen35::supportedInstructionSets(), ", "));
}

int perform(const Action& action) {
  try {
    const int status = action();
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
      complain("standard output cannot be written; is the disk full?");
      return 1;
    }
    return status;
  } catch (const std::exception& error) {
    // In practice memory that runs out: all other faults are returned as a status.
    complain(error.what());
    return 1;
  }
}

int showOrComplain(const CLI::App& program, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {
    return program.exit(error);  // --help and --version
  }
  complain(wrongUseText(program, error));
  return 2;
}

}  // namespace

void addCommands(CLI::App& program, Action& action) {
  program.set_version_flag("--version", versionText);
  program.require_subcommand(1);
  program.fallthrough();
  program
      .add_option_function<int>("--threads", setThreads,
                                "Threads to compute with, at most the processors that it may use "
                                "(default: OMP_NUM_THREADS, else one for each physical core)")
      ->check(CLI::Range(1, 1024))
      ->type_name("N")
      ->trigger_on_parse();
  addChat(program, action);
  addRun(program, action);
  addBench(program, action);
  addInfo(program, action);
  addCheck(program, action);
  addTokenize(program, action);
  addConvert(program, action);
  addCache(program, action);
  addExamples(program,
              "  zym chat model.gguf\n"
              "  zym convert model.gguf model.zym\n"
              "  zym COMMAND --help");
}

int runProgram(int argc, const char* const* argv) {
  useUtf8();
  limitThreads();
  CLI::App program("Runs Qwen3.5 hybrid models on the CPU.", "zym");
  Action action;
  addCommands(program, action);
  try {
    program.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return showOrComplain(program, error);
  }
  return perform(action);
}

}  // namespace zym
