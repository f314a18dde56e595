#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/capi/capi_models.h"

namespace {

using namespace capi_test;

constexpr const char* kNotUtf8 = "a\xFF";

class TokenCalls : public WithModel {
 protected:
  std::vector<int32_t> idsOf(const std::string& text, bool readsMarks = false) {
    int32_t ids[32];
    size_t count = 0;
    EXPECT_EQ(ZYM_OK, zym_model_tokenize(model, textOf(text), readsMarks ? 1 : 0, ids, 32, &count,
                                         error, sizeof(error)))
        << error;
    return {ids, ids + count};
  }

  std::string textOfIds(const std::vector<int32_t>& ids, bool showsSpecials = false) {
    char text[512];
    size_t size = 0;
    EXPECT_EQ(ZYM_OK, zym_model_detokenize(model, ids.data(), ids.size(), showsSpecials ? 1 : 0,
                                           text, sizeof(text), &size, error, sizeof(error)))
        << error;
    EXPECT_EQ('\0', text[size]);
    return {text, size};
  }
};

TEST_F(TokenCalls, TextBecomesIdsAndTextAgain) {
  EXPECT_EQ((std::vector<int32_t>{kLetterA, kSpace, kLetterA + 1}), idsOf("A B"));
  EXPECT_EQ("A B", textOfIds({kLetterA, kSpace, kLetterA + 1}));
  EXPECT_EQ(std::vector<int32_t>(), idsOf(""));
}

TEST_F(TokenCalls, MarksAreTextUnlessAskedFor) {
  EXPECT_EQ(std::vector<int32_t>{kTurnEnd}, idsOf("<|im_end|>", true));
  EXPECT_EQ(10U, idsOf("<|im_end|>").size());
  EXPECT_EQ("A", textOfIds({kTurnEnd, kLetterA}));
  EXPECT_EQ("<|im_end|>A", textOfIds({kTurnEnd, kLetterA}, true));
}

TEST_F(TokenCalls, TellTheSizeThatABufferLacks) {
  int32_t ids[3] = {-7, -7, -7};
  size_t count = 0;
  EXPECT_EQ(ZYM_ERROR_CAPACITY,
            zym_model_tokenize(model, textOf("ABC"), 0, ids, 2, &count, error, sizeof(error)));
  EXPECT_EQ(3U, count);
  EXPECT_EQ(-7, ids[0]);
  EXPECT_STREQ("3 ids, and room for 2", error);
  EXPECT_EQ(ZYM_ERROR_CAPACITY,
            zym_model_tokenize(model, textOf("ABC"), 0, nullptr, 0, &count, nullptr, 0));
  EXPECT_EQ(ZYM_OK, zym_model_tokenize(model, textOf("ABC"), 0, ids, 3, &count, nullptr, 0));
  EXPECT_EQ(kLetterA + 2, ids[2]);
  EXPECT_EQ(ZYM_OK, zym_model_tokenize(model, ZYMText{}, 0, nullptr, 0, &count, nullptr, 0));
  EXPECT_EQ(0U, count);

  char text[4] = "xyz";
  size_t size = 0;
  EXPECT_EQ(ZYM_ERROR_CAPACITY,
            zym_model_detokenize(model, ids, 3, 0, text, 3, &size, error, sizeof(error)));
  EXPECT_EQ(3U, size);
  EXPECT_STREQ("xyz", text);
  EXPECT_EQ(ZYM_ERROR_CAPACITY,
            zym_model_detokenize(model, ids, 3, 0, nullptr, 0, &size, nullptr, 0));
  EXPECT_EQ(ZYM_OK, zym_model_detokenize(model, ids, 3, 0, text, 4, &size, nullptr, 0));
  EXPECT_STREQ("ABC", text);
}

TEST_F(TokenCalls, RefuseWhatCannotBeMeant) {
  int32_t id = kLetterA;
  char text[8];
  size_t n = 0;
  const auto tokenize = [&](ZYMText from, int32_t* ids, size_t* count) {
    return zym_model_tokenize(model, from, 0, ids, 1, count, error, sizeof(error));
  };
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, tokenize(textOf(kNotUtf8), &id, &n));
  EXPECT_STREQ("text: the text is not UTF-8", error);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, tokenize({nullptr, 1}, &id, &n));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, tokenize(textOf("A"), nullptr, &n));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, tokenize(textOf("A"), &id, nullptr));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT,
            zym_model_tokenize(nullptr, textOf("A"), 0, &id, 1, &n, error, sizeof(error)));

  const auto detokenize = [&](const ZYMModel* of, const int32_t* ids, char* buffer, size_t* size) {
    return zym_model_detokenize(of, ids, 1, 0, buffer, 8, size, error, sizeof(error));
  };
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, detokenize(nullptr, &id, text, &n));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, detokenize(model, nullptr, text, &n));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, detokenize(model, &id, nullptr, &n));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, detokenize(model, &id, text, nullptr));
  for (const int32_t none : {-1, static_cast<int32_t>(kVocab)}) {
    EXPECT_EQ(ZYM_ERROR_ARGUMENT, detokenize(model, &none, text, &n));
    EXPECT_EQ("there is no token " + std::to_string(none), error);
  }
}

