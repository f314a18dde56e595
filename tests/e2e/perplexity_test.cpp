// zym perplexity, with the demonstration model and texts that it knows.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/e2e/fixture.h"
#include "tests/support/demo_model.h"
#include "tests/support/json_text.h"
#include "tests/support/random_model.h"
#include "tests/support/temp_dir.h"

namespace zym {
namespace {

using kel::test::parseJson;
using Json = nlohmann::json;
using testing_support::Outcome;

constexpr const char* kText = "The capital of Canada is Ottawa.\nThe capital of Peru is Lima.\n";

class PerplexityTest : public testing_support::ProgramTest {
 protected:
  static void SetUpTestSuite() {
    models = std::make_unique<kel::test::TempDir>();
    kel::test::writeDemoModel(bf16(), kel::QuantType::BF16);
    kel::test::writeDemoModel(q8(), kel::QuantType::Q8_0);
  }
  static void TearDownTestSuite() { models.reset(); }

  void SetUp() override {
    testing_support::ProgramTest::SetUp();
    unsetenv("ZYM_PLUGIN");
    setenv("OMP_NUM_THREADS", "1", 1);  // the model is tiny, and tests run side by side
  }

  static std::string bf16() { return models->file("bf16.zym"); }
  static std::string q8() { return models->file("q8.zym"); }

  std::string write(const std::string& bytes) const {
    std::ofstream(folder / "text.txt", std::ios::binary) << bytes;
    return folder / "text.txt";
  }
  static Json jsonOf(std::vector<std::string> words) {
    words.insert(words.begin(), "perplexity");
    words.emplace_back("--json");
    const Outcome outcome = zym(words);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return parseJson(outcome.out);
  }
  static void expectFault(const Outcome& outcome, int status, const std::string& line) {
    EXPECT_EQ(outcome.status, status);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "zym: " + line + "\n");
  }

  static std::unique_ptr<kel::test::TempDir> models;
};

std::unique_ptr<kel::test::TempDir> PerplexityTest::models;

TEST_F(PerplexityTest, ATableTellsHowManyTokensCounted) {
  const std::string file = write(kText);
  const size_t tokens =
      parseJson(zym({"tokenize", bf16(), "-f", file, "--json"}).out)["ids"].size();
  const Json json = jsonOf({bf16(), file});
  const double value = json["perplexity"]["value"];
  EXPECT_EQ(json["tokens"], tokens);
  EXPECT_EQ(json["tokensScored"], tokens - 1);
  EXPECT_EQ(json["windows"], 1);
  EXPECT_EQ(json["window"], 2048);
  EXPECT_EQ(json["stride"], 1024);
  EXPECT_DOUBLE_EQ(value, std::exp(json["negativeLogLikelihood"]["mean"].get<double>()));
  EXPECT_FALSE(json.contains("reference"));
  const Outcome table = zym({"perplexity", bf16(), file});
  EXPECT_EQ(table.status, 0);
  EXPECT_EQ(table.err, "");
  char expected[200];
  std::snprintf(expected, sizeof(expected),
                "perplexity       %.4f ± %.4f\n"
                "tokens scored    %zu of %zu\n"
                "windows          1 of 2048 tokens, 1024 apart\n",
                value, json["perplexity"]["standardError"].get<double>(), tokens - 1, tokens);
  EXPECT_EQ(table.out, expected);
}

TEST_F(PerplexityTest, StandardInputIsTheSameText) {
  const Outcome piped = zym({"perplexity", bf16(), "-"}, kText);
  EXPECT_EQ(piped.status, 0) << piped.err;
  EXPECT_EQ(piped.out, zym({"perplexity", bf16(), write(kText)}).out);
}

TEST_F(PerplexityTest, WindowsAndStridesAreThoseAskedFor) {
  const std::string file = write(kText);
  const size_t tokens = jsonOf({bf16(), file})["tokens"];
  ASSERT_GT(tokens, 20U);
  const Json apart = jsonOf({bf16(), file, "--window", "10", "--stride", "10"});
  EXPECT_EQ(apart["windows"], (tokens - 1 + 9) / 10);
  EXPECT_EQ(apart["tokensScored"], tokens - (tokens - 1 + 9) / 10 - (tokens % 10 == 1 ? 1 : 0));
  const Json overlapping = jsonOf({bf16(), file, "--window", "10"});
  EXPECT_EQ(overlapping["stride"], 5);
  EXPECT_EQ(overlapping["tokensScored"], tokens - 1);
  EXPECT_EQ(overlapping["windows"], 1 + (tokens - 10 + 4) / 5);
}

TEST_F(PerplexityTest, AReferenceTellsHowFarAModelIsFromIt) {
  const std::string file = write(kText);
  const Json same = jsonOf({bf16(), file, "--reference", bf16()})["reference"];
  EXPECT_EQ(same["klDivergence"]["mean"], 0);
  EXPECT_EQ(same["sameBestToken"]["mean"], 1);
  EXPECT_EQ(same["perplexityRatio"]["value"], 1);
  const Json all = jsonOf({q8(), file, "--reference", bf16()});
  const Json& near = all["reference"];
  EXPECT_GT(near["klDivergence"]["mean"].get<double>(), 0);
  EXPECT_LT(near["klDivergence"]["mean"].get<double>(), 0.1);
  EXPECT_GE(near["klDivergence"]["greatest"].get<double>(),
            near["klDivergence"]["mean"].get<double>());
  EXPECT_GT(near["sameBestToken"]["mean"].get<double>(), 0.8);
  EXPECT_EQ(near["perplexity"], same["perplexity"]);
  EXPECT_NEAR(all["perplexity"]["value"].get<double>() / near["perplexity"]["value"].get<double>(),
              near["perplexityRatio"]["value"].get<double>(), 1e-9);
  const std::string table = zym({"perplexity", q8(), file, "--reference", bf16()}).out;
  for (const char* line : {"perplexity ", "\nof the reference ", "\nratio ", "\nKL divergence ",
                           "\nsame best token ", "\ntokens scored ", "\nwindows "}) {
    EXPECT_NE(table.find(line), std::string::npos) << line;
  }
}

TEST_F(PerplexityTest, CachesOfSixteenBitsRound) {
  const std::string file = write(kText);
  const Json whole = jsonOf({bf16(), file});
  const Json rounded = jsonOf({bf16(), file, "--cache", "bf16"});
  EXPECT_EQ(whole["cache"], "f32");
  EXPECT_EQ(rounded["cache"], "bf16");
  const double before = whole["perplexity"]["value"];
  const double after = rounded["perplexity"]["value"];
  EXPECT_NE(before, after);
  EXPECT_NEAR(before, after, 0.05 * before);
}

TEST_F(PerplexityTest, AReferenceMayBeACheckpoint) {
  const Outcome outcome = zym({"perplexity", bf16(), write(kText), "--reference", ZYM_DEMO_FOLDER});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_NE(outcome.out.find("\nKL divergence    0.000000 ± 0.000000, at most 0.0000\n"),
            std::string::npos)
      << outcome.out;
}

TEST_F(PerplexityTest, WhatIsNoTextToMeasureIsRefused) {
  expectFault(zym({"perplexity", bf16(), write("")}), 1, "the text is empty");
  expectFault(zym({"perplexity", bf16(), write("a")}), 1,
              "the text has one token, in front of which is nothing");
  const std::string missing = folder / "missing.txt";
  expectFault(zym({"perplexity", bf16(), missing}), 1,
              missing + ": No such file or directory; check the path");
  expectFault(zym({"perplexity", missing, write(kText)}), 1,
              missing + ": No such file or directory; check the path");
}

TEST_F(PerplexityTest, BytesThatAreNoTextAreRemarkedOn) {
  const Outcome outcome = zym({"perplexity", bf16(), write("The capital \xFF of Canada")});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err,
            "(the text is not valid UTF-8; bytes that belong to no character are read as "
            "U+FFFD)\n");
}

