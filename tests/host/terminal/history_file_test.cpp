#include "host/terminal/history_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/file_contents.h"

namespace zym {
namespace {

namespace fs = std::filesystem;
using Messages = std::vector<std::string>;

class HistoryFileTest : public testing::Test {
 protected:
  void TearDown() override { fs::remove_all(folder); }

  std::string text() const { return kel::test::contentsOf(path); }
  void write(const std::string& content) const {
    fs::create_directories(folder);
    std::ofstream(path) << content;
  }

  fs::path folder = fs::path(testing::TempDir()) / ("history." + std::to_string(getpid()));
  fs::path path = folder / "file";
};

TEST(HistoryLineTest, LineFeedsAndControlsAreOctal) {
  EXPECT_EQ(encodeHistoryLine("a b\nc\\d\t\u00E9"), "a b\\012c\\134d\\011\u00E9");
}

TEST(HistoryLineTest, DecodingGivesBackEveryByte) {
  std::string all;
  for (int byte = 1; byte < 256; ++byte) {
    all += static_cast<char>(byte);
  }
  EXPECT_EQ(decodeHistoryLine(encodeHistoryLine(all)), all);
}

// What the line editor's library writes: spaces, bytes above 127 and controls have escapes of their
// own.
TEST(HistoryLineTest, LinesOfTheLibraryAreRead) {
  EXPECT_EQ(decodeHistoryLine("two\\040words"), "two words");
  EXPECT_EQ(decodeHistoryLine("caf\\M-C\\M-)"), "caf\u00E9");
  EXPECT_EQ(decodeHistoryLine("\\^A\\^?\\M^A\\M^?\\M^@"), "\x01\x7F\x81\xFF\x80");
  EXPECT_EQ(decodeHistoryLine("a\\\\b"), "a\\b");
}

TEST(HistoryLineTest, OtherBackslashesStay) {
  EXPECT_EQ(decodeHistoryLine("\\q\\99\\777\\M\\M-"), "\\q\\99\\777\\M\\M-");
  EXPECT_EQ(decodeHistoryLine("\\"), "\\");
}

TEST_F(HistoryFileTest, MessagesOfSeveralLinesComeBackWhole) {
  ASSERT_TRUE(HistoryFile(path).append("one\ntwo").ok());
  ASSERT_TRUE(HistoryFile(path).append("three").ok());
  EXPECT_EQ(HistoryFile(path).load(10), (Messages{"one\ntwo", "three"}));
  EXPECT_EQ(text(), "_HiStOrY_V2_\none\\012two\nthree\n");
}

TEST_F(HistoryFileTest, FileAndFolderAreMadePrivately) {
  path = folder / "new" / "file";
  ASSERT_TRUE(HistoryFile(path).append("one").ok());
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(HistoryFileTest, ModeOfAnOlderFileIsSet) {
  write("_HiStOrY_V2_\none\n");
  chmod(path.c_str(), 0644);
  (void)HistoryFile(path).load(10);
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

TEST_F(HistoryFileTest, ChatsAtOnceLoseNothing) {
  HistoryFile first(path);
  HistoryFile second(path);
  std::thread other([&] {
    for (int i = 0; i < 100; ++i) {
      EXPECT_TRUE(second.append("second").ok());
    }
  });
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(first.append("first").ok());
    if (i % 10 == 0) {
      (void)first.load(1000);
    }
  }
  other.join();
  EXPECT_EQ(HistoryFile(path).load(1000).size(), 200U);
}

TEST_F(HistoryFileTest, LongFileIsCutToTheNewestMessages) {
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(HistoryFile(path).append(std::to_string(i)).ok());
  }
  EXPECT_EQ(HistoryFile(path).load(3), (Messages{"2", "3", "4"}));
  EXPECT_EQ(text(), "_HiStOrY_V2_\n0\n1\n2\n3\n4\n") << "not yet twice as long";
  EXPECT_EQ(HistoryFile(path).load(2), (Messages{"3", "4"}));
  EXPECT_EQ(text(), "_HiStOrY_V2_\n3\n4\n");
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);
}

// The cut replaces the file; somebody who waits for the lock of the former one appends to the new.
TEST_F(HistoryFileTest, AppendFollowsAFileThatIsReplaced) {
  ASSERT_TRUE(HistoryFile(path).append("former").ok());
  const int former = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(former, LOCK_EX), 0);
  std::thread appender([&] { EXPECT_TRUE(HistoryFile(path).append("new").ok()); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  fs::rename(path, folder / "away");
  write("_HiStOrY_V2_\nkept\n");
  close(former);
  appender.join();
  EXPECT_EQ(HistoryFile(path).load(10), (Messages{"kept", "new"}));
}

TEST_F(HistoryFileTest, LineThatWasCutShortDoesNotSwallowTheNext) {
  write("_HiStOrY_V2_\nhalf");
  ASSERT_TRUE(HistoryFile(path).append("whole").ok());
  EXPECT_EQ(HistoryFile(path).load(10), (Messages{"half", "whole"}));
}

TEST_F(HistoryFileTest, FailureNamesTheFileAndLeavesItAsItWas) {
  ASSERT_TRUE(HistoryFile(path).append("one").ok());
  const std::string before = text();
  // Past the limit of a file's size a write is cut short, as on a full disk.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit former{};
  getrlimit(RLIMIT_FSIZE, &former);
  const rlimit tight{before.size() + 4, former.rlim_max};
  setrlimit(RLIMIT_FSIZE, &tight);
  const kel::Status status = HistoryFile(path).append("a message that has no room");
  setrlimit(RLIMIT_FSIZE, &former);
  EXPECT_EQ(status.message, path.string() + ": File too large");
  EXPECT_EQ(text(), before);
}

TEST_F(HistoryFileTest, FolderThatCannotBeMadeIsAFailure) {
  write("");
  EXPECT_EQ(HistoryFile(path / "below").append("one").message,
            (path / "below").string() + ": Not a directory");
}

TEST_F(HistoryFileTest, WhatIsNoFileIsLeftAlone) {
  HistoryFile nowhere("/dev/null");
  EXPECT_TRUE(nowhere.append("one").ok());
  EXPECT_TRUE(nowhere.load(10).empty());
  EXPECT_TRUE(HistoryFile("").append("one").ok());
}

}  // namespace
}  // namespace zym
