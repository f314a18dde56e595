#include "container/zym2_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/container_samples.h"

namespace {

using kel::Status;
using kel::StatusCode;
using kel::ZYM2Reader;
using kel::test::ContainerImage;
using kel::test::ImageFile;
using kel::test::sampleImage;
using kel::zym2::SectionType;
namespace test = kel::test;

class ReaderTest : public testing::Test {
 protected:
  // The message of opening the image; empty when it opens.
  std::string openMessage(const ContainerImage& image) {
    const Status status = reader.open(file.write(image));
    EXPECT_EQ(status.ok() ? StatusCode::Ok : StatusCode::InvalidFormat, status.code);
    EXPECT_EQ(status.ok(), reader.isOpen());
    return status.message;
  }

  ImageFile file;
  ZYM2Reader reader;
};

TEST_F(ReaderTest, AValidFileOpensWithAnEmptyMessage) {
  const ContainerImage image = sampleImage();
  EXPECT_EQ("", openMessage(image));
  EXPECT_EQ(image.bytes.size(), reader.fileSize());
  EXPECT_EQ(0xAU, reader.header().wordA);
  EXPECT_EQ(3U, reader.header().tensorCount);
}

TEST_F(ReaderTest, NullPath) {
  const Status status = reader.open(nullptr);
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("ZYM2: null path", status.message);
}

TEST_F(ReaderTest, AMissingFileCannotBeOpened) {
  const test::TempDir dir;
  const Status status = reader.open(dir.file("absent.zym").c_str());
  EXPECT_EQ(StatusCode::InvalidFormat, status.code);
  EXPECT_EQ("ZYM2: cannot open file", status.message);
}

TEST_F(ReaderTest, AnEmptyFileCannotBeMeasured) {
  EXPECT_EQ("ZYM2: cannot stat file", openMessage(ContainerImage({})));
}

TEST_F(ReaderTest, ANamedPipeIsNotWaitedOn) {
  const test::TempDir dir;
  const std::string path = dir.file("pipe.zym");
  ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
  EXPECT_EQ("ZYM2: cannot stat file", reader.open(path.c_str()).message);
}

// The holder of the lease is told by a signal that somebody waits, and gives it up.
TEST_F(ReaderTest, AWriteLeaseIsWaitedForUntilItsHolderGivesItUp) {
  const test::TempDir dir;
  const std::string path = dir.file("leased.zym");
  test::writeFile(path, sampleImage().bytes);
  sigset_t wanted;
  sigset_t before;
  sigemptyset(&wanted);
  sigaddset(&wanted, SIGIO);
  ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &wanted, &before));
  const int leased = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(leased, 0);
  const bool held = ::fcntl(leased, F_SETLEASE, F_WRLCK) == 0;
  if (held) {
    std::thread holder([&] {
      int signal = 0;
      sigwait(&wanted, &signal);
      ::fcntl(leased, F_SETLEASE, F_UNLCK);
    });
    EXPECT_EQ("", reader.open(path.c_str()).message);
    holder.join();
  }
  ::close(leased);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (!held) {
    GTEST_SKIP() << "this file system has no leases";
  }
}

// A folder opens and has a size, but cannot be mapped.
TEST_F(ReaderTest, AFolderCannotBeMapped) {
  const test::TempDir dir;
  test::writeFile(dir.file("something"), {1});
  EXPECT_EQ("ZYM2: mmap failed", reader.open(dir.path().c_str()).message);
  EXPECT_EQ(0U, reader.fileSize());
}

TEST_F(ReaderTest, FilesOf1To63BytesAreTooSmall) {
  const ContainerImage whole = sampleImage();
  for (size_t length = 1; length < 64; ++length) {
    const ContainerImage image(
        test::Bytes(whole.bytes.begin(), whole.bytes.begin() + static_cast<ptrdiff_t>(length)));
    EXPECT_EQ("ZYM2: file too small", openMessage(image)) << length;
  }
}

