// Chats of the demonstration checkpoint, word for word, through the engine: what is told while
// a reply comes, and the reply as a whole.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "convert/convert.h"
#include "engine/reply.h"
#include "tests/support/demo_model.h"
#include "tests/support/temp_dir.h"

namespace engine {
namespace {

class DemoConversations : public testing::TestWithParam<kel::QuantType> {};

TEST_P(DemoConversations, EveryReplyIsExactStreamedAndAsAWhole) {
  const kel::test::TempDir folder;
  const std::string path = folder.file("demo.zym");
  kel::convert::ConvertOptions options;
  options.source = ZYM_DEMO_FOLDER;
  options.target = path;
  options.storage.type = GetParam();
  kel::convert::ProgressSink quiet;
  ASSERT_TRUE(kel::convert::convertModel(options, quiet).status.ok());
  std::shared_ptr<const Model> model;
  ASSERT_TRUE(Model::open(path, model).ok());
  std::unique_ptr<Context> context;
  // The model is tiny, and tests run side by side.
  ASSERT_TRUE(Context::create(model, {.threads = 1}, context).ok());
  Sampler sampler(1);

  const kel::test::DemoExpectations expected = kel::test::demoExpectations();
  ASSERT_EQ(154U, expected.chats.size());
  // Every fourth or eighth: a reply takes its time, and all of them are asked of the plugin.
  const size_t stride = GetParam() == kel::QuantType::BF16 ? 4 : 8;
  for (size_t c = 0; c < expected.chats.size(); c += stride) {
    std::vector<Message> messages;
    for (const kel::test::DemoTurn& turn : expected.chats[c]) {
      messages.push_back({Role::User, turn.user, {}, {}});
      std::string streamed;
      ReplySinks sinks;
      sinks.event = [&](const ReplyEvent& event) {
        ASSERT_EQ(ReplyEvent::Kind::Answer, event.kind);
        streamed += event.text;
      };
      Reply reply;
      ASSERT_TRUE(generateReply(*context, sampler, {.messages = messages}, {}, sinks, reply).ok());
      EXPECT_EQ(turn.reply, streamed) << turn.user;
      EXPECT_EQ(turn.reply, reply.message.content) << turn.user;
      EXPECT_EQ(ReplyEnd::Stop, reply.end) << turn.user;
      messages.push_back(reply.message);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Types, DemoConversations,
                         testing::Values(kel::QuantType::BF16, kel::QuantType::Q8_0),
                         [](const auto& type) {
                           return type.param == kel::QuantType::BF16 ? "Bf16" : "Q80";
                         });

}  // namespace
}  // namespace engine
