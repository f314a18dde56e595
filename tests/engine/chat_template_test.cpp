#include "engine/chat_template.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "container/zym2_writer.h"
#include "tests/support/temp_dir.h"

namespace engine {
namespace {

const std::vector<std::string> kMarks = {
    "<|im_start|>", "<|im_end|>", "<think>",     "</think>",        "<tool_call>",
    "</tool_call>", "<function=", "<parameter=", "<tool_response>", "</tool_response>"};

std::string templateWithout(const std::string& left) {
  std::string text = "{%- for message in messages %}";
  for (const std::string& mark : kMarks) {
    if (mark != left) {
      text += "{{- '" + mark + "\\n' }}";
    }
  }
  return text + "{%- endfor %}";
}

// What is said of a container with this template, or with none.
std::string remark(const char* text) {
  const kel::test::TempDir folder;
  const std::string path = folder.file("model.zym");
  kel::ZYM2Writer writer;
  EXPECT_TRUE(writer.create(path).ok());
  if (text != nullptr) {
    writer.addMetaStr("tokenizer.chat_template", text);
  }
  EXPECT_TRUE(writer.finish().ok());
  kel::ZYM2Reader reader;
  EXPECT_TRUE(reader.open(path.c_str()).ok());
  return chatTemplateRemark(reader);
}

TEST(ChatTemplate, TheFamilysSpellsEveryMark) {
  EXPECT_EQ(ChatTemplate::Family, recogniseChatTemplate(templateWithout("")));
  for (const std::string& mark : kMarks) {
    EXPECT_EQ(ChatTemplate::Unknown, recogniseChatTemplate(templateWithout(mark))) << mark;
  }
  EXPECT_EQ(ChatTemplate::None, recogniseChatTemplate(""));
}

TEST(ChatTemplate, OnlyAnUnknownOneIsWorthARemark) {
  EXPECT_EQ("unknown template: the family's own format is used", remark("{{ messages }}"));
  EXPECT_EQ("", remark(templateWithout("").c_str()));
  EXPECT_EQ("", remark(""));
  EXPECT_EQ("", remark(nullptr));
}

}  // namespace
}  // namespace engine
