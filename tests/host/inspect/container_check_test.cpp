#include "host/inspect/container_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>

#include "host/inspect/checksums.h"
#include "tests/host/model_file.h"

namespace zym {
namespace {

using kel::QuantType;
using testing_support::TensorPlan;
using testing_support::writeSmallModel;

class ContainerCheckTest : public testing::Test {
 protected:
  ~ContainerCheckTest() override { std::remove(path.c_str()); }

  std::string faults(bool allValues = false) const {
    kel::ZYMLoader loader;
    const kel::Status status = loader.open(path.c_str());
    if (!status.ok()) {
      return status.message;
    }
    std::string text;
    for (const Fault& fault : checkContainer(loader, {allValues, 3}, nullptr).faults) {
      text += fault.where + ": " + fault.what + "\n";
    }
    return text;
  }
  std::string faultsAfter(const std::function<void(TensorPlan&)>& change) const {
    const kel::Status status = writeSmallModel(path, change);
    return status.ok() ? faults() : status.message;
  }
  // Rewrites index entry `index` in place; the index has no checksum of its own in these files.
  void editEntry(uint32_t index, const std::function<void(kel::zym2::TensorEntry&)>& edit) const {
    kel::ZYM2Reader reader;
    ASSERT_TRUE(reader.open(path.c_str()).ok());
    const uint64_t at = reader.section(kel::zym2::SectionType::TensorIndex)->offset +
                        index * sizeof(kel::zym2::TensorEntry);
    reader.close();
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    kel::zym2::TensorEntry entry;
    file.seekg(static_cast<std::streamoff>(at));
    file.read(reinterpret_cast<char*>(&entry), sizeof(entry));
    edit(entry);
    file.seekp(static_cast<std::streamoff>(at));
    file.write(reinterpret_cast<const char*>(&entry), sizeof(entry));
  }

