#include "host/terminal/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "host/terminal/terminal.h"
#include "host/terminal/units.h"

namespace zym {
namespace {

constexpr size_t kBarCells = 20;
constexpr std::chrono::milliseconds kRedraw{100};
constexpr std::chrono::seconds kPlainLine{10};

std::string amountText(uint64_t done, uint64_t total, ProgressUnit unit) {
  if (unit == ProgressUnit::Positions) {
    return fmt::format("{} of {} positions", done, total);
  }
  return bytesText(done) + " of " + bytesText(total);
}

std::string rateText(double rate, ProgressUnit unit) {
  if (unit == ProgressUnit::Positions) {
    return fmt::format("{:.1f}/s", rate);
  }
  return bytesText(static_cast<uint64_t>(rate)) + "/s";
}

}  // namespace

std::string progressText(uint64_t done, uint64_t total, double seconds, ProgressUnit unit) {
  done = std::min(done, total);
  const double share = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
  const auto cells = static_cast<size_t>(share * kBarCells);
  std::string text = fmt::format("[{:<{}}] {:3.0f} %  {}", std::string(cells, '#'), kBarCells,
                                 share * 100, amountText(done, total, unit));
  if (done > 0 && seconds > 0) {
    const double rate = static_cast<double>(done) / seconds;
    text += fmt::format("  {}  {} left", rateText(rate, unit),
                        durationText(static_cast<double>(total - done) / rate));
  }
  return text;
}

Progress::Progress(std::string_view label, ProgressUnit counted)
    : what(label),
      unit(counted),
      onTerminal(isTerminal(STDERR_FILENO)),
      started(Clock::now()),
      lastDrawn(started) {}

Progress::~Progress() {
  clear();
}

void Progress::update(uint64_t done, uint64_t total) {
  const auto now = Clock::now();
  const Clock::duration pause = onTerminal ? Clock::duration(kRedraw) : Clock::duration(kPlainLine);
  const bool isFirstBar = onTerminal && !drawn;
  if (!isFirstBar && now - lastDrawn < pause) {
    return;
  }
  lastDrawn = now;
  const std::string text =
      progressText(done, total, std::chrono::duration<double>(now - started).count(), unit);
  if (onTerminal) {
    std::fprintf(stderr, "\r%s %s\x1b[K", what.c_str(), text.c_str());
    drawn = true;
  } else {
    std::fprintf(stderr, "%s %s\n", what.c_str(), text.c_str());
  }
}

void Progress::clear() {
  if (!drawn) {
    return;
  }
  std::fputs("\r\x1b[K", stderr);
  drawn = false;
}

}  // namespace zym