// One file with every fault at once, repaired in the order in which the faults are reported.
TEST_F(ReaderTest, HeaderFaultsAreReportedInOrder) {
  ContainerImage image(test::Bytes(64, 0xEE));
  EXPECT_EQ("ZYM2: bad magic", openMessage(image));
  image.set<uint32_t>(test::kMagicAt, 0x324D595A);
  EXPECT_EQ("ZYM2: unsupported version", openMessage(image));
  image.set<uint32_t>(test::kVersionAt, 2);
  EXPECT_EQ("ZYM2: big-endian files unsupported", openMessage(image));
  image.set<uint32_t>(test::kEndianAt, 0x01020304);
  EXPECT_EQ("ZYM2: truncated section table", openMessage(image));
  image.set<uint32_t>(test::kSectionCountAt, 17);
  EXPECT_EQ("ZYM2: truncated section table", openMessage(image));
  image.bytes.resize(64 + 17 * 24 - 1, 0xEE);
  EXPECT_EQ("ZYM2: truncated section table", openMessage(image));
  image.bytes.push_back(0xEE);
  EXPECT_EQ("ZYM2: too many sections", openMessage(image));
  image.set<uint32_t>(test::kSectionCountAt, 16);
  EXPECT_EQ("ZYM2: CRC mismatch", openMessage(image));
  image.fixCrc();
  EXPECT_EQ("ZYM2: bad section bounds", openMessage(image));
}

TEST_F(ReaderTest, SectionFaultsAreReportedInOrder) {
  ContainerImage image = sampleImage();
  image.setOffset(SectionType::Meta, 65);
  image.setSize(SectionType::TensorIndex, 3 * 128 - 1);
  image.setSize(SectionType::QuantInfo, 3 * 32 - 1);
  image.hide(SectionType::WeightData).fixCrc();
  EXPECT_EQ("ZYM2: bad section bounds", openMessage(image));
  image.setOffset(SectionType::Meta, 64).fixCrc();
  EXPECT_EQ("ZYM2: missing tensor index", openMessage(image));
  image.setSize(SectionType::TensorIndex, 3 * 128).fixCrc();
  EXPECT_EQ("ZYM2: bad quant info", openMessage(image));
  image.setSize(SectionType::QuantInfo, 3 * 32).fixCrc();
  EXPECT_EQ("ZYM2: missing weight data", openMessage(image));
}

TEST_F(ReaderTest, ABadMagic) {
  EXPECT_EQ("ZYM2: bad magic", openMessage(sampleImage().set<uint8_t>(3, '3').fixCrc()));
}

TEST_F(ReaderTest, AnyOtherVersionIsUnsupported) {
  for (const uint32_t version : {0U, 1U, 3U, 0x02000000U}) {
    EXPECT_EQ("ZYM2: unsupported version",
              openMessage(sampleImage().set(test::kVersionAt, version).fixCrc()));
  }
}

TEST_F(ReaderTest, EndianMarkerBytes01020304AreABigEndianFile) {
  EXPECT_EQ("ZYM2: big-endian files unsupported",
            openMessage(sampleImage().set<uint32_t>(test::kEndianAt, 0x04030201).fixCrc()));
  EXPECT_EQ("ZYM2: big-endian files unsupported",
            openMessage(sampleImage().set<uint32_t>(test::kEndianAt, 0).fixCrc()));
}

TEST_F(ReaderTest, SectionCount17IsTruncationInAShortFileAndTooManyInALongOne) {
  ContainerImage image = sampleImage();
  image.set<uint32_t>(test::kSectionCountAt, 17);
  image.bytes.resize(64 + 17 * 24 - 1);
  EXPECT_EQ("ZYM2: truncated section table", openMessage(image));
  image.bytes.resize(64 + 17 * 24);
  EXPECT_EQ("ZYM2: too many sections", openMessage(image));
}

// 24 times this count is 24 modulo 2^32.
TEST_F(ReaderTest, AWildSectionCountDoesNotWrap) {
  const ContainerImage image = sampleImage().set<uint32_t>(test::kSectionCountAt, 0x20000001);
  EXPECT_EQ("ZYM2: truncated section table", openMessage(image));
}

TEST_F(ReaderTest, SixteenSectionsAreAccepted) {
  ContainerImage image = sampleImage();
  image.bytes.insert(image.bytes.begin() + 64, 256, 0);
  // The old table was 144 of the 192 bytes before the first section; everything moved by 256.
  std::copy_n(image.bytes.begin() + 64 + 256, 144, image.bytes.begin() + 64);
  std::fill_n(image.bytes.begin() + 64 + 144, 10 * 24, uint8_t{0});
  for (size_t at = 64; at < 64 + 144; at += 24) {
    image.set<uint64_t>(at + 8, image.get<uint64_t>(at + 8) + 256);
  }
  image.set<uint32_t>(test::kSectionCountAt, 16).fixCrc();
  EXPECT_EQ("", openMessage(image));
}

