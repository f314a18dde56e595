// How much memory a large tensor takes on its way, and which values it may hold.
#include "convert/tensor_stream.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "convert/mapped_file.h"
#include "quant/blocks.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::QuantType;
using kel::convert::MappedFile;
using kel::convert::PlannedTensor;
using kel::convert::SourceModel;
using kel::convert::SourceTensor;
using kel::convert::SourceType;

constexpr uint64_t kCols = 4096;
constexpr uint64_t kRows = 32768;
constexpr uint64_t kSourceBytes = kCols * kRows * sizeof(float);  // 512 MiB
constexpr uint64_t kMostBytes = uint64_t{96} << 20;

uint64_t residentBytes() {
  uint64_t total = 0;
  uint64_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

class TensorStream : public testing::Test {
 protected:
  void SetUp() override {
    const std::string path = folder.file("holes");
    kel::test::writeFile(path, {});
    std::filesystem::resize_file(path, kSourceBytes);
    ASSERT_TRUE(file.open(path).ok());
    tensor = {"large", "F32", SourceType::F32, {kCols, kRows}, file.data(), kSourceBytes};
  }

  // Bytes in memory at the worst moment, beyond those of before; stored counts what came out.
  uint64_t mostBytes(QuantType type, uint64_t& stored) const {
    PlannedTensor plan;
    plan.spec.name = "large";
    plan.spec.dims = {kCols, kRows};
    plan.source = &tensor;
    plan.stored = type;
    plan.copied = type == QuantType::F32;
    const uint64_t before = residentBytes();
    uint64_t most = before;
    uint64_t sum = 0;
    const kel::Status status =
        streamTensor(plan, SourceModel{}, 2, [&](const uint8_t* data, size_t nBytes, uint64_t) {
          sum = std::accumulate(data, data + nBytes, sum);  // read, as a file's writer would
          most = std::max(most, residentBytes());
          stored += nBytes;
          return kel::Status::success();
        });
    EXPECT_TRUE(status.ok());
    EXPECT_EQ(0U, sum);
    return most - before;
  }

  kel::test::TempDir folder;
  MappedFile file;
  SourceTensor tensor;
};

TEST_F(TensorStream, EncodingTakesAFewStretches) {
  uint64_t stored = 0;
  EXPECT_LE(mostBytes(QuantType::Q8_0, stored), kMostBytes);
  EXPECT_EQ(kel::quant::quantizedBytes(QuantType::Q8_0, kCols * kRows), stored);
}

// The thread sanitizer's book on every byte that is read.
constexpr bool kCountsReads =
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    true;
#else
    false;
#endif
#else
    false;
#endif

TEST_F(TensorStream, CopyingTakesAFewStretches) {
  if (kCountsReads) {
    GTEST_SKIP() << "memory in use is mostly the sanitizer's";
  }
  uint64_t stored = 0;
  EXPECT_LE(mostBytes(QuantType::F32, stored), kMostBytes);
  EXPECT_EQ(kSourceBytes, stored);
}

// A matrix of F32 zeros with some other values.
class TensorValues : public testing::Test {
 protected:
  static constexpr uint64_t kWidth = 256;
  static constexpr uint64_t kHeight = 2000;

  void put(uint64_t row, uint64_t column, float value) { values[row * kWidth + column] = value; }

  // From a file: what has been read is given back to the system.
  std::string refusal(QuantType type) const {
    const auto* bytes = reinterpret_cast<const uint8_t*>(values.data());
    kel::test::writeFile(folder.file("m"), {bytes, bytes + values.size() * sizeof(float)});
    MappedFile file;
    EXPECT_TRUE(file.open(folder.file("m")).ok());
    const SourceTensor tensor = {"m",         "F32",      SourceType::F32, {kWidth, kHeight},
                                 file.data(), file.size()};
    PlannedTensor plan;
    plan.spec.name = "m";
    plan.spec.dims = {kWidth, kHeight};
    plan.source = &tensor;
    plan.stored = type;
    plan.copied = type == QuantType::F32;
    return streamTensor(plan, SourceModel{}, 3,
                        [](const uint8_t*, size_t, uint64_t) { return kel::Status::success(); })
        .message;
  }

  std::vector<float> values = std::vector<float>(kWidth * kHeight);
  kel::test::TempDir folder;
};

constexpr const char* kAdvice =
    ", with which no reply succeeds; fetch the source anew, or choose another";

// The later rows are other threads'; the first one is named all the same.
TEST_F(TensorValues, FirstRowThatIsNotFiniteIsNamedKeptOrConverted) {
  EXPECT_EQ("", refusal(QuantType::F32));
  EXPECT_EQ("", refusal(QuantType::BF16));
  for (const uint64_t row : {uint64_t{1999}, uint64_t{1500}, uint64_t{7}}) {
    put(row, 63, std::numeric_limits<float>::quiet_NaN());
    const std::string message =
        "m holds a value that is not finite in row " + std::to_string(row) + kAdvice;
    EXPECT_EQ(message, refusal(QuantType::F32));
    EXPECT_EQ(message, refusal(QuantType::BF16));
  }
}

TEST_F(TensorValues, ValuesBeyondTheScalesOfTheTypeAreNamed) {
  put(1234, 5, 1e8F);
  EXPECT_EQ("", refusal(QuantType::F32));
  EXPECT_EQ("", refusal(QuantType::BF16));
  EXPECT_EQ("m holds a value in row 1234 that is too large for Q8_0; choose another type for it",
            refusal(QuantType::Q8_0));
}

// The encoders of super-blocks would cut them off.
TEST_F(TensorValues, ValuesBeyondWhatSuperBlocksHoldAreNamed) {
  put(1234, 5, 6.1e7F);
  EXPECT_EQ("", refusal(QuantType::Q4_K));
  put(1234, 5, -6.3e7F);
  EXPECT_EQ("m holds a value in row 1234 that is too large for Q4_K; choose another type for it",
            refusal(QuantType::Q4_K));
  EXPECT_EQ("", refusal(QuantType::Q5_K));
  put(1234, 5, 1.3e8F);
  EXPECT_EQ("m holds a value in row 1234 that is too large for Q5_K; choose another type for it",
            refusal(QuantType::Q5_K));
}

}  // namespace
