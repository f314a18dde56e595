// The chats of the demonstration checkpoint, word for word, through the built library: all of them
// buffered in one type, every eighth streamed and in the other type.
#include <gtest/gtest.h>

#include <ostream>

#include "tests/abi/chat_host.h"
#include "tests/support/demo_model.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::test::DemoTurn;
using testing_abi::Handle;
using testing_abi::Reply;

struct Variant {
  const char* name;
  kel::QuantType matrices;
  bool streamed;
};

void PrintTo(const Variant& variant, std::ostream* out) {
  *out << variant.name;
}

class DemoChat : public testing::TestWithParam<Variant> {};

TEST_P(DemoChat, EveryReplyIsExact) {
  const Variant& variant = GetParam();
  const kel::test::TempDir folder;
  const std::string model = folder.file("demo.zym");
  kel::test::writeDemoModel(model, variant.matrices);
  const Handle handle = testing_abi::createHandle(model);
  ASSERT_TRUE(handle);

  const kel::test::DemoExpectations expected = kel::test::demoExpectations();
  ASSERT_EQ(154u, expected.chats.size());
  const bool isSample = variant.streamed || variant.matrices != kel::QuantType::BF16;
  const size_t stride = isSample ? 8 : 1;
  for (size_t c = 0; c < expected.chats.size(); c += stride) {
    ASSERT_EQ(0u, testing_abi::resetOf(handle));
    for (const DemoTurn& turn : expected.chats[c]) {
      const Reply reply = variant.streamed ? testing_abi::streamTurn(handle, turn.user.c_str())
                                           : testing_abi::chatTurn(handle, turn.user.c_str());
      EXPECT_EQ(0u, reply.status);
      EXPECT_EQ(turn.reply, kel::test::plainSpaces(reply.text)) << turn.user;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Variants, DemoChat,
                         testing::Values(Variant{"Bf16Buffered", kel::QuantType::BF16, false},
                                         Variant{"Bf16Streamed", kel::QuantType::BF16, true},
                                         Variant{"Q80Buffered", kel::QuantType::Q8_0, false},
                                         Variant{"Q80Streamed", kel::QuantType::Q8_0, true}),
                         [](const auto& variant) { return variant.param.name; });

}  // namespace
