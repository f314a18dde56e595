#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "tests/capi/capi_models.h"

namespace {

using namespace capi_test;

class ModelCalls : public WithModel {
 protected:
  // Of a model that is not opened.
  ZYMStatus openFails(const std::string& file) {
    auto* none = reinterpret_cast<ZYMModel*>(this);
    const ZYMStatus status = zym_model_open(file.c_str(), &none, error, sizeof(error));
    EXPECT_EQ(nullptr, none);
    return status;
  }

  ZYMModelFacts facts() {
    ZYMModelFacts facts{};
    facts.structSize = sizeof(facts);
    EXPECT_EQ(ZYM_OK, zym_model_facts(model, &facts));
    return facts;
  }
};

TEST_F(ModelCalls, SayWhyAFileIsNotOpened) {
  EXPECT_EQ(ZYM_ERROR_FILE, openFails(folder.file("missing")));
  EXPECT_STREQ("No such file or directory", error);
  std::ofstream(folder.file("text")) << "no container";
  EXPECT_EQ(ZYM_ERROR_FORMAT, openFails(folder.file("text")));
  EXPECT_EQ(ZYM_ERROR_FORMAT, openFails(folder.path().string()));
  kel::test::RandomModelSpec other = smallModel();
  other.architecture = "other";
  EXPECT_EQ(ZYM_ERROR_UNSUPPORTED, openFails(writeModel(folder, other)));
  EXPECT_STREQ("its metadata name \"other\"; models of \"qwen35\" can be run", error);
}

TEST_F(ModelCalls, RefuseNullPointers) {
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_model_open(path.c_str(), nullptr, error, sizeof(error)));
  EXPECT_STREQ("model is null", error);
  ZYMModel* none = model;
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_model_open(nullptr, &none, error, sizeof(error)));
  EXPECT_STREQ("path is null", error);
  EXPECT_EQ(nullptr, none);
  ZYMModelFacts facts{};
  facts.structSize = sizeof(facts);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_model_facts(nullptr, &facts));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_model_facts(model, nullptr));
  zym_model_close(nullptr);
}

TEST_F(ModelCalls, TellWhatTheModelIs) {
  const ZYMModelFacts known = facts();
  EXPECT_EQ(sizeof(known), known.structSize);
  EXPECT_EQ(5U, known.layers);
  EXPECT_EQ(kVocab, known.vocabulary);
  EXPECT_EQ(300U, known.positions);
  EXPECT_EQ(8U, known.hiddenSize);
  EXPECT_EQ(1U, known.canThink);
  EXPECT_EQ(0U, known.thinks);
  EXPECT_EQ(-1, known.beginToken);
  EXPECT_EQ(path, known.path.data);
  EXPECT_STREQ("Small", known.name.data);
  EXPECT_EQ(5U, known.name.size);
  EXPECT_STREQ("", known.templateRemark.data);
}

TEST_F(ModelCalls, TellOfAModelThatCannotThink) {
  kel::test::RandomModelSpec spec = smallModel();
  spec.tokenizer.tokens[kThinkEnd] = "[NONE]";
  open(spec);
  EXPECT_EQ(0U, facts().canThink);
}

TEST_F(ModelCalls, RemarkOnATemplateOfAnotherKind) {
  kel::test::RandomModelSpec spec = smallModel();
  spec.chatTemplate = "{{ messages }}";
  open(spec);
  EXPECT_STREQ("unknown template: the family's own format is used", facts().templateRemark.data);
}

// Models whose turns stay open are framed by their own template.
TEST_F(ModelCalls, HaveNoRemarkOnOpenTurns) {
  kel::test::RandomModelSpec spec = smallModel();
  spec.chatTemplate =
      "{% for message in messages %}{{ '<|im_start|>' + message['role'] + '\\n' + "
      "message['content'] }}{% if message['role'] != 'assistant' %}{{ '<|im_end|>\\n' }}{% endif "
      "%}{% endfor %}{% if add_generation_prompt %}{{ '<|im_start|>assistant\\n' }}{% endif %}";
  open(spec);
  EXPECT_STREQ("", facts().templateRemark.data);
  EXPECT_EQ(0U, facts().canThink);
}

TEST_F(ModelCalls, FillInWhatIsRecommended) {
  ZYMSampling sampling{};
  sampling.structSize = sizeof(sampling);
  const auto recommended = [&](int32_t mode) {
    EXPECT_EQ(ZYM_OK, zym_model_recommended_sampling(model, mode, &sampling));
    return sampling.temperature;
  };
  EXPECT_EQ(1.0F, recommended(ZYM_SAMPLING_THINKING));
  EXPECT_EQ(0.6F, recommended(ZYM_SAMPLING_PRECISE_CODING));
  EXPECT_EQ(0.7F, recommended(ZYM_SAMPLING_WITHOUT_THINKING));
  EXPECT_EQ(20, sampling.topK);
  EXPECT_EQ(0.8F, sampling.topP);
  EXPECT_EQ(1.5F, sampling.presencePenalty);
  EXPECT_EQ(1.0F, sampling.repetitionPenalty);
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_model_recommended_sampling(model, 0, &sampling));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT, zym_model_recommended_sampling(model, 4, &sampling));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT,
            zym_model_recommended_sampling(nullptr, ZYM_SAMPLING_THINKING, &sampling));
  EXPECT_EQ(ZYM_ERROR_ARGUMENT,
            zym_model_recommended_sampling(model, ZYM_SAMPLING_THINKING, nullptr));
}

}  // namespace
