// A fixed-size array of floats that starts as zero pages the system has not handed out yet.
//
// The caches of a full context are half a gigabyte, of which a short conversation fills a few
// megabytes. Memory is mapped and never value-initialised, so that a page costs nothing until it is
// first written. Reads as all zeros when new.
//
// Owns its memory; moves, no copies. One thread at a time, where nothing else is said.
#pragma once

#include <cstddef>
#include <utility>

namespace qwen35 {

class StateBuffer {
 public:
  StateBuffer() = default;
  // nFloats zeros; throws std::bad_alloc when they cannot be mapped.
  explicit StateBuffer(size_t nFloats);
  ~StateBuffer();
  StateBuffer(StateBuffer&& other) noexcept
      : floats(std::exchange(other.floats, nullptr)),
        count(std::exchange(other.count, 0)),
        filled(std::exchange(other.filled, false)) {}
  StateBuffer& operator=(StateBuffer&& other) noexcept {
    std::swap(floats, other.floats);
    std::swap(count, other.count);
    std::swap(filled, other.filled);
    return *this;
  }
  StateBuffer(const StateBuffer&) = delete;
  StateBuffer& operator=(const StateBuffer&) = delete;

  // Has the system hand out the pages of `n` floats from `begin` on, for what is about to be read
  // and then written. Left to itself it maps a shared page of zeros for the read and replaces that
  // for the write, and each replacement interrupts every processor that runs a thread of the
  // process. The values stay. A hint, which older systems ignore (Linux before 5.14), and nothing
  // once the buffer is filled. Threads may do so for different floats at once.
  void populate(size_t begin, size_t n);

  // All zeros again. The pages go back to the system, which hands out zeroed ones.
  void clear();

  // All zeros again, in pages that stay: for what is soon written as a whole.
  void fillWithZeros();

  size_t size() const { return count; }
  bool empty() const { return count == 0; }
  float* data() { return floats; }
  const float* data() const { return floats; }
  float& operator[](size_t i) { return floats[i]; }
  float operator[](size_t i) const { return floats[i]; }
  float* begin() { return floats; }
  float* end() { return floats + count; }
  const float* begin() const { return floats; }
  const float* end() const { return floats + count; }

 private:
  float* floats = nullptr;
  size_t count = 0;
  bool filled = false;  // every page is there
};

}  // namespace qwen35
