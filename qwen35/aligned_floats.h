// Floats that start at a cache line, so that no register-wide load crosses two.
#pragma once

#include <cstddef>
#include <new>
#include <vector>

namespace qwen35 {

template <typename T>
struct LineAllocator {
  using value_type = T;
  static constexpr std::align_val_t kLine{64};

  LineAllocator() = default;
  template <typename U>
  explicit LineAllocator(const LineAllocator<U>& /*other*/) noexcept {}

  T* allocate(size_t n) { return static_cast<T*>(::operator new(n * sizeof(T), kLine)); }
  void deallocate(T* p, size_t /*n*/) noexcept { ::operator delete(p, kLine); }

  bool operator==(const LineAllocator& /*other*/) const { return true; }
};

using AlignedFloats = std::vector<float, LineAllocator<float>>;

}  // namespace qwen35
