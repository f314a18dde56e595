// Small models as a program sees them, and what calls with them need.
#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/family_shapes.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"
#include "zym/engine.h"

namespace capi_test {

inline std::string stringOf(ZYMText text) {
  return text.size == 0 ? std::string() : std::string(text.data, text.size);
}

inline ZYMText textOf(std::string_view text) {
  return {text.data(), text.size()};
}

// Tokens that hold whole stretches of a reply, so that one choice tells them.
constexpr const char* kWholeCall =
    "<tool_call>\n<function=look>\n<parameter=x>\n1\n</parameter>\n</function>\n</tool_call>";
constexpr const char* kHalfCall = "<tool_call>\n<function=look>\n<parameter=x>\n1\n</parameter>\n";
constexpr const char* kBrokenCall = "<tool_call>\n<function=look>\nbut no";

// Ids of the vocabulary below.
constexpr int32_t kTurnEnd = 1;
constexpr int32_t kThinkEnd = 4;
constexpr int32_t kLetterA = 9 + 'A' - '!';
constexpr int32_t kSpace = 9 + '~' - '!' + 1;
constexpr int32_t kWholeCallId = kSpace + 2;
constexpr int32_t kHalfCallId = kSpace + 3;
constexpr int32_t kBrokenCallId = kSpace + 4;
constexpr int32_t kFirstByteId = kSpace + 5;  // of "é"
constexpr int32_t kLastByteId = kSpace + 6;
constexpr size_t kVocab = 160;

// The marks of the family, letters, and the tokens above.
inline kel::TokenizerData vocabulary() {
  kel::TokenizerData tables;
  tables.label = "alphabet";
  tables.tokens = {"<|im_start|>", "<|im_end|>",   "<|endoftext|>",   "<think>",         "</think>",
                   "<tool_call>",  "</tool_call>", "<tool_response>", "</tool_response>"};
  tables.tokenTypes.assign(tables.tokens.size(), 3);
  for (int letter = '!'; letter <= '~'; ++letter) {
    tables.tokens.emplace_back(1, static_cast<char>(letter));
  }
  for (const char* rest :
       {"\u0120", "\n", kWholeCall, kHalfCall, kBrokenCall, "\u00C3", "\u00A9"}) {
    tables.tokens.emplace_back(rest);
  }
  tables.tokenTypes.resize(tables.tokens.size(), 1);
  tables.merges = {"\u0120 a"};
  while (tables.tokens.size() < kVocab) {
    tables.tokens.push_back("[PAD" + std::to_string(tables.tokens.size()) + "]");
    tables.tokenTypes.push_back(5);
  }
  return tables;
}

inline kel::test::RandomModelSpec smallModel() {
  return {.hidden = 8,
          .ffn = 16,
          .vocab = kVocab,
          .shape = kel::test::oddShape(),
          .statesShape = true,
          .texts = {{"general.name", "Small"}},
          .tokenizer = vocabulary()};
}

inline std::string writeModel(const kel::test::TempDir& folder,
                              const kel::test::RandomModelSpec& spec) {
  std::string path = folder.file("model.zym");
  const kel::Status status = kel::test::writeRandomModel(path, spec);
  EXPECT_TRUE(status.ok()) << status.message;
  return path;
}

// The small model, opened, and a context of it.
class WithModel : public testing::Test {
 protected:
  void SetUp() override { open(smallModel()); }
  void TearDown() override {
    EXPECT_EQ(ZYM_OK, zym_context_destroy(context));
    zym_model_close(model);
  }

  // In place of the one before.
  void open(const kel::test::RandomModelSpec& spec) {
    zym_context_destroy(context);
    zym_model_close(model);
    context = nullptr;
    path = writeModel(folder, spec);
    ASSERT_EQ(ZYM_OK, zym_model_open(path.c_str(), &model, error, sizeof(error))) << error;
    ZYMContextOptions options{};
    options.structSize = sizeof(options);
    options.threads = 1;  // the models are too small for two to share the work
    ASSERT_EQ(ZYM_OK, zym_context_create(model, &options, &context, error, sizeof(error))) << error;
  }

  kel::test::TempDir folder;
  std::string path;
  ZYMModel* model = nullptr;
  ZYMContext* context = nullptr;
  char error[256] = "";
};

inline ZYMMessage messageOf(ZYMRole role, std::string_view content) {
  return {.structSize = sizeof(ZYMMessage),
          .role = role,
          .content = textOf(content),
          .reasoning = {},
          .calls = nullptr,
          .callCount = 0};
}

// A conversation of messages that stay where they are. It is answered without thinking.
struct Asked {
  Asked(std::initializer_list<const ZYMMessage*> asked) : messages(asked) {
    record.structSize = sizeof(record);
    record.thinking = ZYM_THINKING_OFF;
    record.messages = messages.data();
    record.messageCount = messages.size();
  }
  Asked(const Asked&) = delete;
  Asked& operator=(const Asked&) = delete;

  std::vector<const ZYMMessage*> messages;
  ZYMConversation record{};
};

}  // namespace capi_test
