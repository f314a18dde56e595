#include "host/measure/cache_size.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/temp_dir.h"

namespace zym {
namespace {

class CacheSizeTest : public testing::Test {
 protected:
  void cache(const std::string& cpu, const std::string& index, const std::string& level,
             const std::string& size, const std::string& sharedBy) {
    const std::filesystem::path at = folder.path() / cpu / "cache" / index;
    std::filesystem::create_directories(at);
    std::ofstream(at / "level") << level << "\n";
    std::ofstream(at / "size") << size << "\n";
    std::ofstream(at / "shared_cpu_list") << sharedBy << "\n";
  }
  uint64_t bytes() const { return lastLevelCacheBytes(folder.path().string()); }

 private:
  kel::test::TempDir folder;
};

TEST_F(CacheSizeTest, EachCacheOfTheLastLevelCountsOnce) {
  for (const char* cpu : {"cpu0", "cpu1"}) {
    cache(cpu, "index0", "1", "32K", cpu + 3);
    cache(cpu, "index3", "3", "32768K", "0-1");
  }
  cache("cpu2", "index3", "3", "16M", "2-3");
  EXPECT_EQ(bytes(), uint64_t{48} << 20);
}

TEST_F(CacheSizeTest, WithoutAThirdLevelTheSecondIsTheLast) {
  cache("cpu0", "index0", "1", "32K", "0");
  cache("cpu0", "index2", "2", "512K", "0");
  cache("cpu1", "index2", "2", "512K", "1");
  EXPECT_EQ(bytes(), uint64_t{1} << 20);
}

TEST_F(CacheSizeTest, WhatIsMissingOrMalformedIsNoCache) {
  EXPECT_EQ(bytes(), 0U);
  cache("cpu0", "index3", "three", "much", "0");
  EXPECT_EQ(bytes(), 0U);
  EXPECT_EQ(lastLevelCacheBytes("/nonexistent"), 0U);
  cache("cpu0", "index2", "2", "512K", "0");
  cache("cpu0", "index4", "4", "", "0");
  EXPECT_EQ(bytes(), uint64_t{512} << 10) << "a level without a size is passed over";
}

}  // namespace
}  // namespace zym
