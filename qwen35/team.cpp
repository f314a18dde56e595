#include "qwen35/team.h"

#include <omp.h>

#include <algorithm>
#include <thread>

#include "qwen35/placement.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qwen35 {

namespace {

// Long enough for the last pieces of a step, most of which take some ten microseconds; short beside
// a time slice, which another program may be waiting for.
constexpr std::chrono::microseconds kSpinTime{20};
constexpr int kLooksPerClock = 16;

// Time on the core after which a thread offers it: less than the time slice that a system gives two
// programs on one core, at the end of which it would not be asked.
constexpr std::chrono::microseconds kTurn{2500};

// An offer that nobody takes is over sooner.
constexpr std::chrono::microseconds kAlone{200};

constexpr uint64_t kStepUnit = uint64_t{1} << 32;

void pause() {
#if defined(__x86_64__)
  _mm_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

}  // namespace

Team::Team(size_t maxThreads) : limit(std::max<size_t>(maxThreads, 1)) {}

void Team::runErased(void (*body)(Member&, const void*), const void* data) {
  taken.store(0, std::memory_order_relaxed);
  done.store(0, std::memory_order_relaxed);
  threads = std::min(limit, static_cast<size_t>(omp_get_max_threads()));
  ended.store(0, std::memory_order_release);
  const ProcessorSet processors = ProcessorSet::ofThisThread();
#pragma omp parallel num_threads(static_cast <int>(threads))
  {
    const auto index = static_cast<size_t>(omp_get_thread_num());
    const OwnProcessor own(processors, index, static_cast<size_t>(omp_get_num_threads()));
    Member member(*this, index);
    body(member, data);
  }
}

bool Team::Member::claim(size_t n, size_t longestRun, size_t& begin, size_t& end) {
  giveWay();
  uint64_t current = team.taken.load(std::memory_order_acquire);
  while (current / kStepUnit == step) {
    begin = current % kStepUnit;
    if (begin >= n) {
      return false;
    }
    // Runs of pieces, long at first and short in the end: neighbours in memory stay together, and
    // the last pieces are small enough for all threads to end at one time.
    const size_t run = std::clamp<size_t>((n - begin) / (2 * team.threads), 1, longestRun);
    if (team.taken.compare_exchange_weak(current, current + run, std::memory_order_acquire)) {
      end = begin + run;
      return true;
    }
  }
  return false;
}

void Team::Member::finish(size_t n, size_t count) {
  const auto pieces = static_cast<uint32_t>(count);
  if (team.done.fetch_add(pieces, std::memory_order_acq_rel) + pieces != n) {
    return;
  }
  // The last one: nobody holds a piece of this step, and of the next none can be taken before
  // `taken` says so.
  team.done.store(0, std::memory_order_relaxed);
  team.taken.store((step + 1) * kStepUnit, std::memory_order_release);
  // Sequentially consistent: the notification looks for sleepers with a plain load, which must not
  // pass this store, or one that is just lying down would be missed.
  team.ended.store(step + 1, std::memory_order_seq_cst);
  team.ended.notify_all();
}

void Team::Member::await() {
  const uint32_t mine = step++;
  const auto over = [&] { return team.ended.load(std::memory_order_acquire) > mine; };
  if (over()) {
    return;
  }
  const Clock::time_point start = Clock::now();
  do {
    for (int look = 0; look < kLooksPerClock; ++look) {
      if (over()) {
        return;
      }
      pause();
    }
  } while (Clock::now() - start < kSpinTime);
  while (!over()) {
    team.ended.wait(mine, std::memory_order_acquire);
  }
  onCoreSince = Clock::now();
}

void Team::Member::giveWay() {
  const Clock::time_point before = Clock::now();
  if (before - onCoreSince < kTurn) {
    return;
  }
  if (coreIsShared) {
    // Not a yield, which gives up the rest of the turn for good: a sleeper keeps its fair share.
    std::this_thread::sleep_for(std::chrono::microseconds(1));
  } else {
    std::this_thread::yield();
  }
  onCoreSince = Clock::now();
  coreIsShared = onCoreSince - before > kAlone;
}

}  // namespace qwen35
