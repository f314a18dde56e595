#include "host/serve/api_keys.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace zym {
namespace {

std::string fileOf(const std::string& text) {
  const std::string path = ::testing::TempDir() + "zym_api_keys_" + std::to_string(getpid());
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

TEST(ApiKeysFile, HasOneKeyALineAndRemarks) {
  ApiKeys keys;
  const std::string path = fileOf("# people\n alpha \r\n\n#beta\nga mma\ndelta");
  ASSERT_TRUE(ApiKeys::read(path, keys).ok());
  for (const char* key : {"alpha", "ga mma", "delta"}) {
    EXPECT_TRUE(keys.contain(key)) << key;
  }
  for (const char* none : {"", "beta", "#beta", "# people", "alph", "alphaalpha", "Alpha", "a"}) {
    EXPECT_FALSE(keys.contain(none)) << none;
  }
  std::filesystem::remove(path);
}

TEST(ApiKeysFile, WithoutKeysIsAFault) {
  ApiKeys keys;
  const std::string path = fileOf("# none yet\n\n");
  EXPECT_EQ(ApiKeys::read(path, keys).message, "api keys: " + path + " has none");
  EXPECT_EQ(ApiKeys::read(path + ".not", keys).message, "api keys: cannot read " + path + ".not");
  EXPECT_FALSE(ApiKeys::read(::testing::TempDir(), keys).ok());
  EXPECT_TRUE(keys.empty());
  std::filesystem::remove(path);
}

TEST(ApiKeysFile, NoKeysContainNothing) {
  EXPECT_FALSE(ApiKeys().contain(""));
  EXPECT_FALSE(ApiKeys().contain("alpha"));
}

}  // namespace
}  // namespace zym
