#include "host/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "host/terminal.h"
#include "host/units.h"

namespace zym {
namespace {

constexpr size_t kBarCells = 20;
constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::chrono::seconds kPlainLine{10};

}  // namespace

std::string progressText(uint64_t done, uint64_t total, double seconds) {
  done = std::min(done, total);
  const double share = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
  const auto cells = static_cast<size_t>(share * kBarCells);
  std::string text = fmt::format("[{:<{}}] {:3.0f} %  {} of {}", std::string(cells, '#'), kBarCells,
                                 share * 100, bytesText(done), bytesText(total));
  if (done > 0 && seconds > 0) {
    const double rate = static_cast<double>(done) / seconds;
    text += fmt::format("  {}/s  {} left", bytesText(static_cast<uint64_t>(rate)),
                        durationText(static_cast<double>(total - done) / rate));
  }
  return text;
}

Progress::Progress(std::string_view label)
    : what(label),
      onTerminal(isTerminal(STDERR_FILENO)),
      started(Clock::now()),
      lastDrawn(started) {}

Progress::~Progress() {
  clear();
}

void Progress::update(uint64_t done, uint64_t total) {
  const auto now = Clock::now();
  if (now - lastDrawn < (onTerminal ? Clock::duration(kRedraw) : Clock::duration(kPlainLine)))
    return;
  lastDrawn = now;
  const std::string text =
      progressText(done, total, std::chrono::duration<double>(now - started).count());
  if (onTerminal) {
    std::fprintf(stderr, "\r%s %s\x1b[K", what.c_str(), text.c_str());
    drawn = true;
  } else {
    std::fprintf(stderr, "%s %s\n", what.c_str(), text.c_str());
  }
}

void Progress::clear() {
  if (!drawn) return;
  std::fputs("\r\x1b[K", stderr);
  drawn = false;
}

}  // namespace zym
