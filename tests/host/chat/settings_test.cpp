// Sampling settings and chat commands as people write them.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>

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
  EXPECT_TRUE(setSampling("repetition-window", "0", sampling).ok());
  EXPECT_TRUE(setSampling("logit-bias", "7=-100", sampling).ok());
  EXPECT_TRUE(setSampling("logit-bias", "0=-inf", sampling).ok());
  EXPECT_TRUE(setSampling("seed", "4294967295", sampling).ok());
  EXPECT_EQ(sampling.temperature, 0.5F);
  EXPECT_EQ(sampling.topK, 40);
  EXPECT_EQ(sampling.topP, 1.0F);
  EXPECT_EQ(sampling.minP, 0.05F);
  EXPECT_EQ(sampling.presencePenalty, 2.0F);
  EXPECT_EQ(sampling.frequencyPenalty, -2.0F);
  EXPECT_EQ(sampling.repetitionPenalty, 1.1F);
  EXPECT_EQ(sampling.repetitionWindow, 0);
  EXPECT_EQ(sampling.logitBias,
            (std::map<int32_t, float>{{0, -std::numeric_limits<float>::infinity()}, {7, -100.0F}}));
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
  EXPECT_EQ(fault("repetition-window", "-1"),
            "repetition-window must be a whole number from 0 (all tokens), not \"-1\"");
  for (const char* bias : {"7", "=1", "7=", "-1=1", "7=100.5", "7=inf", "7=nan", "7=1x", "x=1"}) {
    EXPECT_EQ(fault("logit-bias", bias),
              "logit-bias must be ID=VALUE, a token's id and a number from -100 to 100 or -inf, "
              "which bans it, not \"" +
                  std::string(bias) + "\"");
  }
  EXPECT_EQ(fault("seed", "0"),
            "seed must be a whole number from 1 to 4294967295, or random, not \"0\"");
  EXPECT_EQ(fault("seed", "4294967296"),
            "seed must be a whole number from 1 to 4294967295, or random, not \"4294967296\"");
}

