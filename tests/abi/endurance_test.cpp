// Many handles and many calls: nothing leaks and nothing grows. Leaks are found by the sanitizer
// build; growth of resident memory in every build.
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <random>
#include <string>

#include "tests/abi/chat_host.h"
#include "tests/support/chat_model.h"
#include "tests/support/instrumented.h"
#include "tests/support/resident_memory.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::ChatModel;
using kel::test::residentKilobytes;
using testing_abi::Handle;
using testing_abi::plugin;

const ZYMRuntimeTableV2& table() {
  return *plugin().runtimesV2(nullptr);
}

// Of the calls that a sanitizer has to see: growth is not measured under one, and leaks show early.
constexpr int share(int calls) {
  return kel::test::kInstrumented ? calls / 8 : calls;
}

class Endurance : public testing::Test {
 protected:
  std::string model(const std::string& layerKinds = ChatModel{}.layerKinds) const {
    const std::string path = folder.file("m.zym");
    kel::test::writeChatModel(path, {.favourite = "<|im_end|>", .layerKinds = layerKinds});
    return path;
  }

  kel::test::TempDir folder;
};

constexpr long kAllowedGrowthKb = kel::test::allowedGrowth(8192);

TEST_F(Endurance, TwoThousandHandlesLeaveMemoryFlat) {
  const std::string path = model();
  for (int i = 0; i < 100; ++i) {
    testing_abi::createHandle(path).reset();
  }
  const long before = residentKilobytes();
  for (int i = 0; i < share(1900); ++i) {
    const Handle handle = testing_abi::createHandle(path);
    ASSERT_TRUE(handle);
    if (i % 100 == 0) {
      ASSERT_EQ(0u, testing_abi::chatTurn(handle, "x").status);
    }
  }
  EXPECT_LT(residentKilobytes() - before, kAllowedGrowthKb);
}

// One call with arguments drawn at random, valid and invalid ones.
void randomCall(ZYMRuntimeHandle* handle, std::mt19937& rng) {
  const auto pick = [&rng](auto... choices) {
    const std::array values{choices...};
    return values[rng() % values.size()];
  };
  const char* const text = pick(static_cast<const char*>(nullptr), "", "hi", "\xFF\xFE<|im_end|>",
                                "a\nb", "<|im_start|>");
  std::array<char, 64> out{};
  const size_t capacity = pick(size_t{0}, size_t{1}, size_t{7}, out.size());
  char* const buffer = rng() % 16 == 0 ? nullptr : out.data();
  ZYMRuntimeHandle* const target = rng() % 16 == 0 ? nullptr : handle;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  ZYMSessionOptions options =
      testing_abi::sampling(pick(-1.0f, 0.0f, 0.8f, nan), pick(-1, 0, 1, 40, 1 << 30),
                            pick(-1.0f, 0.0f, 0.9f, 1.0f, nan), rng() % 3);
  options.structSize = pick(0u, 39u, 40u, 4096u);
  const ZYMSessionOptions* const record = rng() % 8 == 0 ? nullptr : &options;
  volatile int cancel = pick(0, 1);
  ZYMRuntimeStats stats{};
  ZYMBenchResult result{};
  const ZYMBenchParams params = {12, pick(-1, 1, 2), pick(1, 3, 5)};
  uint32_t status = 99;
  switch (rng() % 8) {
    case 0:
      status = table().generate(target, text, buffer, capacity);
      break;
    case 1:
      status = table().generateEx(target, text, record, buffer, capacity);
      break;
    case 2:
      status = table().chatTurn(target, text, buffer, capacity);
      break;
    case 3:
      status = plugin().runtimesV2S(nullptr)->chatTurnStream(target, text, nullptr, nullptr,
                                                             rng() % 2 ? &cancel : nullptr);
      break;
    case 4:
      status = table().configure(target, record);
      break;
    case 5:
      status = table().reset(target);
      break;
    case 6:
      status = table().stats(target, rng() % 8 == 0 ? nullptr : &stats);
      break;
    default:
      status = table().bench(target, &params, rng() % 8 == 0 ? nullptr : &result);
      break;
  }
  EXPECT_LE(status, 2u);
}

long growthOver(ZYMRuntimeHandle* handle, int firstCalls, int calls) {
  std::mt19937 rng(20240607);
  for (int i = 0; i < firstCalls; ++i) {
    randomCall(handle, rng);
  }
  const long before = residentKilobytes();
  for (int i = 0; i < calls; ++i) {
    randomCall(handle, rng);
  }
  return residentKilobytes() - before;
}

// The calls skip the attention blocks, for time.
TEST_F(Endurance, TenThousandMixedCallsLeaveMemoryFlat) {
  const Handle handle = testing_abi::createHandle(model("L"));
  const kel::test::ScopedEnv env("QWEN35_ABLATE", "full");
  EXPECT_LT(growthOver(handle.get(), share(1000), share(9000)), kAllowedGrowthKb);
}

// Fewer calls that run whole, their prompts in blocks.
TEST_F(Endurance, EightyWholeCallsLeaveMemoryFlat) {
  const Handle handle = testing_abi::createHandle(model());
  EXPECT_LT(growthOver(handle.get(), share(20), share(60)), kAllowedGrowthKb);
}

}  // namespace