  std::string path = testing::TempDir() + "container_check." + std::to_string(getpid()) + ".zym";
};

TEST_F(ContainerCheckTest, CompleteModelHasNoFault) {
  EXPECT_EQ(faultsAfter(nullptr), "");
}

TEST_F(ContainerCheckTest, OtherArchitectureIsNamed) {
  ASSERT_TRUE(writeSmallModel(path, nullptr, "qwen35moe").ok());
  EXPECT_EQ(faults(), "metadata: general.architecture is \"qwen35moe\", needs \"qwen35\"\n");
}

TEST_F(ContainerCheckTest, EveryMissingTensorIsNamed) {
  EXPECT_EQ(faultsAfter([](TensorPlan& plan) {
              plan.written =
                  plan.name != "blk.3.attn_q.weight" && plan.name != "blk.7.attn_k.weight";
            }),
            "blk.3.attn_q.weight: is missing\nblk.7.attn_k.weight: is missing\n");
}

TEST_F(ContainerCheckTest, WithoutTheEmbeddingOnlyWhatIsMissingIsNamed) {
  EXPECT_EQ(faultsAfter([](TensorPlan& plan) {
              plan.written = plan.name != "token_embd.weight" && plan.name != "blk.7.attn_k.weight";
            }),
            "token_embd.weight: is missing\nblk.7.attn_k.weight: is missing\n");
}

TEST_F(ContainerCheckTest, EveryTensorOfAnotherShapeIsNamed) {
  EXPECT_EQ(faultsAfter([](TensorPlan& plan) {
              if (plan.name == "blk.0.attn_qkv.weight") plan.dims = {2, 4096};
              if (plan.name == "blk.1.ssm_norm.weight") plan.values.resize(plan.dims[0] = 127);
            }),
            "blk.0.attn_qkv.weight: has 2 columns, needs 1\n"
            "blk.1.ssm_norm.weight: has 127 elements, needs 128\n");
}

TEST_F(ContainerCheckTest, TypesThatCannotBeUsedAreNamed) {
  EXPECT_EQ(faultsAfter([](TensorPlan& plan) {
              if (plan.name == "blk.0.ssm_norm.weight") {
                plan.type = QuantType::BF16;
                plan.values.resize(64);
              } else if (plan.name == "blk.0.ssm_alpha.weight") {
                plan.type = QuantType::F16;
                plan.values.resize(16);
              }
            }),
            "blk.0.ssm_alpha.weight: is F16, a type without matmul\n"
            "blk.0.ssm_norm.weight: is BF16, but is read as F32\n");
}

TEST_F(ContainerCheckTest, ValuesThatAreNotFiniteAreNamed) {
  EXPECT_EQ(faultsAfter([](TensorPlan& plan) {
              if (plan.name == "blk.2.ssm_a")
                plan.values[7] = std::numeric_limits<float>::quiet_NaN();
              if (plan.name == "output_norm.weight")
                plan.values[0] = std::numeric_limits<float>::infinity();
            }),
            "blk.2.ssm_a: value 7 is not finite\noutput_norm.weight: value 0 is not finite\n");
}

TEST_F(ContainerCheckTest, TensorOutsideTheWeightSectionIsNamed) {
  ASSERT_TRUE(writeSmallModel(path).ok());
  editEntry(0, [](kel::zym2::TensorEntry& entry) { entry.offset = uint64_t{0} - 64; });
  EXPECT_EQ(faults(), "blk.0.attn_gate.weight: lies outside the weight section\n");
}

// Its own bytes lie inside, those of the floats that are read do not.
TEST_F(ContainerCheckTest, FloatsOutsideTheWeightSectionAreNamed) {
  ASSERT_TRUE(writeSmallModel(path).ok());
  kel::ZYM2Reader reader;
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const uint64_t end = reader.sectionSize(kel::zym2::SectionType::WeightData);
  const uint8_t* entries = reader.sectionData(kel::zym2::SectionType::TensorIndex);
  const uint8_t* last = reader.findTensor("blk.31.attn_k_norm.weight");  // as it was written
  const auto index = static_cast<uint32_t>((last - entries) / kel::zym2::kTensorEntryBytes);
  reader.close();
  editEntry(index, [&](kel::zym2::TensorEntry& entry) {
    entry.type = static_cast<uint16_t>(QuantType::BF16);
    entry.byteSize = 512;
    entry.offset = end - 512;
  });
  EXPECT_EQ(faults(),
            "blk.31.attn_k_norm.weight: leaves the weight section\n"
            "blk.31.attn_k_norm.weight: is BF16, but is read as F32\n");
}

TEST_F(ContainerCheckTest, OverlapIsNamed) {
  ASSERT_TRUE(writeSmallModel(path).ok());
  uint64_t offset = 0;
  editEntry(1, [&](kel::zym2::TensorEntry& entry) { offset = entry.offset; });
  editEntry(0, [&](kel::zym2::TensorEntry& entry) { entry.offset = offset; });
  const std::string found = faults();
  EXPECT_NE(found.find(" overlaps "), std::string::npos) << found;
  EXPECT_NE(found.find("blk.0.attn_norm.weight"), std::string::npos) << found;
}

TEST_F(ContainerCheckTest, WrongByteSizeIsNamed) {
  ASSERT_TRUE(writeSmallModel(path).ok());
  editEntry(0, [](kel::zym2::TensorEntry& entry) { entry.byteSize -= 4; });
  EXPECT_EQ(faults(),
            "blk.0.attn_gate.weight: has 16380 bytes, its shape and type F32 need 16384\n");
}

TEST_F(ContainerCheckTest, ShapeThatOverflowsIsNamed) {
  ASSERT_TRUE(writeSmallModel(path).ok());
  editEntry(0, [](kel::zym2::TensorEntry& entry) { entry.dims[0] = entry.dims[1] = UINT64_MAX; });
  EXPECT_NE(faults().find("blk.0.attn_gate.weight: has a shape that overflows\n"),
            std::string::npos);
}

TEST_F(ContainerCheckTest, IndexOutOfOrderIsNamed) {
  ASSERT_TRUE(writeSmallModel(path).ok());
  editEntry(0, [](kel::zym2::TensorEntry& entry) { entry.name[0] = 'z'; });
  const std::string found = faults();
  EXPECT_NE(found.find("blk.0.attn_norm.weight: stands behind zlk.0.attn_gate.weight"),
            std::string::npos)
      << found;
  EXPECT_NE(found.find("blk.0.attn_gate.weight: is missing"), std::string::npos) << found;
}

TEST_F(ContainerCheckTest, OddEntriesAreNamed) {
  ASSERT_TRUE(writeSmallModel(path).ok());
  editEntry(0, [](kel::zym2::TensorEntry& entry) { entry.type = 12; });
  editEntry(1, [](kel::zym2::TensorEntry& entry) { entry.rank = 5; });
  editEntry(2, [](kel::zym2::TensorEntry& entry) { entry.nameLength -= 1; });
  const std::string found = faults();
  EXPECT_NE(found.find("has type 12, which is none"), std::string::npos) << found;
  EXPECT_NE(found.find("has rank 5, at most 4 is possible"), std::string::npos) << found;
  EXPECT_NE(found.find("has a name length that differs from its name"), std::string::npos) << found;
}

// Published value of the empty input.
TEST(ChecksumsTest, TextIsHighHalfFirst) {
  EXPECT_EQ(checksumText(nullptr, 0, nullptr), "99aa06d3014798d86001c324468d497f");
}

TEST(ChecksumsTest, EveryByteIsReported) {
  const std::vector<uint8_t> bytes((size_t{9} << 20) + 1);
  uint64_t reported = 0;
  (void)checksumText(bytes.data(), bytes.size(), [&](uint64_t n) {
    reported += n;
    return true;
  });
  EXPECT_EQ(reported, bytes.size());
}

}  // namespace
}  // namespace zym
