#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/capi/capi_models.h"

namespace {

using namespace capi_test;

TEST(Statuses, HaveTextsOfTheirOwn) {
  std::set<std::string> texts;
  for (int32_t status = ZYM_OK; status <= ZYM_ERROR_INTERNAL; ++status) {
    texts.insert(zym_status_text(status));
  }
  EXPECT_EQ(static_cast<size_t>(ZYM_ERROR_INTERNAL) + 1, texts.size());
  EXPECT_STREQ("unknown status", zym_status_text(-1));
  EXPECT_STREQ("unknown status", zym_status_text(ZYM_ERROR_INTERNAL + 1));
  EXPECT_FALSE(texts.contains("unknown status"));
}

TEST(Version, IsThatOfTheProject) {
  EXPECT_STREQ("0.1.0", zym_engine_version());
}

class ErrorText : public WithModel {};

TEST_F(ErrorText, IsCutAtAWholeCharacterAndOneLine) {
  const char* const missing = "/no/\n\u00E9";
  char cut[9];
  ASSERT_EQ(ZYM_ERROR_FILE, zym_context_load(context, missing, nullptr, cut, sizeof(cut)));
  EXPECT_STREQ("/no/ \u00E9:", cut);
  char shorter[7] = "";
  ASSERT_EQ(ZYM_ERROR_FILE, zym_context_load(context, missing, nullptr, shorter, sizeof(shorter)));
  EXPECT_STREQ("/no/ ", shorter);
}

TEST_F(ErrorText, MayBeLeftOut) {
  char untouched = 'x';
  EXPECT_EQ(ZYM_ERROR_FILE, zym_context_load(context, "/no/such", nullptr, nullptr, 100));
  EXPECT_EQ(ZYM_ERROR_FILE, zym_context_load(context, "/no/such", nullptr, &untouched, 0));
  EXPECT_EQ('x', untouched);
}

}  // namespace
