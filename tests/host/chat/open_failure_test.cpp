#include "host/chat/open_failure.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "container/zym_loader.h"
#include "tests/support/container_samples.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using kel::test::Bytes;
using kel::test::ContainerImage;
using kel::zym2::SectionType;

class OpenFailureTest : public testing::Test {
 protected:
  // What is said of a file of these bytes, without the path.
  std::string failure(const Bytes& bytes) const {
    kel::test::writeFile(path, bytes);
    kel::ZYMLoader loader;
    const kel::Status status = loader.open(path.c_str());
    EXPECT_FALSE(status.ok());
    const std::string text = openFailure(path, status).message;
    EXPECT_TRUE(text.starts_with(path + ": ")) << text;
    return text.substr(path.size() + 2);
  }
  std::string failure(std::string_view text) const {
    std::string padded(text);
    padded.resize(std::max<size_t>(padded.size(), 600), ' ');
    return failure(Bytes(padded.begin(), padded.end()));
  }

  kel::test::TempDir folder;
  std::string path = folder.file("model.zym");
};

const std::string kAnew = "; copy the file again, or convert it anew";

TEST_F(OpenFailureTest, EmptyFilesAreSaidToBeEmpty) {
  EXPECT_EQ(failure(Bytes()), std::string("is empty (ZYM2: cannot stat file)") + kAnew);
}

// Wherever the end was cut off.
TEST_F(OpenFailureTest, ShortFilesTellHowMuchIsMissing) {
  const Bytes whole = kel::test::sampleImage().bytes;
  const std::string ofAll = " of " + std::to_string(whole.size()) + " bytes (";
  const auto cut = [&](size_t length) {
    return failure(Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)));
  };
  const std::string start = "is cut short: it has ";
  EXPECT_EQ(cut(10), start + "10 of 64 bytes (ZYM2: file too small)" + kAnew);
  EXPECT_EQ(cut(100), start + "100 of 208 bytes (ZYM2: truncated section table)" + kAnew);
  EXPECT_EQ(cut(300), start + "300" + ofAll + "ZYM2: bad section bounds)" + kAnew);
  EXPECT_EQ(cut(whole.size() - 1),
            start + std::to_string(whole.size() - 1) + ofAll + "ZYM2: bad section bounds)" + kAnew);
}

TEST_F(OpenFailureTest, DamagedContainersAreContainers) {
  ContainerImage image = kel::test::sampleImage();
  image.set<uint8_t>(kel::test::kWordBAt, 1);
  EXPECT_EQ(failure(image.bytes), std::string("has a damaged header (ZYM2: CRC mismatch)") + kAnew);
  image = kel::test::sampleImage();
  image.set<uint32_t>(kel::test::kVersionAt, 3).fixCrc();
  EXPECT_EQ(failure(image.bytes),
            "is a container of version 3; version 2 is what can be read (ZYM2: unsupported "
            "version); convert the model anew");
  image = kel::test::sampleImage();
  image.hide(SectionType::WeightData).fixCrc();
  EXPECT_EQ(failure(image.bytes),
            std::string("is a container that cannot be used (ZYM2: missing weight data)") + kAnew);
  image = kel::test::sampleImage();
  image.set<uint32_t>(kel::test::kSectionCountAt, 17).fixCrc();
  EXPECT_EQ(failure(image.bytes),
            std::string("has a damaged header (ZYM2: too many sections)") + kAnew);
  // An end that no file reaches.
  image = kel::test::sampleImage();
  image.setSize(SectionType::Text, UINT64_MAX).fixCrc();
  EXPECT_EQ(failure(image.bytes),
            std::string("is a container that cannot be used (ZYM2: bad section bounds)") + kAnew);
}

TEST_F(OpenFailureTest, OtherFilesAreNamed) {
  const std::string magic = " (ZYM2: bad magic); ";
  EXPECT_EQ(failure("GGUF\x03"),
            "is a GGUF file, not a container" + magic + "`zym convert` makes a container");
  EXPECT_EQ(failure("\x1f\x8b\x08"),
            "is packed by gzip, not a container" + magic + "unpack it first");
  EXPECT_EQ(failure("{\"architectures\": []}"),
            "is a JSON file, not a container" + magic +
                "`zym convert` makes one of the folder it lies in");
  EXPECT_EQ(failure(std::string("\x10\0\0\0\0\0\0\0{\"a\": 1}", 16)),
            "is a safetensors file, not a container" + magic +
                "`zym convert` makes one of the folder that it lies in");
  EXPECT_EQ(failure("<!doctype html>"), "is a web page, not a container" + magic +
                                            "the download went wrong; download the file itself");
  EXPECT_EQ(failure(std::string(257, '\0').append("ustar")),
            "is a tar archive, not a container" + magic + "unpack it first");
  EXPECT_EQ(failure("anything"),
            "is no container" + magic + "give a .zym file, which `zym convert` makes");
}

TEST_F(OpenFailureTest, FilesThatCannotBeReadSayWhy) {
  const OpenFailure failure =
      explainOpenFailure(path, kel::Status::invalid("ZYM2: cannot open file"));
  EXPECT_EQ(failure.what, "cannot be read: No such file or directory (ZYM2: cannot open file)");
  EXPECT_FALSE(failure.ofFile);
}

}  // namespace
}  // namespace zym