TEST_F(ReaderTest, AnyByteChangedUnderTheChecksumIsAMismatch) {
  const ContainerImage whole = sampleImage();
  const size_t tableEnd = 64 + 24 * whole.sectionCount();
  for (size_t at = 16; at < tableEnd; ++at) {  // what comes before 16 has messages of its own
    ContainerImage image = whole;
    image.bytes[at] ^= 0x40;
    EXPECT_EQ("ZYM2: CRC mismatch", openMessage(image)) << at;
  }
}

TEST_F(ReaderTest, AByteChangedInsideASectionIsNot) {
  ContainerImage image = sampleImage();
  image.bytes[image.offsetOf(SectionType::WeightData)] ^= 0xFF;
  image.bytes[image.offsetOf(SectionType::Text)] ^= 0xFF;
  EXPECT_EQ("", openMessage(image));
}

TEST_F(ReaderTest, ASectionMayEndAtTheEndOfTheFileButNotOneByteLater) {
  ContainerImage image = sampleImage();
  const uint64_t offset = image.offsetOf(SectionType::Text);
  image.setSize(SectionType::Text, image.bytes.size() - offset).fixCrc();
  EXPECT_EQ("", openMessage(image));
  image.setSize(SectionType::Text, image.bytes.size() - offset + 1).fixCrc();
  EXPECT_EQ("ZYM2: bad section bounds", openMessage(image));
}

TEST_F(ReaderTest, AnOffsetOf65IsRejectedEvenIfItFits) {
  ContainerImage image = sampleImage();
  image.setOffset(SectionType::Text, 65).setSize(SectionType::Text, 1).fixCrc();
  EXPECT_EQ("ZYM2: bad section bounds", openMessage(image));
}

TEST_F(ReaderTest, AnOffsetThatIsAMultipleOf32AloneIsRejected) {
  ContainerImage image = sampleImage();
  for (const uint64_t offset : {96U, 72U, 80U}) {
    image.setOffset(SectionType::Text, offset).setSize(SectionType::Text, 1).fixCrc();
    EXPECT_EQ("ZYM2: bad section bounds", openMessage(image)) << offset;
  }
  image.setOffset(SectionType::Text, 128).fixCrc();
  EXPECT_EQ("", openMessage(image));
}

TEST_F(ReaderTest, ASectionWhoseEndWrapsIsOutOfBounds) {
  ContainerImage image = sampleImage();
  image.setOffset(SectionType::Text, 128).setSize(SectionType::Text, UINT64_MAX - 63).fixCrc();
  EXPECT_EQ("ZYM2: bad section bounds", openMessage(image));
  image.setOffset(SectionType::Text, UINT64_MAX - 63).setSize(SectionType::Text, 128).fixCrc();
  EXPECT_EQ("ZYM2: bad section bounds", openMessage(image));
}

TEST_F(ReaderTest, BoundsAreCheckedForUnknownSectionTypesToo) {
  ContainerImage image = sampleImage();
  image.setSize(SectionType::Text, image.bytes.size()).hide(SectionType::Text).fixCrc();
  EXPECT_EQ("ZYM2: bad section bounds", openMessage(image));
}

TEST_F(ReaderTest, AFileWithoutSectionsMissesItsTensorIndex) {
  EXPECT_EQ("ZYM2: missing tensor index",
            openMessage(sampleImage().set<uint32_t>(test::kSectionCountAt, 0).fixCrc()));
}

TEST_F(ReaderTest, AnAbsentAndAShortTensorIndexReportTheSame) {
  EXPECT_EQ("ZYM2: missing tensor index",
            openMessage(sampleImage().hide(SectionType::TensorIndex).fixCrc()));
  EXPECT_EQ("ZYM2: missing tensor index",
            openMessage(sampleImage().setSize(SectionType::TensorIndex, 3 * 128 - 1).fixCrc()));
}