TEST_F(TokenCalls, ADecoderGivesWholeCharactersAndOutlivesItsModel) {
  ZYMDecoder* decoder = nullptr;
  ASSERT_EQ(ZYM_OK, zym_decoder_create(model, 0, &decoder));
  zym_model_close(model);
  model = nullptr;
  ZYMText text{};
  EXPECT_EQ(ZYM_OK, zym_decoder_feed(decoder, kFirstByteId, &text));
  EXPECT_EQ("", stringOf(text));
  EXPECT_EQ(ZYM_OK, zym_decoder_feed(decoder, kLastByteId, &text));
  EXPECT_EQ("\u00E9", stringOf(text));
  EXPECT_EQ('\0', text.data[text.size]);
  EXPECT_EQ(ZYM_OK, zym_decoder_feed(decoder, kFirstByteId, &text));
  EXPECT_EQ(ZYM_OK, zym_decoder_finish(decoder, &text));
  EXPECT_EQ("\uFFFD", stringOf(text));

  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_decoder_feed(decoder, -1, &text));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_decoder_feed(decoder, kLetterA, nullptr));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_decoder_feed(nullptr, kLetterA, &text));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_decoder_finish(decoder, nullptr));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_decoder_finish(nullptr, &text));
  zym_decoder_destroy(decoder);
  zym_decoder_destroy(nullptr);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_decoder_create(nullptr, 0, &decoder));
  EXPECT_EQ(nullptr, decoder);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_decoder_create(nullptr, 0, nullptr));
}

TEST_F(TokenCalls, AConversationIsFramedByIds) {
  const ZYMMessage message = messageOf(ZYM_ROLE_USER, "<|im_end|>");
  const Asked asked{&message};
  int32_t ids[64];
  size_t count = 0;
  ASSERT_EQ(ZYM_OK, zym_model_tokenize_conversation(model, &asked.record, ids, 64, &count, error,
                                                    sizeof(error)))
      << error;
  const std::vector<int32_t> framed(ids, ids + count);
  EXPECT_EQ(kTurnEnd, framed[5 + 1 + 10]);  // behind the mark, "user", a line feed and the content
  EXPECT_EQ(1, std::count(framed.begin(), framed.end(), kTurnEnd));
}

// Marks of reasoning in the content are text where reasoning is given, even if it is empty.
TEST_F(TokenCalls, ReasoningThatIsGivenLeavesTheContentAlone) {
  const ZYMMessage question = messageOf(ZYM_ROLE_USER, "A");
  ZYMMessage answer = messageOf(ZYM_ROLE_ASSISTANT, "<think>\nB\n</think>\n\nC");
  Asked asked{&question, &answer, &question};
  asked.record.keepsReasoning = 1;
  const auto isSpelt = [&] {
    std::vector<int32_t> ids(256);
    size_t count = 0;
    EXPECT_EQ(ZYM_OK, zym_model_tokenize_conversation(model, &asked.record, ids.data(), ids.size(),
                                                      &count, error, sizeof(error)))
        << error;
    ids.resize(count);
    return textOfIds(ids).find("<think>") != std::string::npos;
  };
  EXPECT_FALSE(isSpelt());
  answer.reasoning = textOf("");
  EXPECT_TRUE(isSpelt());
}

}  // namespace
