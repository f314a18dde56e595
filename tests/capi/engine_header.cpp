#include "zym/engine.h"

#include <gtest/gtest.h>

#include <cstddef>

#include "zym/plugin.h"

extern "C" size_t zym_header_record_bytes(void);
extern "C" size_t zym_header_text_bytes(const char* string);

namespace {

TEST(EngineHeader, HasOneLayoutInBothLanguages) {
  EXPECT_EQ(sizeof(ZYMModelFacts) + sizeof(ZYMToolCall) + sizeof(ZYMMessage) +
                sizeof(ZYMConversation) + sizeof(ZYMContextOptions) + sizeof(ZYMStatistics) +
                sizeof(ZYMSampling) + sizeof(ZYMReplyOptions) + sizeof(ZYMEvent) + sizeof(ZYMReply),
            zym_header_record_bytes());
}

TEST(EngineHeader, TextOfACString) {
  EXPECT_EQ(3U, zym_header_text_bytes("abc"));
  EXPECT_EQ(0U, zym_header_text_bytes(nullptr));
}

}  // namespace
