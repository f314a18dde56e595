// Conversations as the engine takes them, from the messages of any interface.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "engine/chat_format.h"
#include "host/serve/json_fields.h"
#include "host/serve/served_model.h"

namespace zym {

class ConversationBuilder {
 public:
  explicit ConversationBuilder(ApiError& firstError) : error(firstError) {}

  // Instructions stand in front, where several become one. path: of the message.
  void addSystem(std::string content, const std::string& path);
  void addUser(std::string content);
  // callIds: of its calls, in their order.
  void addAssistant(engine::Message message, std::span<const std::string> callIds);
  // The result of a call before it; idPath: where that is named. Results that follow one another
  // take the order of their calls, since nothing else tells the model which is which.
  void addResult(const std::string& callId, std::string content, const std::string& idPath);

  std::vector<engine::Message> take() { return std::move(messages); }
  bool empty() const { return messages.empty(); }

 private:
  ApiError& error;
  std::vector<engine::Message> messages;
  size_t calls = 0;
  std::unordered_map<std::string, size_t> callNumbers;
  std::vector<size_t> results;  // numbers of the calls that the last messages answer
};

// A content: a string, or parts, of which those of the given types are text, joined as they are.
// Any other part is refused by the name of its type. Empty where there is none.
std::string readContent(Fields& message, std::string_view key,
                        std::span<const std::string_view> textTypes, const ApiLimits& limits);

// "messages" of POST /v1/chat/completions.
std::vector<engine::Message> readChatMessages(Fields& body, const ServedModel& served);

}  // namespace zym
