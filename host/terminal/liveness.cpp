#include "host/terminal/liveness.h"

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <utility>

#include "host/terminal/terminal.h"

namespace zym {
namespace {

constexpr std::chrono::milliseconds kTick{500};

}  // namespace

Liveness::Liveness(std::string text) : what(std::move(text)) {
  if (!isTerminal(STDERR_FILENO)) {
    return;
  }
  // Ctrl-C must be delivered to the main thread, where it interrupts a pending read.
  sigset_t interrupt;
  sigset_t before;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  pthread_sigmask(SIG_BLOCK, &interrupt, &before);
  drawer = std::thread([this] { draw(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

Liveness::~Liveness() {
  stop();
}

void Liveness::stop() {
  if (!drawer.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(mutex);
    stopped = true;
  }
  wake.notify_one();
  drawer.join();
}

void Liveness::draw() {
  const auto started = std::chrono::steady_clock::now();
  bool drawn = false;
  std::unique_lock lock(mutex);
  while (!wake.wait_for(lock, kTick, [this] { return stopped; })) {
    const auto gone = std::chrono::steady_clock::now() - started;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(gone).count();
    const std::string text = what + " " + std::to_string(seconds) + " s";
    std::fprintf(stderr, "\r%s\x1b[K", dimmed(text, styleWanted(STDERR_FILENO)).c_str());
    drawn = true;
  }
  if (drawn) {
    std::fputs("\r\x1b[K", stderr);
  }
}

}  // namespace zym
