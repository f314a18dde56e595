// The chat template that a container carries: recognised, not executed. Conversations always take
// the family's own format (engine/chat_format.h); a template of another kind is worth a remark.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "container/zym2_reader.h"

namespace engine {

enum class ChatTemplate : uint8_t {
  None,     // an empty text
  Family,   // spells every mark of the family's format
  Unknown,  // lacks some
};

ChatTemplate recogniseChatTemplate(std::string_view text);

// What to tell people of the template in a container's metadata: "unknown template: the family's
// own format is used", or nothing where it is the family's or there is none.
std::string chatTemplateRemark(const kel::ZYM2Reader& file);

}  // namespace engine
