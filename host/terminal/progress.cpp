#include "host/terminal/progress.h"

#include <fmt/core.h>
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

std::string progressText(uint64_t done, uint64_t total, double seconds, ProgressUnit unit,
                         size_t columns) {
  done = std::min(done, total);
  const double share = total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
  const auto cells = static_cast<size_t>(share * kBarCells);
  const std::string bar = fmt::format("[{:<{}}] ", std::string(cells, '#'), kBarCells);
  const std::string percent = fmt::format("{:3.0f} %", share * 100);
  const std::string amount = "  " + amountText(done, total, unit);
  std::string speed;
  std::string left;
  if (done > 0 && seconds > 0) {
    const double rate = static_cast<double>(done) / seconds;
    speed = "  " + rateText(rate, unit);
    left = fmt::format("  {} left", durationText(static_cast<double>(total - done) / rate));
  }
  std::string text = fmt::format("{}{}{}{}{}", bar, percent, amount, speed, left);
  for (const std::string& shorter :
       {fmt::format("{}{}{}", percent, amount, left), percent + left, percent}) {
    if (columns == 0 || text.size() <= columns) {
      break;
    }
    text = shorter;
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
  const size_t columns = onTerminal ? terminalColumns(STDERR_FILENO) : 0;
  const size_t taken = what.size() + 2;  // with a blank, and the last column, which stays free
  const std::string text =
      progressText(done, total, std::chrono::duration<double>(now - started).count(), unit,
                   columns == 0 ? 0 : std::max(columns, taken + 1) - taken);
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
