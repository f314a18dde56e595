#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "container/checksum.h"
#include "engine/context.h"
#include "tests/engine/engine_models.h"
#include "tests/support/family_shapes.h"
#include "tests/support/instrumented.h"
#include "tests/support/zym2_patch.h"

namespace engine {
namespace {

using kel::test::RandomModelSpec;
using kel::test::readFile;
using kel::test::writeFile;
using testing_support::feed;
using testing_support::logitsOf;
using testing_support::OpenedModel;

constexpr size_t kHeadBytes = 64;

RandomModelSpec oddModel(uint64_t seed) {
  return {.hidden = 8,
          .ffn = 16,
          .vocab = 40,
          .shape = kel::test::oddShape(),
          .statesShape = true,
          .seed = seed};
}

class SessionFile : public testing::Test {
 protected:
  SessionFile() {
    feed(*saved, {1, 2, 3, 4, 5});
    EXPECT_TRUE(saved->feedToken(7).ok());
    EXPECT_TRUE(saved->feedToken(8).ok());
    const kel::Status status = saved->save(path, "a note");
    EXPECT_TRUE(status.ok()) << status.message;
  }

  // The message of the refusal; the context stays what it was.
  std::string refusal(const std::string& file) {
    const auto context = model.context();
    feed(*context, {9, 9});
    const std::vector<float> before = logitsOf(*context);
    std::string note = "untouched";
    const kel::Status status = context->load(file, note);
    EXPECT_FALSE(status.ok());
    EXPECT_EQ("untouched", note);
    EXPECT_EQ(2U, context->position());
    EXPECT_EQ(before, logitsOf(*context));
    const std::string& text = status.message;
    return text.starts_with(file + ": ") ? text.substr(file.size() + 2) : text;
  }
  std::string refusalOf(const std::function<void(std::vector<uint8_t>&)>& damage) {
    std::vector<uint8_t> bytes = readFile(path);
    damage(bytes);
    writeFile(folder.file("damaged"), bytes);
    return refusal(folder.file("damaged"));
  }

