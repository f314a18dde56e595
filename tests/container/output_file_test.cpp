#include "container/output_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

using kel::ExistingFile;
using kel::GrowingFile;
using kel::OutputFile;
using kel::Status;
using kel::StatusCode;
using kel::test::Bytes;
using kel::test::readFile;
using kel::test::TempDir;
using kel::test::writeFile;

class OutputFileTest : public testing::TestWithParam<GrowingFile> {
 protected:
  size_t filesInFolder() const {
    const std::filesystem::directory_iterator entries(dir.path());
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
  }

  Status create(const std::string& target, ExistingFile existing = ExistingFile::IsReplaced) {
    return out.create(target, existing, GetParam());
  }

  void writeTo(const std::string& target) {
    ASSERT_EQ("", create(target).message);
    ASSERT_TRUE(out.append("new", 3).ok());
    ASSERT_EQ("", out.commit().message);
  }

  // Whether the file system of the folder has files without a name, and the system names them.
  bool hasNamelessFiles() const {
    const int fd = ::open(dir.path().c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (fd >= 0) {
      ::close(fd);
    }
    return fd >= 0 && std::filesystem::exists("/proc/self/fd");
  }

  const TempDir dir;
  OutputFile out;
};

INSTANTIATE_TEST_SUITE_P(Growing, OutputFileTest,
                         testing::Values(GrowingFile::HasNoName, GrowingFile::HasAName),
                         [](const auto& mode) {
                           return mode.param == GrowingFile::HasNoName ? "WithoutName" : "WithName";
                         });

// The number of a process that has ended.
pid_t endedProcess() {
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(0);
  }
  ::waitpid(child, nullptr, 0);
  return child;
}

