// A conversation as the note of a session file (engine/context.h): JSON.
//
//   {"format":"zym chat 1","messages":[{"role":"user","content":"Hello"},
//                                      {"role":"assistant","content":"Hi!"}]}
//
// A message may have its "reasoning", and "calls" of tools, each with "name" and "arguments" (text
// that is a JSON object).
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"
#include "engine/chat_format.h"

namespace zym {

// Bytes that are not UTF-8 become U+FFFD, as which the model has read them.
std::string noteOf(std::span<const engine::Message> messages);
// Fails, and leaves messages alone, where the note is none that noteOf has written.
kel::Status readNote(std::string_view note, std::vector<engine::Message>& messages);

}  // namespace zym
