#include "engine/chat_template.h"

#include <algorithm>
#include <array>

namespace engine {

namespace {

// Templates of one family differ in wording between releases; these marks are what a conversation
// is made of, and relatives with calls or reasoning of another form lack one or the other.
constexpr std::array<std::string_view, 10> kMarks = {
    "<|im_start|>", "<|im_end|>", "<think>",     "</think>",        "<tool_call>",
    "</tool_call>", "<function=", "<parameter=", "<tool_response>", "</tool_response>"};

}  // namespace

ChatTemplate recogniseChatTemplate(std::string_view text) {
  if (text.empty()) {
    return ChatTemplate::None;
  }
  const bool spellsAll = std::all_of(kMarks.begin(), kMarks.end(), [&](std::string_view mark) {
    return text.find(mark) != std::string_view::npos;
  });
  return spellsAll ? ChatTemplate::Family : ChatTemplate::Unknown;
}

std::string chatTemplateRemark(const kel::ZYM2Reader& file) {
  std::string text;
  if (!file.getMetaStr("tokenizer.chat_template", text) ||
      recogniseChatTemplate(text) != ChatTemplate::Unknown) {
    return {};
  }
  return "unknown template: the family's own format is used";
}

}  // namespace engine