TEST_P(OutputFileTest, AppendsAlignsAndOverwrites) {
  ASSERT_TRUE(create(dir.file("f")).ok());
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

TEST_P(OutputFileTest, AMissingFolderIsNamedWithTheReason) {
  const std::string path = dir.file("absent/model.zym");
  const Status status = create(path);
  EXPECT_EQ(StatusCode::IoError, status.code);
  EXPECT_EQ("ZYM2Writer: cannot open the folder of " + path + ": No such file or directory",
            status.message);
}

// One that appears while the new file is being written, too.
TEST_P(OutputFileTest, AnExistingFileIsKeptWhereThatWasAsked) {
  const std::string path = dir.file("f");
  ASSERT_TRUE(create(path, ExistingFile::IsKept).ok());
  ASSERT_TRUE(out.append("new", 3).ok());
  writeFile(path, {'o', 'l', 'd'});
  EXPECT_EQ("ZYM2Writer: cannot rename to " + path + ": File exists", out.commit().message);
  out.discard();
  EXPECT_EQ((Bytes{'o', 'l', 'd'}), readFile(path));
  EXPECT_EQ(1U, filesInFolder());

  const std::string free = dir.file("free");
  ASSERT_TRUE(create(free, ExistingFile::IsKept).ok());
  ASSERT_TRUE(out.append("new", 3).ok());
  ASSERT_EQ("", out.commit().message);
  EXPECT_EQ((Bytes{'n', 'e', 'w'}), readFile(free));
  EXPECT_EQ(2U, filesInFolder());
}

// Renaming over a device would take it away from the system.
TEST_P(OutputFileTest, TargetsThatAreNoRegularFilesAreRefused) {
  EXPECT_EQ("ZYM2Writer: not a regular file: /dev/full", create("/dev/full").message);
  const std::string folder = dir.path().string();
  EXPECT_EQ("ZYM2Writer: not a regular file: " + folder, create(folder).message);
  EXPECT_EQ(StatusCode::InvalidFormat, create(folder).code);
}

TEST_P(OutputFileTest, PathsThatNameNoFileAreRefused) {
  EXPECT_EQ("ZYM2Writer: not a file name: ", create("").message);
  EXPECT_EQ("ZYM2Writer: not a file name: " + dir.file("x/"), create(dir.file("x/")).message);
  EXPECT_FALSE(create(dir.file(std::string("a\0b", 3))).ok());
  EXPECT_EQ(0U, filesInFolder());
}

TEST_P(OutputFileTest, ATargetThatBecomesAFolderStaysAndTheTemporaryFileGoes) {
  const std::string path = dir.file("f");
  ASSERT_TRUE(create(path).ok());
  std::filesystem::create_directory(path);
  const Status status = out.commit();
  EXPECT_EQ(StatusCode::IoError, status.code);
  EXPECT_EQ("ZYM2Writer: cannot rename to " + path + ": Is a directory", status.message);
  out.discard();
  EXPECT_TRUE(std::filesystem::is_directory(path));
  EXPECT_EQ(1U, filesInFolder());
}

TEST_P(OutputFileTest, TheLongestFileNameIsPossible) {
  const std::string path = dir.file(std::string(255, 'f'));
  writeTo(path);
  EXPECT_EQ((Bytes{'n', 'e', 'w'}), readFile(path));
}

TEST_P(OutputFileTest, TheModeIsThatOfAnyNewFile) {
  const mode_t old = ::umask(027);
  writeTo(dir.file("f"));
  ::umask(old);
  struct stat info {};
  ASSERT_EQ(0, ::stat(dir.file("f").c_str(), &info));
  EXPECT_EQ(0640U, info.st_mode & 0777U);
}

TEST_P(OutputFileTest, ARelativeTargetStaysInItsFolderWhenTheWorkingDirectoryChanges) {
  const std::filesystem::path old = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const Status created = create("f");
  std::filesystem::current_path(old);
  ASSERT_TRUE(created.ok());
  ASSERT_TRUE(out.commit().ok());
  EXPECT_TRUE(std::filesystem::exists(dir.file("f")));
}

TEST_P(OutputFileTest, ATemporaryFileOfAnEarlierProcessIsSteppedOver) {
  const std::string stale = dir.file(".zym2-" + std::to_string(::getpid()) + "-0.tmp");
  writeFile(stale, {'s'});
  writeTo(dir.file("f"));
  EXPECT_EQ((Bytes{'s'}), readFile(stale));
  EXPECT_EQ((Bytes{'n', 'e', 'w'}), readFile(dir.file("f")));
}

TEST_P(OutputFileTest, FileThatGrowsIsSeenOnlyWhereItNeedsAName) {
  ASSERT_TRUE(create(dir.file("f")).ok());
  ASSERT_TRUE(out.append("new", 3).ok());
  const bool isSeen = GetParam() == GrowingFile::HasAName || !hasNamelessFiles();
  EXPECT_EQ(isSeen ? 1U : 0U, filesInFolder());
  out.discard();
  EXPECT_EQ(0U, filesInFolder());
}

TEST_P(OutputFileTest, TargetThatExistsIsReplacedWithoutATrace) {
  writeFile(dir.file("f"), {'o', 'l', 'd'});
  writeTo(dir.file("f"));
  EXPECT_EQ((Bytes{'n', 'e', 'w'}), readFile(dir.file("f")));
  EXPECT_EQ(1U, filesInFolder());
}

TEST_P(OutputFileTest, SymbolicLinkIsReplacedNotItsTarget) {
  writeFile(dir.file("old"), {'o', 'l', 'd'});
  std::filesystem::create_symlink("old", dir.file("f"));
  writeTo(dir.file("f"));
  EXPECT_EQ((Bytes{'o', 'l', 'd'}), readFile(dir.file("old")));
  EXPECT_FALSE(std::filesystem::is_symlink(dir.file("f")));
}

TEST_P(OutputFileTest, FilesOfKilledProcessesAreRemoved) {
  const std::string ended = std::to_string(endedProcess());
  const std::string left = dir.file(".zym2-" + ended + "-0.tmp");
  const std::string inUse = dir.file(".zym2-" + ended + "-1.tmp");
  const std::vector<std::string> kept = {
      inUse,
      dir.file(".zym2-1-0.tmp"),  // of a process that runs
      dir.file(".zym2-" + ended + "-x.tmp"),
      dir.file(".zym2-" + ended + ".tmp"),
      dir.file(".zym2-" + ended + "-0.tmp.zym"),
      dir.file("zym2-" + ended + "-0.tmp"),
  };
  writeFile(left, {'s'});
  for (const std::string& path : kept) {
    writeFile(path, {'k'});
  }
  // As a process that cannot be seen from here holds it.
  const int lock = ::open(inUse.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, ::flock(lock, LOCK_EX | LOCK_NB));
  ASSERT_TRUE(create(dir.file("f")).ok());
  ::close(lock);
  EXPECT_FALSE(std::filesystem::exists(left));
  for (const std::string& path : kept) {
    EXPECT_TRUE(std::filesystem::exists(path)) << path;
  }
}

// Whose process, for the others, may be out of sight.
TEST_P(OutputFileTest, FileThatGrowsUnderANameIsLocked) {
  ASSERT_TRUE(out.create(dir.file("f"), ExistingFile::IsReplaced, GrowingFile::HasAName).ok());
  const std::string name = dir.file(".zym2-" + std::to_string(::getpid()) + "-0.tmp");
  const int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_NE(0, ::flock(fd, LOCK_EX | LOCK_NB));
  out.discard();
  EXPECT_EQ(0, ::flock(fd, LOCK_EX | LOCK_NB));
  ::close(fd);
}

TEST_P(OutputFileTest, TwoFilesOfOneFolderGrowSideBySide) {
  OutputFile other;
  ASSERT_TRUE(create(dir.file("f")).ok());
  ASSERT_TRUE(other.create(dir.file("g"), ExistingFile::IsReplaced, GetParam()).ok());
  ASSERT_TRUE(out.append("1", 1).ok());
  ASSERT_TRUE(other.append("2", 1).ok());
  ASSERT_TRUE(other.commit().ok());
  ASSERT_TRUE(out.commit().ok());
  EXPECT_EQ((Bytes{'1'}), readFile(dir.file("f")));
  EXPECT_EQ((Bytes{'2'}), readFile(dir.file("g")));
}

TEST_P(OutputFileTest, DiscardingAfterACommitKeepsTheFile) {
  writeTo(dir.file("f"));
  out.discard();
  out.discard();
  EXPECT_TRUE(std::filesystem::exists(dir.file("f")));
}

}  // namespace
