#include "host/inspect/value_check.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "container/zym2_writer.h"
#include "quant/blocks.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using kel::QuantType;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

class ValueCheckTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(writer.create(path).ok()); }

  void add(const std::string& name, QuantType type, const std::vector<uint64_t>& dims,
           const kel::test::Bytes& bytes) {
    ASSERT_TRUE(writer.addTensor(name, type, dims, bytes.data(), bytes.size()).ok());
  }
  void addFloats(const std::string& name, const std::vector<uint64_t>& dims,
                 const std::vector<float>& values) {
    ASSERT_TRUE(
        writer.addTensor(name, QuantType::F32, dims, values.data(), values.size() * sizeof(float))
            .ok());
  }

  std::string faults(ValueScope scope, unsigned threads = 1) {
    kel::ZYM2Reader reader;
    if (!writer.finish().ok() || !reader.open(path.c_str()).ok()) {
      return "no file";
    }
    const ValueCheck check(reader, scope);
    uint64_t last = 0;
    const CheckProgress progress = [&](uint64_t done, uint64_t) {
      last = done;
      return true;
    };
    Reading reading(progress);
    std::vector<Fault> found;
    check.run(threads, reading, found);
    EXPECT_EQ(last, check.nBytes());
    std::string text;
    for (const Fault& fault : found) {
      text += fault.where + ": " + fault.what + "\n";
    }
    return text;
  }

  kel::test::TempDir folder;
  std::string path = folder.file("values.zym");
  kel::ZYM2Writer writer;
};

// Rows of 40 values end inside their second block, whose bytes follow each other all the same.
TEST_F(ValueCheckTest, FullCheckNamesRowAndValuesOfEveryType) {
  addFloats("f32", {3, 4}, {0, 0, 0, 0, 0, 0, 0, 0, kNaN, 0, 0, 0});
  kel::test::Bytes halves(2 * 6);
  halves[2 * 5 + 1] = 0x7C;
  add("f16", QuantType::F16, {2, 3}, halves);
  halves[2 * 5 + 1] = 0;
  halves[2 * 4] = 0x80;
  halves[2 * 4 + 1] = 0x7F;
  add("bf16", QuantType::BF16, {2, 3}, halves);
  kel::test::Bytes blocks(4 * kel::quant::kQ80Bytes);
  blocks[3 * kel::quant::kQ80Bytes + 1] = 0x7E;
  add("q8_0", QuantType::Q8_0, {40, 2}, blocks);
  blocks.assign(3 * kel::quant::kQ5KBytes, 0);
  blocks[kel::quant::kQ5KBytes + 3] = 0xFC;
  add("q5_k", QuantType::Q5_K, {256, 3}, blocks);
  EXPECT_EQ(faults(ValueScope::All),
            "bf16: row 2, value 0 is not finite\n"
            "f16: row 2, value 1 is not finite\n"
            "f32: row 2, value 2 is not finite\n"
            "q5_k: row 1, values 0 to 255 are not finite, by their scale\n"
            "q8_0: row 1, values 32 to 39 are not finite, by their scale\n");
}

TEST_F(ValueCheckTest, QuickCheckReadsFloatsAlone) {
  addFloats("vector", {3}, {0, 0, kNaN});
  add("matrix", QuantType::BF16, {1, 1}, {0xFF, 0xFF});
  EXPECT_EQ(faults(ValueScope::Quick), "vector: value 2 is not finite\n");
}

// Two stretches of the same tensor are each found by a thread of their own, in any order.
TEST_F(ValueCheckTest, FirstOfSeveralFaultsIsNamedWhateverTheThreads) {
  constexpr uint64_t kRows = 6000;
  kel::test::Bytes bytes(2 * 1024 * kRows);
  for (const uint64_t row : {uint64_t{5}, uint64_t{4000}, kRows - 1}) {
    bytes[2 * 1024 * row + 1] = 0x7F;
    bytes[2 * 1024 * row] = 0x80;
  }
  add("large", QuantType::BF16, {1024, kRows}, bytes);
  EXPECT_EQ(faults(ValueScope::All, 4), "large: row 5, value 0 is not finite\n");
}

TEST_F(ValueCheckTest, ProgressCanEndTheCheck) {
  add("large", QuantType::BF16, {1024, 6000}, kel::test::Bytes(2 * 1024 * 6000));
  ASSERT_TRUE(writer.finish().ok());
  kel::ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const ValueCheck check(reader, ValueScope::All);
  uint64_t most = 0;
  const CheckProgress stop = [&](uint64_t done, uint64_t) {
    most = done;
    return false;
  };
  Reading reading(stop);
  reading.expect(check.nBytes());
  std::vector<Fault> found;
  check.run(1, reading, found);
  EXPECT_TRUE(reading.isEnded());
  EXPECT_LT(most, check.nBytes());
}

TEST_F(ValueCheckTest, TensorsThatDoNotFitTheirBytesAreLeftOut) {
  addFloats("short", {2}, {kNaN});
  addFloats("empty", {0, 5}, {});
  EXPECT_EQ(faults(ValueScope::All), "");
}

}  // namespace
}  // namespace zym
