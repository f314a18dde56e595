#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/capi/capi_models.h"

namespace {

using namespace capi_test;

ZYMContextOptions defaultOptions() {
  ZYMContextOptions options{};
  options.structSize = sizeof(options);
  return options;
}

class ContextCalls : public WithModel {
 protected:
  ZYMStatus create(const ZYMContextOptions& options, ZYMContext** made) {
    return zym_context_create(model, &options, made, error, sizeof(error));
  }

  ZYMStatus createFails(const ZYMContextOptions& options) {
    auto* none = reinterpret_cast<ZYMContext*>(this);
    const ZYMStatus status = create(options, &none);
    EXPECT_EQ(nullptr, none);
    return status;
  }

  static ZYMStatistics statisticsOf(ZYMContext* of) {
    ZYMStatistics statistics{};
    statistics.structSize = sizeof(statistics);
    EXPECT_EQ(ZYM_OK, zym_context_statistics(of, &statistics));
    return statistics;
  }

  // Has something said in the context.
  void converse(ZYMContext* in) {
    ZYMReplyOptions options{};
    options.structSize = sizeof(options);
    options.maxTokens = 4;
    ZYMReply* reply = nullptr;
    ASSERT_EQ(ZYM_OK, zym_context_reply(in, &asked.record, &options, nullptr, nullptr, &reply,
                                        error, sizeof(error)))
        << error;
    zym_reply_destroy(reply);
  }

  const ZYMMessage message = messageOf(ZYM_ROLE_USER, "A B");
  const Asked asked{&message};
};

TEST_F(ContextCalls, TakeOptions) {
  ZYMContextOptions options = defaultOptions();
  options.positions = 64;
  options.threads = 1;
  options.snapshotBytes = 1;
  options.cacheType = ZYM_CACHE_BF16;
  ZYMContext* made = nullptr;
  ASSERT_EQ(ZYM_OK, create(options, &made)) << error;
  EXPECT_EQ(64U, statisticsOf(made).positions);
  // A file tells the caches apart: that of the one context is none for the other.
  EXPECT_EQ(ZYM_OK, zym_context_save(made, folder.file("bf16").c_str(), {}, error, sizeof(error)));
  EXPECT_EQ(ZYM_OK, zym_context_destroy(made));
  EXPECT_EQ(ZYM_ERROR_UNSUPPORTED,
            zym_context_load(context, folder.file("bf16").c_str(), nullptr, error, sizeof(error)));
  EXPECT_EQ(300U, statisticsOf(context).positions);
}

TEST_F(ContextCalls, RefuseOptionsThatCannotBe) {
  ZYMContextOptions options = defaultOptions();
  options.positions = 301;
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, createFails(options));
  EXPECT_STREQ("a context of 301 positions; the model has room for 300", error);
  options = defaultOptions();
  options.cacheType = 2;
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, createFails(options));
  EXPECT_STREQ("options: unknown type of caches 2", error);
  options = defaultOptions();
  options.threads = 1025;
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, createFails(options));
  EXPECT_STREQ("options: at most 1024 threads, not 1025", error);
}

TEST_F(ContextCalls, RefuseNullPointers) {
  ZYMContext* none = nullptr;
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_create(nullptr, nullptr, &none, error, sizeof(error)));
  EXPECT_STREQ("model is null", error);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_create(model, nullptr, nullptr, error, sizeof(error)));
  ZYMStatistics statistics{};
  statistics.structSize = sizeof(statistics);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_statistics(nullptr, &statistics));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_statistics(context, nullptr));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_reset(nullptr));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_cancel(nullptr));
  const std::string file = folder.file("saved");
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_save(nullptr, file.c_str(), {}, error, sizeof(error)));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_save(context, nullptr, {}, error, sizeof(error)));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT,
            zym_context_save(context, file.c_str(), {nullptr, 1}, error, sizeof(error)));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT,
            zym_context_load(nullptr, file.c_str(), nullptr, error, sizeof(error)));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_context_load(context, nullptr, nullptr, error, sizeof(error)));
  EXPECT_EQ(ZYM_OK, zym_context_destroy(nullptr));
}

TEST_F(ContextCalls, OutliveTheirModel) {
  zym_model_close(model);
  model = nullptr;
  converse(context);
}

TEST_F(ContextCalls, CountWhatIsFedAndForgetIt) {
  converse(context);
  const ZYMStatistics first = statisticsOf(context);
  EXPECT_GT(first.promptTokens, 0U);
  EXPECT_EQ(first.filled, first.promptTokens + first.generatedTokens);
  EXPECT_EQ(0U, first.reusedTokens);
  converse(context);
  EXPECT_GT(statisticsOf(context).reusedTokens, 0U);
  EXPECT_EQ(ZYM_OK, zym_context_reset(context));
  EXPECT_EQ(0U, statisticsOf(context).filled);
  EXPECT_GE(statisticsOf(context).promptTokens, first.promptTokens);
}

TEST_F(ContextCalls, GoToFilesAndComeBack) {
  converse(context);
  const ZYMStatistics before = statisticsOf(context);
  const std::string file = folder.file("saved");
  const std::string note("any \xFF\0 bytes", 12);
  ASSERT_EQ(ZYM_OK, zym_context_save(context, file.c_str(), textOf(note), error, sizeof(error)))
      << error;
  EXPECT_EQ(ZYM_OK, zym_context_reset(context));
  ZYMText found{};
  ASSERT_EQ(ZYM_OK, zym_context_load(context, file.c_str(), &found, error, sizeof(error))) << error;
  EXPECT_EQ(note, stringOf(found));
  EXPECT_EQ(before.filled, statisticsOf(context).filled);
}

TEST_F(ContextCalls, SayWhyAFileIsRefused) {
  converse(context);
  const uint64_t filled = statisticsOf(context).filled;
  const std::string missing = folder.file("missing/file");
  EXPECT_EQ(ZYM_ERROR_FILE, zym_context_save(context, missing.c_str(), {}, error, sizeof(error)));
  EXPECT_EQ(ZYM_ERROR_FILE,
            zym_context_load(context, missing.c_str(), nullptr, error, sizeof(error)));
  EXPECT_EQ(missing + ": No such file or directory", error);
  std::ofstream(folder.file("text")) << "no saved context";
  const std::string damaged = folder.file("damaged");
  ASSERT_EQ(ZYM_OK, zym_context_save(context, damaged.c_str(), {}, error, sizeof(error)));
  std::fstream(damaged, std::ios::in | std::ios::out | std::ios::binary).seekp(100).put('x');
  EXPECT_EQ(ZYM_ERROR_FORMAT,
            zym_context_load(context, damaged.c_str(), nullptr, error, sizeof(error)));
  EXPECT_EQ(damaged + ": the session file is damaged", error);
  ZYMText note = textOf("as it was");
  EXPECT_EQ(ZYM_ERROR_FORMAT,
            zym_context_load(context, folder.file("text").c_str(), &note, error, sizeof(error)));
  EXPECT_EQ("as it was", stringOf(note));
  EXPECT_EQ(filled, statisticsOf(context).filled);
}

}  // namespace