// 128 times this count is 0 modulo 2^32.
TEST_F(ReaderTest, AWildTensorCountDoesNotWrap) {
  const ContainerImage image = sampleImage().set<uint32_t>(test::kTensorCountAt, 0x02000000);
  EXPECT_EQ("ZYM2: missing tensor index", openMessage(ContainerImage(image).fixCrc()));
}

TEST_F(ReaderTest, AShortQuantInfo) {
  EXPECT_EQ("ZYM2: bad quant info",
            openMessage(sampleImage().setSize(SectionType::QuantInfo, 3 * 32 - 1).fixCrc()));
}

TEST_F(ReaderTest, AnAbsentQuantInfoIsAllowed) {
  EXPECT_EQ("", openMessage(sampleImage().hide(SectionType::QuantInfo).fixCrc()));
}

TEST_F(ReaderTest, AbsentWeightData) {
  EXPECT_EQ("ZYM2: missing weight data",
            openMessage(sampleImage().hide(SectionType::WeightData).fixCrc()));
}

TEST_F(ReaderTest, TensorCount0WithAnEmptyIndexOpens) {
  ContainerImage image = sampleImage();
  image.set<uint32_t>(test::kTensorCountAt, 0).setSize(SectionType::TensorIndex, 0);
  image.setSize(SectionType::QuantInfo, 0).fixCrc();
  EXPECT_EQ("", openMessage(image));
}

TEST_F(ReaderTest, OfTwoSectionsOfOneTypeTheFirstInTheTableIsFound) {
  ContainerImage image = sampleImage();
  image.set<uint32_t>(image.entryAt(SectionType::Tokenizer),
                      static_cast<uint32_t>(SectionType::Text));
  EXPECT_EQ("", openMessage(image.fixCrc()));
  EXPECT_EQ(image.offsetOf(SectionType::Text), reader.section(SectionType::Text)->offset);
  EXPECT_EQ(image.sizeOf(SectionType::Text), reader.sectionSize(SectionType::Text));
  EXPECT_EQ('T', reader.sectionData(SectionType::Text)[0]);
}

TEST_F(ReaderTest, SectionsMayLieInAnyOrderInTheFile) {
  ContainerImage image = sampleImage();
  const auto from = image.bytes.begin() + static_cast<ptrdiff_t>(image.offsetOf(SectionType::Meta));
  const test::Bytes meta(from, from + static_cast<ptrdiff_t>(image.sizeOf(SectionType::Meta)));
  image.replace(SectionType::TensorIndex, test::Bytes(3 * 128, 0));
  image.replace(SectionType::Meta, meta).fixCrc();
  EXPECT_EQ("", openMessage(image));
}

TEST_F(ReaderTest, SectionsAnswerByTypeWhileOpen) {
  const ContainerImage image = sampleImage();
  ASSERT_EQ("", openMessage(image));
  EXPECT_EQ("some text",
            std::string(reinterpret_cast<const char*>(reader.sectionData(SectionType::Text)),
                        reader.sectionSize(SectionType::Text)));
  EXPECT_EQ(nullptr, reader.section(static_cast<SectionType>(7)));
  EXPECT_EQ(nullptr, reader.sectionData(static_cast<SectionType>(7)));
  EXPECT_EQ(0U, reader.sectionSize(static_cast<SectionType>(7)));
}

TEST_F(ReaderTest, AnOpenReaderIsAlignedAndAClosedOneIsNot) {
  EXPECT_FALSE(reader.aligned64());
  ASSERT_EQ("", openMessage(sampleImage()));
  EXPECT_TRUE(reader.aligned64());
  reader.close();
  EXPECT_FALSE(reader.aligned64());
}

TEST_F(ReaderTest, HeaderWordsAndReservedBytesMayHoldAnything) {
  ContainerImage image = sampleImage();
  for (size_t at = test::kWordAAt; at < test::kTensorCountAt; ++at) {
    image.bytes[at] = 0xFF;
  }
  for (size_t at = test::kTensorCountAt + 4; at < test::kCrcAt; ++at) {
    image.bytes[at] = 0xFF;
  }
  EXPECT_EQ("", openMessage(image.fixCrc()));
  EXPECT_EQ(UINT32_MAX, reader.header().wordA);
  EXPECT_EQ(UINT64_MAX, reader.header().wordB);
  EXPECT_EQ(UINT64_MAX, reader.header().wordC);
}

