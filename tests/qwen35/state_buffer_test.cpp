#include "qwen35/state_buffer.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/instrumented.h"
#include "tests/support/page_faults.h"

namespace {

using kel::test::canPopulatePages;
using kel::test::pageBytes;
using kel::test::pageFaults;
using qwen35::StateBuffer;

size_t residentPages(const StateBuffer& buffer) {
  const size_t page = pageBytes();
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

TEST(StateBuffer, PopulatedFloatsAreReadAndWrittenWithoutAFault) {
  if (!canPopulatePages()) {
    GTEST_SKIP() << "not on this system";
  }
  const size_t pageFloats = pageBytes() / sizeof(float);
  StateBuffer buffer(64 * pageFloats);
  // Huge pages, where the system gives them unasked, are more than was asked for.
  madvise(buffer.data(), 64 * pageBytes(), MADV_NOHUGEPAGE);
  buffer.populate(8 * pageFloats + 5, 16 * pageFloats - 5);  // from within a page
  EXPECT_EQ(16u, residentPages(buffer));
  const size_t before = pageFaults();
  for (size_t page = 8; page < 24; ++page) {
    float* first = buffer.data() + page * pageFloats;
    *first += 1.0f;
  }
  const size_t faults = pageFaults() - before;
  if (!kel::test::kInstrumented) {  // sanitizers map pages of their own for each
    EXPECT_LT(faults, 8u);
  }
  EXPECT_EQ(1.0f, buffer[8 * pageFloats]);
}

TEST(StateBuffer, AFilledBufferIsNotPopulatedAgain) {
  StateBuffer buffer(100000);
  buffer[7] = 2.5f;
  buffer.fillWithZeros();
  EXPECT_TRUE(std::all_of(buffer.begin(), buffer.end(), [](float f) { return f == 0.0f; }));
  StateBuffer moved(std::move(buffer));
  StateBuffer filled;
  filled = std::move(moved);
  ASSERT_EQ(0, madvise(filled.data(), filled.size() * sizeof(float), MADV_DONTNEED));
  filled.populate(0, filled.size());
  EXPECT_EQ(0u, residentPages(filled));  // nobody asked the system
}

TEST(StateBuffer, PopulatingAfterClearingMapsThePagesAgain) {
  if (!canPopulatePages()) {
    GTEST_SKIP() << "not on this system";
  }
  StateBuffer buffer(100000);
  buffer.fillWithZeros();
  buffer.clear();
  buffer.populate(0, buffer.size());
  EXPECT_LT(0u, residentPages(buffer));
}

TEST(StateBuffer, PopulatingKeepsWhatIsThere) {
  StateBuffer buffer(100000);
  buffer[0] = 2.5f;
  buffer[99999] = 3.5f;
  buffer.populate(0, 100000);
  EXPECT_EQ(2.5f, buffer[0]);
  EXPECT_EQ(0.0f, buffer[50000]);
  EXPECT_EQ(3.5f, buffer[99999]);
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