  const OpenedModel model{oddModel(1)};
  kel::test::TempDir folder;
  std::string path = folder.file("session");
  std::unique_ptr<Context> saved = model.context();
};

TEST_F(SessionFile, GoesOnWhereItWasSaved) {
  const auto context = model.context({.positions = 20});  // of another size
  feed(*context, {30, 31, 32});
  std::string note;
  const kel::Status status = context->load(path, note);
  ASSERT_TRUE(status.ok()) << status.message;
  EXPECT_EQ("a note", note);
  EXPECT_EQ(saved->tokens(), context->tokens());
  EXPECT_TRUE(context->logits().empty());
  feed(*saved, {11, 12});
  feed(*context, {11, 12});
  EXPECT_EQ(logitsOf(*saved), logitsOf(*context));
}

TEST_F(SessionFile, IsAPlaceToResumeAt) {
  const auto context = model.context();
  std::string note;
  ASSERT_TRUE(context->load(path, note).ok());
  feed(*context, {11, 12});
  std::vector<Token> other = saved->tokens();
  other.push_back({13, false});
  EXPECT_EQ(7U, context->resume(other));
}

TEST_F(SessionFile, AnEmptyContextIsOneToo) {
  const auto empty = model.context();
  ASSERT_TRUE(empty->save(folder.file("empty"), "").ok());
  const auto context = model.context();
  feed(*context, {1});
  std::string note = "x";
  ASSERT_TRUE(context->load(folder.file("empty"), note).ok());
  EXPECT_EQ(0U, context->position());
  EXPECT_EQ("", note);
  feed(*context, {1});
}

TEST_F(SessionFile, OfAnotherModelIsRefused) {
  const OpenedModel other([] {
    RandomModelSpec spec = oddModel(1);
    spec.ffn = 18;
    return spec;
  }());
  std::string note;
  EXPECT_EQ(path + ": the session is of another model", other.context()->load(path, note).message);
}

TEST_F(SessionFile, WithCachesOfAnotherTypeIsRefused) {
  std::string note;
  EXPECT_EQ(path + ": the session has caches of another type",
            model.context({.positions = 20, .cacheType = qwen35::CacheType::BF16})
                ->load(path, note)
                .message);
}

TEST_F(SessionFile, HalfCachesGoOnWhereTheyWereSaved) {
  const ContextOptions options{.positions = 20, .cacheType = qwen35::CacheType::BF16};
  const auto half = model.context(options);
  feed(*half, {1, 2, 3});
  ASSERT_TRUE(half->save(folder.file("half"), "").ok());
  const auto context = model.context(options);
  std::string note;
  ASSERT_TRUE(context->load(folder.file("half"), note).ok());
  feed(*half, {11, 12});
  feed(*context, {11, 12});
  EXPECT_EQ(logitsOf(*half), logitsOf(*context));
}

TEST_F(SessionFile, WithoutRoomIsRefused) {
  std::string note;
  EXPECT_EQ(path + ": the session has 7 tokens, the context room for 6",
            model.context({.positions = 6})->load(path, note).message);
}

TEST_F(SessionFile, BrokenFilesAreRefusedAndChangeNothing) {
  EXPECT_EQ("No such file or directory", refusal(folder.file("none")));
  EXPECT_EQ("is no file", refusal(folder.path().string()));
  EXPECT_EQ("is no session file", refusalOf([](auto& bytes) { bytes.clear(); }));
  EXPECT_EQ("is no session file", refusalOf([](auto& bytes) { bytes[0] = 'X'; }));
  EXPECT_EQ("is a session file of version 2; this is version 1",
            refusalOf([](auto& bytes) { bytes[4] = 2; }));
  EXPECT_EQ("the session is of another model", refusalOf([](auto& bytes) { bytes[8] ^= 1; }));
  EXPECT_EQ("the session file is damaged", refusalOf([](auto& bytes) { bytes[63] = 0x7F; }));
  EXPECT_EQ("the session file is damaged", refusalOf([](auto& bytes) { bytes[47] = 0x7F; }));
  EXPECT_EQ("the session file was cut short", refusalOf([](auto& bytes) { bytes.pop_back(); }));
  EXPECT_EQ("the session file is damaged", refusalOf([](auto& bytes) { bytes.push_back(0); }));
}

TEST_F(SessionFile, IsToldFromOtherFilesByItsBeginning) {
  EXPECT_TRUE(isSessionFile(path));
  EXPECT_FALSE(isSessionFile(model.path));
  EXPECT_FALSE(isSessionFile(folder.file("none")));
  EXPECT_FALSE(isSessionFile(folder.path().string()));
  writeFile(folder.file("short"), {'Z', 'Y', 'M'});
  EXPECT_FALSE(isSessionFile(folder.file("short")));
}

TEST_F(SessionFile, EveryBitIsGuarded) {
  const std::vector<uint8_t> whole = readFile(path);
  for (size_t at = 0; at < whole.size(); at += 997) {
    EXPECT_NE("", refusalOf([at](auto& bytes) { bytes[at] ^= 0x10; })) << at;
  }
  EXPECT_NE("", refusalOf([](auto& bytes) { bytes.back() ^= 1; }));
}

TEST_F(SessionFile, EveryBitOfItsHeadIsGuarded) {
  // Steps of seven bits meet each bit of a byte in turn.
  const size_t step = kel::test::kInstrumented ? 7 : 1;
  for (size_t bit = 0; bit < kHeadBytes * 8; bit += step) {
    const std::string text =
        refusalOf([bit](auto& bytes) { bytes[bit / 8] ^= static_cast<uint8_t>(1U << (bit % 8)); });
    EXPECT_NE("", text) << bit;
  }
}

TEST_F(SessionFile, WhereverItIsCutItIsRefused) {
  const size_t whole = readFile(path).size();
  for (const size_t length : {size_t{1}, size_t{4}, kHeadBytes - 1, kHeadBytes, kHeadBytes + 31,
                              kHeadBytes + 32, kHeadBytes + 40, whole / 2, whole - 32}) {
    const std::string text = refusalOf([length](auto& bytes) { bytes.resize(length); });
    EXPECT_EQ(length < kHeadBytes + 32 ? "is no session file" : "the session file was cut short",
              text)
        << length;
  }
}

// What no version of the program writes, under a checksum that is right.
TEST_F(SessionFile, TokensThatTheModelLacksAreRefused) {
  for (const int32_t id : {40, -1}) {
    EXPECT_EQ("the session file is damaged", refusalOf([id](auto& bytes) {
                std::memcpy(bytes.data() + kHeadBytes + std::strlen("a note"), &id, sizeof(id));
                kel::Checksum sum;
                sum.update(bytes.data(), bytes.size() - kel::kChecksumDigits);
                sum.hex().copy(
                    reinterpret_cast<char*>(bytes.data()) + bytes.size() - kel::kChecksumDigits,
                    kel::kChecksumDigits);
              }));
  }
}

TEST_F(SessionFile, ATargetThatCannotBeIsNamed) {
  EXPECT_EQ(kel::StatusCode::IoError, saved->save("/no/such/folder/session", "").code);
}

}  // namespace
}  // namespace engine
