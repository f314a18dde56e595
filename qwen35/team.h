// The threads that work through a forward pass together.
//
// A pass is one parallel region. Inside it every thread walks through the same sequence of steps;
// a step is cut into pieces, small against a time slice, that are handed out as threads come for
// them. What is waited for at the end of a step is its pieces, not the threads: a thread that the
// system has put aside between two pieces holds nobody up, and finds the pieces gone when it comes
// back. (The end of the region waits for all threads, once a pass.) Which thread takes a piece
// decides nothing but time.
//
// Waiting threads look for the end of a step for a few microseconds and then sleep. A thread that
// has been at work for a while offers its core before it takes another piece: a program that shares
// the core then gets its turn while nobody waits for the thread, rather than in the middle of a
// piece.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace qwen35 {

class Team {
 public:
  // Of at most maxThreads threads, at least 1.
  explicit Team(size_t maxThreads);
  Team(const Team&) = delete;
  Team& operator=(const Team&) = delete;

  size_t maxThreads() const { return limit; }

  // One thread's place in the pass that is under way.
  class Member {
   public:
    Member(Team& owner, size_t index) : team(owner), self(index) {}

    // From 0; below teamSize().
    size_t thread() const { return self; }
    // The threads that a step should have work for: maxThreads() of the team.
    size_t teamSize() const { return team.limit; }

    // Has piece(i) called for every i below n, each once and on some thread of the team; returns
    // when all calls have returned, with their effects visible. All members come to the same steps
    // in the same order and with the same n. piece must not throw.
    //
    // A thread takes up to longestRun neighbouring pieces at a time: 1 for pieces that take long.
    template <typename Piece>
    void forEach(size_t n, const Piece& piece, size_t longestRun = SIZE_MAX) {
      if (n == 0) {
        return;
      }
      size_t begin;
      size_t end;
      while (claim(n, longestRun, begin, end)) {
        for (size_t i = begin; i < end; ++i) {
          piece(i);
        }
        finish(n, end - begin);
      }
      await();
    }

    // Has action() called once, on some thread.
    template <typename Action>
    void once(const Action& action) {
      forEach(1, [&](size_t) { action(); });
    }

   private:
    using Clock = std::chrono::steady_clock;

    // Takes pieces of the member's step that nobody has taken. False when there are none left.
    bool claim(size_t n, size_t longestRun, size_t& begin, size_t& end);
    void finish(size_t n, size_t count);
    void await();
    // Lets another program have the core when this thread, which holds no piece, has had it long.
    void giveWay();

    Team& team;
    size_t self;
    uint32_t step = 0;
    Clock::time_point onCoreSince = Clock::now();
    bool coreIsShared = false;  // another program ran when the core was offered last
  };

  // Calls body(member) on every thread of one parallel region: as many as the team has, or as
  // OpenMP grants the caller if those are fewer (one, inside a region of the host). body must not
  // throw. One call at a time per team.
  template <typename Body>
  void run(const Body& body) {
    runErased(
        [](Member& member, const void* erased) { (*static_cast<const Body*>(erased))(member); },
        &body);
  }

 private:
  void runErased(void (*body)(Member&, const void*), const void* data);

  // A cache line each: all threads write to the first two, and look at the third while they wait.
  // Step in the upper half, pieces taken in the lower: a thread that is late cannot take pieces of
  // a later step for those of its own.
  alignas(64) std::atomic<uint64_t> taken{0};
  alignas(64) std::atomic<uint32_t> done{0};   // pieces of the current step
  alignas(64) std::atomic<uint32_t> ended{0};  // steps; waited on

  size_t limit;
  size_t threads = 1;  // of the region under way
};

}  // namespace qwen35
