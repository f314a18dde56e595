#include "qwen35/state_buffer.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using qwen35::StateBuffer;

size_t residentPages(const StateBuffer& buffer) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t bytes = buffer.size() * sizeof(float);
  std::vector<unsigned char> resident((bytes + page - 1) / page);
  EXPECT_EQ(0, mincore(const_cast<float*>(buffer.data()), bytes, resident.data()));
  return static_cast<size_t>(std::count_if(resident.begin(), resident.end(),
                                           [](unsigned char r) { return (r & 1) != 0; }));
}

TEST(StateBuffer, EmptyByDefault) {
  const StateBuffer buffer;
  EXPECT_TRUE(buffer.empty());
  EXPECT_EQ(0u, buffer.size());
  EXPECT_EQ(nullptr, buffer.data());
}

TEST(StateBuffer, ANewBufferTouchesNoPage) {
  const StateBuffer cache(size_t{4} * 8192 * 256);
  EXPECT_EQ(0u, residentPages(cache));
}

TEST(StateBuffer, ReadsAsZerosAndKeepsWhatIsWritten) {
  StateBuffer buffer(100000);
  EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](float f) { return f == 0.0f; }));
  buffer[99999] = 2.5f;
  EXPECT_EQ(2.5f, std::as_const(buffer)[99999]);
}

TEST(StateBuffer, MovesAndDoesNotCopy) {
  static_assert(!std::is_copy_constructible_v<StateBuffer>);
  static_assert(!std::is_copy_assignable_v<StateBuffer>);
  StateBuffer first(10);
  first[3] = 7.0f;
  StateBuffer second(std::move(first));
  StateBuffer third(5);
  third = std::move(second);
  EXPECT_EQ(10u, third.size());
  EXPECT_EQ(7.0f, third[3]);
}

TEST(StateBuffer, WhatCannotBeMappedIsAnAllocationFailure) {
  EXPECT_THROW(StateBuffer(SIZE_MAX), std::bad_alloc);
  EXPECT_THROW(StateBuffer(SIZE_MAX / sizeof(float)), std::bad_alloc);
}

}  // namespace