TEST(SamplingSettingsTest, UnknownNameListsTheKnownOnes) {
  EXPECT_EQ(fault("heat", "1"),
            "no setting \"heat\"; there are temperature, top-k, top-p, min-p, presence-penalty, "
            "frequency-penalty, repetition-penalty, repetition-window, logit-bias and seed");
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

TEST(SamplingSettingsTest, NewerBiasesJoinTheOthers) {
  Sampling all;
  mergeSampling({.repetitionWindow = 5, .logitBias = {{1, 2.0F}, {3, 4.0F}}}, all);
  mergeSampling({.logitBias = {{3, 0.0F}}}, all);
  EXPECT_EQ(all.logitBias, (std::map<int32_t, float>{{1, 2.0F}, {3, 0.0F}}));
  EXPECT_EQ(all.repetitionWindow, 5);
}

TEST(SamplingSettingsTest, RandomSeedsDiffer) {
  std::set<uint32_t> seeds;
  for (int i = 0; i < 8; ++i) {
    Sampling sampling;
    EXPECT_TRUE(setSampling("seed", "random", sampling).ok());
    EXPECT_NE(sampling.seed.value_or(0), 0U);
    seeds.insert(*sampling.seed);
  }
  EXPECT_GT(seeds.size(), 1U);
}

TEST(SamplingSettingsTest, EverySettingIsShown) {
  EXPECT_EQ(samplingText({0.7F, 40, 0.5F, 7, 0.1F, 1.5F, -0.5F, 1.1F, 64, {{3, -1.5F}, {9, 2}}}),
            "temperature         0.7\n"
            "top-k               40\n"
            "top-p               0.5\n"
            "min-p               0.1\n"
            "presence-penalty    1.5\n"
            "frequency-penalty   -0.5\n"
            "repetition-penalty  1.1\n"
            "repetition-window   64\n"
            "logit-bias          3=-1.5\n"
            "logit-bias          9=2\n"
            "seed                7");
  EXPECT_EQ(samplingText({}),
            "temperature         0 (greedy)\n"
            "top-k               every token\n"
            "top-p               off\n"
            "min-p               off\n"
            "presence-penalty    off\n"
            "frequency-penalty   off\n"
            "repetition-penalty  off\n"
            "repetition-window   all tokens\n"
            "seed                not set");
}

TEST(SamplingSettingsTest, LibrariesKnowFourSettings) {
  EXPECT_EQ(settingBeyondLibraries({0.7F, 40, 0.5F, 7}), "");
  EXPECT_EQ(settingBeyondLibraries({.topK = 1, .minP = 0.0F}), "min-p");
  EXPECT_EQ(settingBeyondLibraries({.presencePenalty = 1.0F}), "presence-penalty");
  EXPECT_EQ(settingBeyondLibraries({.frequencyPenalty = 1.0F}), "frequency-penalty");
  EXPECT_EQ(settingBeyondLibraries({.repetitionPenalty = 1.0F}), "repetition-penalty");
  EXPECT_EQ(settingBeyondLibraries({.repetitionWindow = 1}), "repetition-window");
  EXPECT_EQ(settingBeyondLibraries({.logitBias = {{1, 1.0F}}}), "logit-bias");
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

TEST(ChatCommandTest, WhatFollowsACommandIsItsOwn) {
  const auto expect = [](const char* line, ChatCommandKind kind, const std::string& text) {
    const ChatCommand command = parseChatCommand(line);
    EXPECT_EQ(command.kind, kind) << line;
    EXPECT_EQ(command.text, text) << line;
  };
  expect("/retry", ChatCommandKind::Retry, "");
  expect("/edit", ChatCommandKind::Edit, "");
  expect("/edit  Who are  you? ", ChatCommandKind::Edit, "Who are  you?");
  expect("/system\tBe brief.\r", ChatCommandKind::System, "Be brief.");
  expect("/system ", ChatCommandKind::System, "");
  expect("/think", ChatCommandKind::Think, "");
  expect("/think on", ChatCommandKind::Think, "on");
  expect("/think off ", ChatCommandKind::Think, "off");
  expect("/save my talk.zyms", ChatCommandKind::Save, "my talk.zyms");
  expect("/load my talk.zyms", ChatCommandKind::Load, "my talk.zyms");
  expect("/context", ChatCommandKind::Context, "");
}

TEST(ChatCommandTest, HelpFitsTheTerminalAndTellsOfEveryCommand) {
  for (const size_t columns : {size_t{0}, size_t{40}, size_t{59}, size_t{60}, size_t{132}}) {
    const std::string help = chatHelp(columns);
    std::istringstream lines(help);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_LE(line.size(), columns == 0 ? 80 : columns) << line;
    }
    for (int kind = 0; kind <= static_cast<int>(ChatCommandKind::Unknown); ++kind) {
      const std::string_view name = chatCommandName(static_cast<ChatCommandKind>(kind));
      EXPECT_TRUE(name.empty() || help.find("/" + std::string(name)) != std::string::npos) << name;
    }
  }
  EXPECT_NE(chatHelp(40).find("/save FILE\n  the conversation to a file\n"), std::string::npos);
  EXPECT_NE(chatHelp(80).find("/save FILE       the conversation to a file\n"), std::string::npos);
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
  EXPECT_EQ(parseChatCommand("/rest").text,
            "no command /rest (did you mean /reset?); /help lists them");
  EXPECT_EQ(parseChatCommand("/xyzzy").text, "no command /xyzzy; /help lists them");
  EXPECT_EQ(parseChatCommand("/").text, "no command /; /help lists them");
  EXPECT_EQ(parseChatCommand("/save").text, "/save takes the name of a file");
  EXPECT_EQ(parseChatCommand("/load ").text, "/load takes the name of a file");
  EXPECT_EQ(parseChatCommand("/think hard").text, "/think takes on or off, not \"hard\"");
  EXPECT_EQ(parseChatCommand("/set top-k").text,
            "/set takes a name and a value, as in /set temperature 0.7");
  EXPECT_EQ(parseChatCommand("/set top-k 1 2").kind, ChatCommandKind::Unknown);
  EXPECT_EQ(parseChatCommand("/set top-k 0").text,
            "top-k must be a whole number from 1, not \"0\"");
}

}  // namespace
}  // namespace zym
