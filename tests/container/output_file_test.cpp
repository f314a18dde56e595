#include "container/output_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/temp_dir.h"

namespace {

using kel::OutputFile;
using kel::Status;
using kel::StatusCode;
using kel::test::Bytes;
using kel::test::readFile;
using kel::test::TempDir;
using kel::test::writeFile;

class OutputFileTest : public testing::Test {
 protected:
  size_t filesInFolder() const {
    const std::filesystem::directory_iterator entries(dir.path());
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
  }

  void writeTo(const std::string& target) {
    ASSERT_EQ("", out.create(target).message);
    ASSERT_TRUE(out.append("new", 3).ok());
    ASSERT_EQ("", out.commit().message);
  }

  const TempDir dir;
  OutputFile out;
};

TEST_F(OutputFileTest, AppendsAlignsAndOverwrites) {
  ASSERT_TRUE(out.create(dir.file("f")).ok());
  ASSERT_TRUE(out.append("abcde", 5).ok());
  EXPECT_EQ(5U, out.size());
  ASSERT_TRUE(out.alignTo(8).ok());
  ASSERT_TRUE(out.alignTo(8).ok());
  EXPECT_EQ(8U, out.size());
  ASSERT_TRUE(out.overwrite(1, "XY", 2).ok());
  ASSERT_TRUE(out.append("z", 1).ok());
  ASSERT_TRUE(out.commit().ok());
  EXPECT_FALSE(out.isOpen());
  EXPECT_EQ((Bytes{'a', 'X', 'Y', 'd', 'e', 0, 0, 0, 'z'}), readFile(dir.file("f")));
}

TEST_F(OutputFileTest, AMissingFolderIsNamedWithTheReason) {
  const std::string path = dir.file("absent/model.zym");
  const Status status = out.create(path);
  EXPECT_EQ(StatusCode::IoError, status.code);
  EXPECT_EQ("ZYM2Writer: cannot open the folder of " + path + ": No such file or directory",
            status.message);
}

// One that appears while the new file is being written, too.
TEST_F(OutputFileTest, AnExistingFileIsKeptWhereThatWasAsked) {
  const std::string path = dir.file("f");
  ASSERT_TRUE(out.create(path, kel::ExistingFile::IsKept).ok());
  ASSERT_TRUE(out.append("new", 3).ok());
  writeFile(path, {'o', 'l', 'd'});
  EXPECT_EQ("ZYM2Writer: cannot rename to " + path + ": File exists", out.commit().message);
  out.discard();
  EXPECT_EQ((Bytes{'o', 'l', 'd'}), readFile(path));
  EXPECT_EQ(1U, filesInFolder());

  const std::string free = dir.file("free");
  ASSERT_TRUE(out.create(free, kel::ExistingFile::IsKept).ok());
  ASSERT_TRUE(out.append("new", 3).ok());
  ASSERT_EQ("", out.commit().message);
  EXPECT_EQ((Bytes{'n', 'e', 'w'}), readFile(free));
  EXPECT_EQ(2U, filesInFolder());
}

// Renaming over a device would take it away from the system.
TEST_F(OutputFileTest, TargetsThatAreNoRegularFilesAreRefused) {
  EXPECT_EQ("ZYM2Writer: not a regular file: /dev/full", out.create("/dev/full").message);
  const std::string folder = dir.path().string();
  EXPECT_EQ("ZYM2Writer: not a regular file: " + folder, out.create(folder).message);
  EXPECT_EQ(StatusCode::InvalidFormat, out.create(folder).code);
}

TEST_F(OutputFileTest, PathsThatNameNoFileAreRefused) {
  EXPECT_EQ("ZYM2Writer: not a file name: ", out.create("").message);
  EXPECT_EQ("ZYM2Writer: not a file name: " + dir.file("x/"), out.create(dir.file("x/")).message);
  EXPECT_FALSE(out.create(dir.file(std::string("a\0b", 3))).ok());
  EXPECT_EQ(0U, filesInFolder());
}

TEST_F(OutputFileTest, ATargetThatBecomesAFolderStaysAndTheTemporaryFileGoes) {
  const std::string path = dir.file("f");
  ASSERT_TRUE(out.create(path).ok());
  std::filesystem::create_directory(path);
  const Status status = out.commit();
  EXPECT_EQ(StatusCode::IoError, status.code);
  EXPECT_EQ("ZYM2Writer: cannot rename to " + path + ": Is a directory", status.message);
  out.discard();
  EXPECT_TRUE(std::filesystem::is_directory(path));
  EXPECT_EQ(1U, filesInFolder());
}

TEST_F(OutputFileTest, TheLongestFileNameIsPossible) {
  const std::string path = dir.file(std::string(255, 'f'));
  writeTo(path);
  EXPECT_EQ((Bytes{'n', 'e', 'w'}), readFile(path));
}

TEST_F(OutputFileTest, TheModeIsThatOfAnyNewFile) {
  const mode_t old = ::umask(027);
  writeTo(dir.file("f"));
  ::umask(old);
  struct stat info {};
  ASSERT_EQ(0, ::stat(dir.file("f").c_str(), &info));
  EXPECT_EQ(0640U, info.st_mode & 0777U);
}

TEST_F(OutputFileTest, ARelativeTargetStaysInItsFolderWhenTheWorkingDirectoryChanges) {
  const std::filesystem::path old = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const Status created = out.create("f");
  std::filesystem::current_path(old);
  ASSERT_TRUE(created.ok());
  ASSERT_TRUE(out.commit().ok());
  EXPECT_TRUE(std::filesystem::exists(dir.file("f")));
}

TEST_F(OutputFileTest, ATemporaryFileOfAnEarlierProcessIsSteppedOver) {
  const std::string stale = dir.file(".zym2-" + std::to_string(::getpid()) + "-0.tmp");
  writeFile(stale, {'s'});
  writeTo(dir.file("f"));
  EXPECT_EQ((Bytes{'s'}), readFile(stale));
  EXPECT_EQ((Bytes{'n', 'e', 'w'}), readFile(dir.file("f")));
}

TEST_F(OutputFileTest, TwoFilesOfOneFolderGrowSideBySide) {
  OutputFile other;
  ASSERT_TRUE(out.create(dir.file("f")).ok());
  ASSERT_TRUE(other.create(dir.file("g")).ok());
  ASSERT_TRUE(out.append("1", 1).ok());
  ASSERT_TRUE(other.append("2", 1).ok());
  ASSERT_TRUE(other.commit().ok());
  ASSERT_TRUE(out.commit().ok());
  EXPECT_EQ((Bytes{'1'}), readFile(dir.file("f")));
  EXPECT_EQ((Bytes{'2'}), readFile(dir.file("g")));
}

TEST_F(OutputFileTest, DiscardingAfterACommitKeepsTheFile) {
  writeTo(dir.file("f"));
  out.discard();
  out.discard();
  EXPECT_TRUE(std::filesystem::exists(dir.file("f")));
}

}  // namespace
