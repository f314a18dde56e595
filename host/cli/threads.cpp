#include "host/cli/threads.h"

#include <fmt/core.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <string>

#include "host/terminal/terminal.h"
#include "qwen35/processors.h"

namespace zym {
namespace {

constexpr const char* kVariable = "OMP_NUM_THREADS";

void writeVariable(int threads) {
  setenv(kVariable, std::to_string(threads).c_str(), 1);
}

}  // namespace

void setThreads(int threads) {
  const int most = static_cast<int>(qwen35::usableProcessors());
  if (threads > most) {
    remark(fmt::format("(--threads {}: {} may be used, so {} {})", threads,
                       most == 1 ? "one processor" : fmt::format("{} processors", most), most,
                       most == 1 ? "thread works" : "threads work"));
  }
  writeVariable(std::min(threads, most));
}

void limitThreads() {
  const char* asked = std::getenv(kVariable);
  const unsigned most = qwen35::usableProcessors();
  if (asked != nullptr && qwen35::threadsFor(asked, UINT_MAX, 1) > most) {
    writeVariable(static_cast<int>(most));
  }
}

int threadCount() {
  return static_cast<int>(qwen35::defaultThreads());
}

}  // namespace zym
