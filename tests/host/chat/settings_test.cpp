// Sampling settings and chat commands as people write them.
#include <gtest/gtest.h>

#include "host/chat/chat_command.h"
#include "host/chat/sampling_settings.h"

namespace zym {
namespace {

std::string fault(const char* name, const char* value) {
  Sampling sampling;
  return setSampling(name, value, sampling).message;
}

TEST(SamplingSettingsTest, ValuesAreStored) {
  Sampling sampling;
  EXPECT_TRUE(setSampling("temperature", "0.5", sampling).ok());
  EXPECT_TRUE(setSampling("top-k", "40", sampling).ok());
  EXPECT_TRUE(setSampling("top-p", "1", sampling).ok());
  EXPECT_TRUE(setSampling("seed", "4294967295", sampling).ok());
  EXPECT_EQ(sampling.temperature, 0.5F);
  EXPECT_EQ(sampling.topK, 40);
  EXPECT_EQ(sampling.topP, 1.0F);
  EXPECT_EQ(sampling.seed, 4294967295U);
}

TEST(SamplingSettingsTest, ValuesOutOfRangeAreRefused) {
  EXPECT_EQ(fault("temperature", "-1"), "temperature must be a number from 0 (greedy), not \"-1\"");
  EXPECT_EQ(fault("temperature", "nan"),
            "temperature must be a number from 0 (greedy), not \"nan\"");
  EXPECT_EQ(fault("top-k", "0"), "top-k must be a whole number from 1, not \"0\"");
  EXPECT_EQ(fault("top-k", "4x"), "top-k must be a whole number from 1, not \"4x\"");
  EXPECT_EQ(fault("top-p", "1.5"), "top-p must be a number above 0, at most 1, not \"1.5\"");
  EXPECT_EQ(fault("seed", "0"), "seed must be a whole number from 1 to 4294967295, not \"0\"");
  EXPECT_EQ(fault("seed", "4294967296"),
            "seed must be a whole number from 1 to 4294967295, not \"4294967296\"");
}

TEST(SamplingSettingsTest, UnknownNameListsTheKnownOnes) {
  EXPECT_EQ(fault("heat", "1"),
            "no setting \"heat\"; there are temperature, top-k, top-p and seed");
}

TEST(SamplingSettingsTest, NewerSettingsComeFirst) {
  Sampling all;
  mergeSampling({0.5F, 40, 0.9F, 7}, all);
  mergeSampling({{}, {}, 1.0F, {}}, all);
  EXPECT_EQ(all.temperature, 0.5F);
  EXPECT_EQ(all.topK, 40);
  EXPECT_EQ(all.topP, 1.0F);
  EXPECT_EQ(all.seed, 7U);
}

TEST(SamplingSettingsTest, EverySettingIsShown) {
  EXPECT_EQ(samplingText({0.7F, 40, 0.5F, 7}),
            "temperature  0.7\ntop-k        40\ntop-p        0.5\nseed         7");
  EXPECT_EQ(samplingText({}),
            "temperature  0 (greedy)\ntop-k        every token\ntop-p        off\n"
            "seed         not set");
}

TEST(SamplingSettingsTest, TopPBelowOneLeavesOneTokenOfASample) {
  EXPECT_TRUE(topPLeavesOneToken({0.5F, {}, 0.99F, {}}));
  EXPECT_FALSE(topPLeavesOneToken({0.5F, {}, 1.0F, {}}));
  EXPECT_FALSE(topPLeavesOneToken({0.5F, {}, {}, {}}));
  EXPECT_FALSE(topPLeavesOneToken({0.0F, {}, 0.5F, {}}));
  EXPECT_FALSE(topPLeavesOneToken({{}, {}, 0.5F, {}}));
}

TEST(ChatCommandTest, PlainTextIsAMessage) {
  const ChatCommand command = parseChatCommand(" hello /reset");
  EXPECT_EQ(command.kind, ChatCommandKind::Message);
  EXPECT_EQ(command.text, " hello /reset");
}

TEST(ChatCommandTest, WhiteSpaceIsNothing) {
  EXPECT_EQ(parseChatCommand("").kind, ChatCommandKind::Nothing);
  EXPECT_EQ(parseChatCommand(" \t").kind, ChatCommandKind::Nothing);
}

TEST(ChatCommandTest, CommandsAreFound) {
  EXPECT_EQ(parseChatCommand("/reset").kind, ChatCommandKind::Reset);
  EXPECT_EQ(parseChatCommand("/stats ").kind, ChatCommandKind::Stats);
  EXPECT_EQ(parseChatCommand("/multiline").kind, ChatCommandKind::Multiline);
  EXPECT_EQ(parseChatCommand("/help").kind, ChatCommandKind::Help);
  EXPECT_EQ(parseChatCommand("/quit").kind, ChatCommandKind::Quit);
}

TEST(ChatCommandTest, DoubledSlashBeginsAMessage) {
  const ChatCommand command = parseChatCommand("//etc is a folder");
  EXPECT_EQ(command.kind, ChatCommandKind::Message);
  EXPECT_EQ(command.text, "/etc is a folder");
}

TEST(ChatCommandTest, TextOfSeveralLinesIsAMessageAsItIs) {
  for (const char* text : {"/quit\nnow", "// a comment\nint x;"}) {
    const ChatCommand command = parseChatCommand(text);
    EXPECT_EQ(command.kind, ChatCommandKind::Message);
    EXPECT_EQ(command.text, text);
    EXPECT_FALSE(isChatCommand(text));
  }
}

TEST(ChatCommandTest, SetAloneShowsTheSettings) {
  EXPECT_EQ(parseChatCommand("/set ").kind, ChatCommandKind::ShowSettings);
}

TEST(ChatCommandTest, SetCarriesOneSetting) {
  const ChatCommand command = parseChatCommand("/set top-k 7");
  EXPECT_EQ(command.kind, ChatCommandKind::Set);
  EXPECT_EQ(command.sampling.topK, 7);
  EXPECT_FALSE(command.sampling.temperature.has_value());
}

TEST(ChatCommandTest, WrongCommandsSayWhatIsWrong) {
  EXPECT_EQ(parseChatCommand("/rest").text, "no command /rest; /help lists them");
  EXPECT_EQ(parseChatCommand("/set top-k").text,
            "/set takes a name and a value, as in /set temperature 0.7");
  EXPECT_EQ(parseChatCommand("/set top-k 1 2").kind, ChatCommandKind::Unknown);
  EXPECT_EQ(parseChatCommand("/set top-k 0").text,
            "top-k must be a whole number from 1, not \"0\"");
}

}  // namespace
}  // namespace zym