TEST_F(ReaderTest, ClosingTwiceAndClosingAClosedReaderDoNothing) {
  reader.close();
  ASSERT_EQ("", openMessage(sampleImage()));
  reader.close();
  reader.close();
  EXPECT_FALSE(reader.isOpen());
  EXPECT_EQ(0U, reader.fileSize());
  EXPECT_EQ(nullptr, reader.sectionTable());
  EXPECT_EQ(nullptr, reader.section(SectionType::Meta));
  uint32_t value = 0;
  EXPECT_FALSE(reader.getMetaU32("u32", value));
}

// The flags that /proc/self/smaps shows of each mapping of a file, a line a mapping.
std::vector<std::string> mappingFlags(const std::string& path) {
  std::ifstream maps("/proc/self/smaps");
  std::vector<std::string> flags;
  bool ofFile = false;
  for (std::string line; std::getline(maps, line);) {
    if (line.find('-') < line.find(' ') && line.find(':') > line.find(' ')) {
      ofFile = line.ends_with(path);
    } else if (ofFile && line.starts_with("VmFlags:")) {
      flags.push_back(line + ' ');
    }
  }
  return flags;
}

// Whether the system has huge pages to advise and shows the advice: an emulated one may do neither.
bool adviceShows(const std::string& path) {
  constexpr size_t kLength = 1;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  void* trial = ::mmap(nullptr, kLength, PROT_READ, MAP_PRIVATE, fd, 0);
  ::close(fd);
  if (trial == MAP_FAILED) {
    return false;
  }
  const bool known = ::madvise(trial, kLength, MADV_HUGEPAGE) == 0;
  const std::vector<std::string> flags = mappingFlags(path);
  ::munmap(trial, kLength);
  return known && flags.size() == 1 && flags.front().find(" hg ") != std::string::npos;
}

// Advice for a part of the mapping would split it in two.
TEST_F(ReaderTest, TheWholeMappingIsAdvisedToUseHugePages) {
  const test::TempDir dir;
  const std::string path = dir.file("advised.zym");
  ContainerImage image = sampleImage();
  image.bytes.resize(5 * static_cast<size_t>(::sysconf(_SC_PAGESIZE)) + 17);
  test::writeFile(path, image.bytes);
  if (!adviceShows(path)) {
    GTEST_SKIP() << "this system shows no advice on huge pages";
  }
  ASSERT_TRUE(reader.open(path.c_str()).ok());
  const std::vector<std::string> flags = mappingFlags(path);
  ASSERT_EQ(1U, flags.size());
  EXPECT_NE(std::string::npos, flags.front().find(" hg ")) << flags.front();
}

bool isMapped(const std::string& path) {
  std::ifstream maps("/proc/self/maps");
  std::stringstream text;
  text << maps.rdbuf();
  return text.str().find(path) != std::string::npos;
}

size_t openFiles() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

TEST_F(ReaderTest, OpeningASecondFileReleasesTheFirst) {
  const test::TempDir dir;
  const std::string first = dir.file("first.zym");
  const std::string second = dir.file("second.zym");
  test::writeFile(first, sampleImage().bytes);
  test::writeFile(second, sampleImage().bytes);
  const size_t before = openFiles();
  ASSERT_TRUE(reader.open(first.c_str()).ok());
  EXPECT_TRUE(isMapped(first));
  ASSERT_TRUE(reader.open(second.c_str()).ok());
  EXPECT_FALSE(isMapped(first));
  EXPECT_TRUE(isMapped(second));
  EXPECT_EQ(before + 1, openFiles());
  // The first file goes even when there is no second one.
  EXPECT_EQ("ZYM2: null path", reader.open(nullptr).message);
  EXPECT_FALSE(isMapped(second));
  EXPECT_EQ(before, openFiles());
}

TEST_F(ReaderTest, AFailedOpenLeavesNothingBehind) {
  const size_t before = openFiles();
  EXPECT_EQ("ZYM2: missing weight data",
            openMessage(sampleImage().hide(SectionType::WeightData).fixCrc()));
  EXPECT_EQ(before, openFiles());
  EXPECT_EQ(nullptr, reader.section(SectionType::Meta));
  EXPECT_EQ(0U, reader.fileSize());
}

}  // namespace