TEST_F(PerplexityTest, AReferenceHasTheSameVocabulary) {
  const std::string other = folder / "other.zym";
  ASSERT_TRUE(kel::test::writeRandomModel(other, {.vocab = 40}).ok());
  expectFault(zym({"perplexity", bf16(), write(kText), "--reference", other}), 1,
              "the models have different vocabularies: 768 and 40 tokens");
}

TEST_F(PerplexityTest, WrongUseExitsWithTwo) {
  const std::string file = write(kText);
  expectFault(zym({"perplexity", bf16()}), 2,
              "FILE is required, as in: zym perplexity model.zym text.txt; see zym perplexity "
              "--help");
  EXPECT_EQ(zym({"perplexity", bf16(), file, "--window", "1"}).status, 2);
  EXPECT_EQ(zym({"perplexity", bf16(), file, "--cache", "q8"}).status, 2);
  expectFault(zym({"perplexity", bf16(), file, "--window", "10", "--stride", "11"}), 2,
              "--stride is at most --window; see zym perplexity --help");
}

TEST_F(PerplexityTest, AWindowHasToFitTheModel) {
  std::string text;
  for (int i = 0; i < 2000; ++i) {
    text += kText;
  }
  expectFault(zym({"perplexity", bf16(), write(text), "--window", "10000"}), 1,
              bf16() + ": a context of 10000 positions; the model has room for 8192");
}

TEST_F(PerplexityTest, CtrlCEndsItWithoutAResult) {
  std::string text;
  for (int i = 0; i < 5000; ++i) {
    text += kText;
  }
  // A shell's background program ignores Ctrl-C. It is sent when the program listens for it, and a
  // little later, so that some is computed.
  const char* script = R"(env --default-signal=INT "$@" &
listens() { [ $((0x$(sed -n 's/^SigCgt:\t//p' /proc/$!/status) & 2)) -ne 0 ]; }
for i in $(seq 600); do listens && break; sleep 0.1; done
sleep 1
kill -INT $!
wait $!)";
  const Outcome outcome = testing_support::runProcess(
      {"sh", "-c", script, "sh", ZYM_PROGRAM, "perplexity", bf16(), write(text), "--window", "64"});
  EXPECT_EQ(outcome.status, 130);
  EXPECT_EQ(outcome.out, "");
  EXPECT_NE(outcome.err.find("zym: stopped after "), std::string::npos) << outcome.err;
}

}  // namespace
}  // namespace zym
