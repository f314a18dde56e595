#include "host/chat/conversation_note.h"

#include <gtest/gtest.h>

namespace zym {
namespace {

using engine::Message;
using engine::Role;

std::string refusal(std::string_view note) {
  std::vector<Message> messages(1);
  const kel::Status status = readNote(note, messages);
  EXPECT_EQ(messages.size(), 1U) << "is left alone";
  return status.message;
}

TEST(ConversationNoteTest, MessagesComeBackAsTheyWere) {
  std::vector<Message> messages(5);
  messages[0] = {Role::System, "Be \"brief\".\n", {}, {}};
  messages[1] = {Role::User, "6 \u00D7 7?", {}, {}};
  messages[2] = {Role::Assistant, "", "Let me see.", {{"times", R"({"a": 6, "b": 7.0})"}}};
  messages[3] = {Role::Tool, "42", {}, {}};
  messages[4] = {Role::Assistant, "42", "", {}};
  std::vector<Message> read;
  ASSERT_EQ(readNote(noteOf(messages), read).message, "");
  ASSERT_EQ(read.size(), messages.size());
  for (size_t i = 0; i < read.size(); ++i) {
    EXPECT_EQ(read[i].role, messages[i].role) << i;
    EXPECT_EQ(read[i].content, messages[i].content) << i;
    EXPECT_EQ(read[i].reasoningContent, messages[i].reasoningContent) << i;
    ASSERT_EQ(read[i].toolCalls.size(), messages[i].toolCalls.size()) << i;
  }
  EXPECT_EQ(read[2].toolCalls[0].name, "times");
  EXPECT_EQ(read[2].toolCalls[0].arguments, R"({"a": 6, "b": 7.0})");
}

TEST(ConversationNoteTest, BytesOfNoCharacterAreKeptAsTheModelReadThem) {
  std::vector<Message> messages(1);
  messages[0].content = "a\xC3";
  ASSERT_EQ(readNote(noteOf(messages), messages).message, "");
  EXPECT_EQ(messages[0].content, "a\uFFFD");
}

TEST(ConversationNoteTest, OtherNotesAreRefused) {
  const std::string foreign = "the session was not made by a chat";
  for (const char* note :
       {"", "a note", "[]", "{}", R"({"format":"zym chat 1"})",
        R"({"format":"zym chat 1","messages":[{"role":"user"}]})",
        R"({"format":"zym chat 1","messages":[{"role":"king","content":"a"}]})",
        R"({"format":"zym chat 1","messages":[{"role":"user","content":1}]})",
        R"({"format":"zym chat 1","messages":[{"role":"user","content":"a","calls":[{}]}]})"}) {
    EXPECT_EQ(refusal(note), foreign) << note;
  }
  EXPECT_EQ(refusal(R"({"format":"zym chat 2","messages":[]})"),
            "the session was not made by a chat of this version");
}

}  // namespace
}  // namespace zym
