#include "host/cli/program.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <langinfo.h>
#include <CLI/CLI.hpp>

#include <clocale>
#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <string_view>

#include "host/cli/commands.h"
#include "host/cli/threads.h"
#include "host/cli/wrong_use.h"
#include "host/terminal/standard_streams.h"
#include "host/terminal/terminal.h"
#include "qwen35/simd/instruction_sets.h"

namespace zym {
namespace {

// The line editor asks the locale which characters are letters. That text is UTF-8 is assumed.
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

// The exit status of what ended with status, once its results have left the program.
int afterOutput(int status) {
  const std::string fault = outputFault();
  if (fault.empty()) {
    return status;
  }
  complain(fault);
  return status == 0 ? 1 : status;
}

int perform(const Action& action) {
  try {
    return afterOutput(action());
  } catch (const std::bad_alloc&) {
    complain("not enough memory");
    return 1;
  } catch (const std::exception& error) {
    complain(error.what());
    return 1;
  }
}

int showOrComplain(const CLI::App& program, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {
    return afterOutput(program.exit(error));  // --help and --version
  }
  complain(wrongUseText(program, error));
  return 2;
}

// The help names the type of every value. MODEL is no word of a type "TEXT", it tells by its name.
void hideTypesOfPositionals(CLI::App& program) {
  for (CLI::App* command : program.get_subcommands(nullptr)) {
    for (CLI::Option* option : command->get_options()) {
      if (option->get_positional() && option->get_type_name() == "TEXT") {
        option->type_name("");
      }
    }
  }
}

}  // namespace

void addCommands(CLI::App& parsed, Action& action) {
  parsed.set_version_flag("--version", versionText);
  parsed.require_subcommand(1);
  parsed.fallthrough();
  const Command program(parsed);
  program
      .addOptionFunction<int>("--threads", setThreads,
                              "Threads to compute with, at most the processors that it may use "
                              "(default: OMP_NUM_THREADS, else one for each physical core)")
      .range(1, 1024)
      .typeName("N")
      .repeatable();
  addChat(program, action);
  addRun(program, action);
  addServe(program, action);
  addBench(program, action);
  addInfo(program, action);
  addCheck(program, action);
  addTokenize(program, action);
  addPerplexity(program, action);
  addConvert(program, action);
  addCompletion(program, action);
  addCache(program, action);
  addExamples(program,
              "  zym chat model.gguf\n"
              "  zym convert model.gguf model.zym\n"
              "  zym COMMAND --help");
  hideTypesOfPositionals(parsed);
}

int runProgram(int argc, const char* const* argv) {
  reserveStandardStreams();
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
