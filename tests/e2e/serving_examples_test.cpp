// The examples of docs/serving.md, as a reader copies them into a shell.
#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>

#include "tests/e2e/served_program.h"
#include "tests/support/json_text.h"
#include "tests/support/scoped_env.h"

namespace zym {
namespace {

using kel::test::parseJson;
using nlohmann::json;

const std::string kIndent = "    ";
const std::string kPrompt = kIndent + "$ ";

struct Example {
  std::string command;
  std::string output;  // where the document shows it
};

std::vector<std::string> linesOfSection(const std::string& title) {
  std::ifstream file(ZYM_SERVING_DOC);
  std::vector<std::string> lines;
  bool isInside = false;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("## ")) {
      isInside = line == "## " + title;
    } else if (isInside) {
      lines.push_back(line);
    }
  }
  return lines;
}

// A command goes on while a quotation is open in it; what follows it up to an empty line is shown
// as its output.
std::vector<Example> documentedExamples() {
  std::vector<Example> examples;
  bool isOutput = false;
  for (const std::string& line : linesOfSection("Ask it")) {
    if (line.starts_with(kPrompt)) {
      examples.push_back({line.substr(kPrompt.size()), ""});
      isOutput = false;
    } else if (!line.starts_with(kIndent) || examples.empty()) {
      isOutput = false;
      continue;
    } else {
      (isOutput ? examples.back().output : examples.back().command) +=
          (isOutput ? "" : "\n") + line.substr(kIndent.size());
    }
    isOutput = std::ranges::count(examples.back().command, '\'') % 2 == 0;
  }
  return examples;
}

// What an answer came to: its objects, one or one for each event.
struct Said {
  std::vector<json> objects;
  bool isStream = false;
  bool isComplete = false;
};

Said readAnswer(const std::string& body) {
  Said said;
  said.isStream = body.starts_with("data: ") || body.starts_with("event: ");
  if (!said.isStream) {
    said.objects.push_back(parseJson(body));
    said.isComplete = true;
    return said;
  }
  std::istringstream lines(body);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_FALSE(said.isComplete && !line.empty()) << "behind the end: " << line;
    if (line == "data: [DONE]") {
      said.isComplete = true;
    } else if (line.starts_with("data: ")) {
      said.objects.push_back(parseJson(line.substr(6)));
      const std::string type = said.objects.back().value("type", "");
      // Incomplete: at a limit, as the words that are drawn may have it.
      said.isComplete =
          type == "message_stop" || type == "response.completed" || type == "response.incomplete";
    }
  }
  return said;
}

class ServingExamplesTest : public testing_support::ServedDemo {
 protected:
  // The words of the document, at the port that the server has.
  testing_support::Outcome runExample(std::string command) const {
    const std::string documented = "http://127.0.0.1:8080/";
    const size_t at = command.find(documented);
    if (at == std::string::npos) {
      return {.status = -1, .out = "", .err = "asks nothing at " + documented};
    }
    command.replace(at, documented.size(), "http://127.0.0.1:" + std::to_string(port) + "/");
    return testing_support::runProcess({"sh", "-c", command});
  }
};

TEST_F(ServingExamplesTest, AreAnsweredAsTheyStand) {
  // curl tells the status on standard error, without a word in the command.
  std::ofstream(folder / ".curlrc") << "write-out = \"%{stderr}%{http_code}\"\nnoproxy = \"*\"\n";
  const kel::test::ScopedEnv home("CURL_HOME", folder.c_str());
  start({"--quiet"});
  std::set<std::string> asked;
  for (const Example& example : documentedExamples()) {
    SCOPED_TRACE(example.command);
    const testing_support::Outcome outcome = runExample(example.command);
    EXPECT_EQ(outcome.status, 0);
    ASSERT_EQ(outcome.err, "200") << outcome.out;
    if (!example.output.empty()) {
      EXPECT_EQ(outcome.out, example.output);
    }
    const Said said = readAnswer(outcome.out);
    EXPECT_TRUE(said.isComplete) << outcome.out;
    EXPECT_FALSE(said.objects.empty());
    const size_t path = example.command.find("8080/") + 4;
    asked.insert(example.command.substr(path, example.command.find_first_of(" \n", path) - path) +
                 (said.isStream ? " in pieces" : ""));
    if (example.command.find("\"json_schema\"") != std::string::npos) {
      asked.insert("a form");
      const json form =
          parseJson(said.objects.at(0)["choices"][0]["message"]["content"].get<std::string>());
      EXPECT_TRUE(form.at("continent").is_string());
      EXPECT_TRUE(form.at("capital").is_boolean());
    }
  }
  EXPECT_EQ(asked, (std::set<std::string>{"/health", "/v1/models", "/v1/chat/completions",
                                          "/v1/chat/completions in pieces", "/v1/completions",
                                          "/v1/messages", "/v1/messages in pieces", "/v1/responses",
                                          "/v1/responses in pieces", "a form", "/tokenize"}));
}

// The port of the examples is the one that the program listens at when nothing is said.
TEST_F(ServingExamplesTest, NameTheDefaultAddressAndPort) {
  const std::string help = testing_support::runProcess({ZYM_PROGRAM, "serve", "--help"}).out;
  EXPECT_NE(help.find("(default: 8080)"), std::string::npos) << help;
  EXPECT_NE(help.find("(default: 127.0.0.1"), std::string::npos) << help;
}

}  // namespace
}  // namespace zym
