#include "host/models/file_lock.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using Taking = FileLock::Taking;

class FileLockTest : public testing::Test {
 protected:
  kel::test::TempDir folder;
  std::string path = folder.file("lock");
  std::string reason;
};

TEST_F(FileLockTest, OneHolderAtATime) {
  FileLock first;
  FileLock second;
  ASSERT_EQ(Taking::Taken, first.take(path, reason));
  EXPECT_EQ(Taking::Busy, second.take(path, reason));
  first.release();
  EXPECT_EQ(Taking::Taken, second.take(path, reason));
  EXPECT_EQ(Taking::Busy, first.take(path, reason));
}

TEST_F(FileLockTest, FileGoesWithTheLock) {
  {
    FileLock lock;
    ASSERT_EQ(Taking::Taken, lock.take(path, reason));
    EXPECT_TRUE(std::filesystem::exists(path));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(FileLockTest, FileThatWasLeftBehindLocksNobodyOut) {
  kel::test::writeFile(path, {});
  FileLock lock;
  EXPECT_EQ(Taking::Taken, lock.take(path, reason));
}

TEST_F(FileLockTest, FolderThatIsMissingIsAReason) {
  FileLock lock;
  EXPECT_EQ(Taking::Failed, lock.take(folder.file("missing/lock"), reason));
  EXPECT_EQ("No such file or directory", reason);
}

}  // namespace
}  // namespace zym
