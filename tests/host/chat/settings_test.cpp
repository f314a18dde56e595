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
  EXPECT_TRUE(setSampling("min-p", "0.05", sampling).ok());
  EXPECT_TRUE(setSampling("presence-penalty", "2", sampling).ok());
  EXPECT_TRUE(setSampling("frequency-penalty", "-2", sampling).ok());
  EXPECT_TRUE(setSampling("repetition-penalty", "1.1", sampling).ok());
  EXPECT_TRUE(setSampling("seed", "4294967295", sampling).ok());
  EXPECT_EQ(sampling.temperature, 0.5F);
  EXPECT_EQ(sampling.topK, 40);
  EXPECT_EQ(sampling.topP, 1.0F);
  EXPECT_EQ(sampling.minP, 0.05F);
  EXPECT_EQ(sampling.presencePenalty, 2.0F);
  EXPECT_EQ(sampling.frequencyPenalty, -2.0F);
  EXPECT_EQ(sampling.repetitionPenalty, 1.1F);
  EXPECT_EQ(sampling.seed, 4294967295U);
}

TEST(SamplingSettingsTest, ValuesOutOfRangeAreRefused) {
  EXPECT_EQ(fault("temperature", "-1"), "temperature must be a number from 0 (greedy), not \"-1\"");
  EXPECT_EQ(fault("temperature", "nan"),
            "temperature must be a number from 0 (greedy), not \"nan\"");
  EXPECT_EQ(fault("top-k", "0"), "top-k must be a whole number from 1, not \"0\"");
  EXPECT_EQ(fault("top-k", "4x"), "top-k must be a whole number from 1, not \"4x\"");
  EXPECT_EQ(fault("top-p", "1.5"), "top-p must be a number above 0, at most 1, not \"1.5\"");
  EXPECT_EQ(fault("top-p", "0"), "top-p must be a number above 0, at most 1, not \"0\"");
  EXPECT_EQ(fault("min-p", "-0.1"), "min-p must be a number from 0 to 1, not \"-0.1\"");
  EXPECT_EQ(fault("min-p", "1.1"), "min-p must be a number from 0 to 1, not \"1.1\"");
  EXPECT_EQ(fault("presence-penalty", "2.1"),
            "presence-penalty must be a number from -2 to 2, not \"2.1\"");
  EXPECT_EQ(fault("frequency-penalty", "-2.1"),
            "frequency-penalty must be a number from -2 to 2, not \"-2.1\"");
  EXPECT_EQ(fault("repetition-penalty", "0"),
            "repetition-penalty must be a number above 0, not \"0\"");
  EXPECT_EQ(fault("repetition-penalty", "inf"),
            "repetition-penalty must be a number above 0, not \"inf\"");
  EXPECT_EQ(fault("seed", "0"), "seed must be a whole number from 1 to 4294967295, not \"0\"");
  EXPECT_EQ(fault("seed", "4294967296"),
            "seed must be a whole number from 1 to 4294967295, not \"4294967296\"");
}

TEST(SamplingSettingsTest, UnknownNameListsTheKnownOnes) {
  EXPECT_EQ(fault("heat", "1"),
            "no setting \"heat\"; there are temperature, top-k, top-p, min-p, presence-penalty, "
            "frequency-penalty, repetition-penalty and seed");
}

TEST(SamplingSettingsTest, NewerSettingsComeFirst) {
  Sampling all;
  mergeSampling({0.5F, 40, 0.9F, 7, 0.1F, 1, 2, 3}, all);
  mergeSampling({.topP = 1.0F, .frequencyPenalty = 0}, all);
  EXPECT_EQ(all.temperature, 0.5F);
  EXPECT_EQ(all.topK, 40);
  EXPECT_EQ(all.topP, 1.0F);
  EXPECT_EQ(all.seed, 7U);
  EXPECT_EQ(all.minP, 0.1F);
  EXPECT_EQ(all.presencePenalty, 1.0F);
  EXPECT_EQ(all.frequencyPenalty, 0.0F);
  EXPECT_EQ(all.repetitionPenalty, 3.0F);
}

TEST(SamplingSettingsTest, EverySettingIsShown) {
  EXPECT_EQ(samplingText({0.7F, 40, 0.5F, 7, 0.1F, 1.5F, -0.5F, 1.1F}),
            "temperature         0.7\n"
            "top-k               40\n"
            "top-p               0.5\n"
            "min-p               0.1\n"
            "presence-penalty    1.5\n"
            "frequency-penalty   -0.5\n"
            "repetition-penalty  1.1\n"
            "seed                7");
  EXPECT_EQ(samplingText({}),
            "temperature         0 (greedy)\n"
            "top-k               every token\n"
            "top-p               off\n"
            "min-p               off\n"
            "presence-penalty    off\n"
            "frequency-penalty   off\n"
            "repetition-penalty  off\n"
            "seed                not set");
}

TEST(SamplingSettingsTest, LibrariesKnowFourSettings) {
  EXPECT_EQ(settingBeyondLibraries({0.7F, 40, 0.5F, 7}), "");
  EXPECT_EQ(settingBeyondLibraries({.topK = 1, .minP = 0.0F}), "min-p");
  EXPECT_EQ(settingBeyondLibraries({.presencePenalty = 1.0F}), "presence-penalty");
  EXPECT_EQ(settingBeyondLibraries({.frequencyPenalty = 1.0F}), "frequency-penalty");
  EXPECT_EQ(settingBeyondLibraries({.repetitionPenalty = 1.0F}), "repetition-penalty");
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
