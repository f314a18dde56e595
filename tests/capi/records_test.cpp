// The rule by which records grow, held with one of each kind: one that is read, one that is filled
// in, and one that others point to.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/capi/capi_models.h"

namespace {

using namespace capi_test;

class Records : public WithModel {
 protected:
  // A context by options that a program of another release may have built.
  ZYMStatus create(const void* options) {
    ZYMContext* made = nullptr;
    const ZYMStatus status = zym_context_create(
        model, static_cast<const ZYMContextOptions*>(options), &made, error, sizeof(error));
    if (status == ZYM_OK) {
      ZYMStatistics statistics{};
      statistics.structSize = sizeof(statistics);
      EXPECT_EQ(ZYM_OK, zym_context_statistics(made, &statistics));
      positions = statistics.positions;
    }
    zym_context_destroy(made);
    return status;
  }

  uint64_t positions = 0;
};

struct LongerOptions {
  ZYMContextOptions known;
  uint64_t unknown[2];
};

TEST_F(Records, OfAnOlderProgramLackFieldsThatAreAtTheirDefaults) {
  ZYMContextOptions options{};
  options.positions = 40;
  options.threads = UINT32_MAX;  // refused where it is read
  options.structSize = 16;       // up to positions
  EXPECT_EQ(ZYM_OK, create(&options)) << error;
  EXPECT_EQ(40U, positions);
  options.structSize = 8;
  EXPECT_EQ(ZYM_OK, create(&options)) << error;
  EXPECT_EQ(300U, positions);
}

TEST_F(Records, OfANewerProgramAreTakenWhereTheirFurtherFieldsAreZero) {
  LongerOptions options{};
  options.known.structSize = sizeof(options);
  options.known.positions = 41;
  EXPECT_EQ(ZYM_OK, create(&options)) << error;
  EXPECT_EQ(41U, positions);
  options.unknown[0] = 1;
  EXPECT_EQ(ZYM_ERROR_RECORD, create(&options));
  options.unknown[0] = 0;
  options.unknown[1] = uint64_t{1} << 63;
  EXPECT_EQ(ZYM_ERROR_RECORD, create(&options));
  EXPECT_STREQ("options: a field is set that this release does not know", error);
  options.known.structSize -= 8;  // the field is none of the record's
  EXPECT_EQ(ZYM_OK, create(&options)) << error;
}

TEST_F(Records, OfImpossibleSizesAreRefused) {
  ZYMContextOptions options{};
  for (const uint32_t size : {0U, 4U, 12U, 31U, 4104U, 0xFFFFFFF8U}) {
    options.structSize = size;
    EXPECT_EQ(ZYM_ERROR_RECORD, create(&options)) << size;
    EXPECT_EQ("options: structSize " + std::to_string(size) + " is no size", error);
  }
}

TEST_F(Records, ReservedFieldsHaveToBeZero) {
  ZYMContextOptions options{};
  options.structSize = sizeof(options);
  options.reserved = 1;
  EXPECT_EQ(ZYM_ERROR_RECORD, create(&options));
  EXPECT_STREQ("options: a reserved field is not 0", error);
}

TEST_F(Records, AreFilledInUpToTheShorterSize) {
  struct {
    ZYMModelFacts known;
    uint64_t unknown;
    uint64_t behind;
  } facts;
  std::memset(&facts, 0xFF, sizeof(facts));
  facts.known.structSize = sizeof(facts.known) + 8;
  ASSERT_EQ(ZYM_OK, zym_model_facts(model, &facts.known));
  EXPECT_EQ(sizeof(facts.known) + 8, facts.known.structSize);
  EXPECT_EQ(kVocab, facts.known.vocabulary);
  EXPECT_EQ(0U, facts.unknown);
  EXPECT_EQ(UINT64_MAX, facts.behind);

  std::memset(&facts, 0xFF, sizeof(facts));
  facts.known.structSize = 16;
  ASSERT_EQ(ZYM_OK, zym_model_facts(model, &facts.known));
  EXPECT_EQ(kVocab, facts.known.vocabulary);
  EXPECT_EQ(UINT64_MAX, facts.known.positions);
  facts.known.structSize = 0;
  EXPECT_EQ(ZYM_ERROR_RECORD, zym_model_facts(model, &facts.known));
}

// Each message has its own size, so that those of a library and of its program go together.
TEST_F(Records, OfDifferentSizesStandSideBySide) {
  struct {
    ZYMMessage known;
    uint64_t unknown;
  } longer{messageOf(ZYM_ROLE_USER, "A"), 0};
  longer.known.structSize = sizeof(longer);
  ZYMMessage shorter = messageOf(ZYM_ROLE_ASSISTANT, "B");
  shorter.structSize = 24;  // up to the content
  shorter.callCount = 1000;
  const ZYMMessage whole = messageOf(ZYM_ROLE_USER, "C");
  const Asked mixed{&longer.known, &shorter, &whole};
  size_t count = 0;
  EXPECT_EQ(ZYM_ERROR_CAPACITY, zym_model_tokenize_conversation(model, &mixed.record, nullptr, 0,
                                                                &count, error, sizeof(error)))
      << error;
  EXPECT_GT(count, 0U);
  longer.unknown = 1;
  EXPECT_EQ(ZYM_ERROR_RECORD, zym_model_tokenize_conversation(model, &mixed.record, nullptr, 0,
                                                              &count, error, sizeof(error)));
  EXPECT_STREQ("message 0: a field is set that this release does not know", error);
}

}  // namespace
