// Calls whose allocations fail, one after the other: a status each time, never an exception, and
// handles that live on. Sanitizers bring an operator new of their own, so their builds leave this
// program out.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "tests/capi/capi_models.h"
#include "tests/support/allocation_counter.h"

namespace {

using namespace capi_test;
using kel::test::allocationsLeft;

// Has call() fail at its first allocation, at a later one, and so on until it succeeds. Returns how
// often it failed.
size_t failAtEach(const std::function<ZYMStatus()>& call) {
  size_t failures = 0;
  for (long n = 0;; n += 1 + n / 40) {
    allocationsLeft = n;
    const ZYMStatus status = call();
    const bool hasFailed = allocationsLeft == 0;
    allocationsLeft = -1;
    if (status == ZYM_OK) {
      // What it could do without (a place to go back to, say) may have failed.
      if (!hasFailed) {
        return failures;
      }
      continue;
    }
    EXPECT_EQ(ZYM_ERROR_MEMORY, status) << "allocation " << n;
    ++failures;
  }
}

class EngineMemory : public WithModel {
 protected:
  std::string answerOf(const ZYMConversation& conversation) {
    ZYMReply* reply = nullptr;
    EXPECT_EQ(ZYM_OK, ask(conversation, &reply)) << error;
    std::string text = reply == nullptr ? std::string() : stringOf(reply->message->content);
    zym_reply_destroy(reply);
    return text;
  }

  ZYMStatus ask(const ZYMConversation& conversation, ZYMReply** reply) {
    ZYMSampling sampling{};
    sampling.structSize = sizeof(sampling);
    ZYMReplyOptions options{};
    options.structSize = sizeof(options);
    options.sampling = &sampling;
    options.maxTokens = 12;
    return zym_context_reply(context, &conversation, &options, nullptr, nullptr, reply, error,
                             sizeof(error));
  }

  const ZYMMessage hello = messageOf(ZYM_ROLE_USER, "A long text, AB AB AB AB");
  const Asked asked{&hello};
};

TEST_F(EngineMemory, ModelsAreNotOpenedHalf) {
  ZYMModel* opened = nullptr;
  EXPECT_GT(failAtEach([&] { return zym_model_open(path.c_str(), &opened, error, sizeof(error)); }),
            20U);
  zym_model_close(opened);
}

TEST_F(EngineMemory, ContextsAreNotMadeHalf) {
  ZYMContext* made = nullptr;
  EXPECT_GT(
      failAtEach([&] { return zym_context_create(model, nullptr, &made, error, sizeof(error)); }),
      5U);
  EXPECT_EQ(ZYM_OK, zym_context_destroy(made));
}

TEST_F(EngineMemory, TokensAreAllOrNone) {
  int32_t ids[64];
  size_t count = 0;
  EXPECT_GT(failAtEach([&] {
              return zym_model_tokenize_conversation(model, &asked.record, ids, 64, &count, nullptr,
                                                     0);
            }),
            5U);
}

// The reply that comes after all is that of a context which nothing has happened to.
TEST_F(EngineMemory, RepliesComeAfterAll) {
  const std::string expected = answerOf(asked.record);
  ASSERT_EQ(ZYM_OK, zym_context_reset(context));
  ZYMReply* reply = nullptr;
  std::string found;
  EXPECT_GT(failAtEach([&] {
              const ZYMStatus status = ask(asked.record, &reply);
              if (status == ZYM_OK) {
                const long left = allocationsLeft;
                allocationsLeft = -1;
                EXPECT_EQ(expected, stringOf(reply->message->content));
                zym_reply_destroy(reply);
                allocationsLeft = left;
              }
              return status;
            }),
            20U);
}

TEST_F(EngineMemory, FilesAreWrittenWholeOrNotAtAll) {
  answerOf(asked.record);
  const std::string file = folder.file("saved");
  failAtEach([&] {
    const ZYMStatus status =
        zym_context_save(context, file.c_str(), textOf("a note that is not short"), nullptr, 0);
    return status == ZYM_ERROR_FILE ? ZYM_ERROR_MEMORY : status;
  });
  ZYMText note{};
  failAtEach([&] {
    const ZYMStatus status = zym_context_load(context, file.c_str(), &note, nullptr, 0);
    return status == ZYM_ERROR_FILE ? ZYM_ERROR_MEMORY : status;
  });
  EXPECT_EQ("a note that is not short", stringOf(note));
}

}  // namespace
