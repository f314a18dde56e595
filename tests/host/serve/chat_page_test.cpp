#include "host/serve/chat_page.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "host/serve/embedded_files.h"
#include "tests/support/patterns.h"

namespace zym {
namespace {

// Keeps what it is answered with.
class AnsweredExchange : public HttpExchange {
 public:
  explicit AnsweredExchange(std::string path) { asked.path = std::move(path); }

  const HttpRequest& request() const override { return asked; }
  void answer(int answeredStatus, std::string_view contentType, std::string answeredBody,
              const HttpHeaders& answeredHeaders) override {
    status = answeredStatus;
    type = contentType;
    body = std::move(answeredBody);
    for (const auto& [name, value] : answeredHeaders) {
      headers[name] = value;
    }
  }
  void begin(int, std::string_view, const HttpHeaders&) override {}
  void write(std::string_view) override {}
  void end() override {}
  const volatile int* gone() const override { return nullptr; }

  HttpRequest asked;
  int status = 0;
  std::string type;
  std::string body;
  std::map<std::string, std::string> headers;
};

TEST(ChatPage, StandsAtTheRootAsHtml) {
  AnsweredExchange exchange("/");
  ASSERT_TRUE(answerChatPage(exchange));
  EXPECT_EQ(exchange.status, 200);
  EXPECT_EQ(exchange.type, "text/html; charset=utf-8");
  EXPECT_TRUE(exchange.body.starts_with("<!doctype html>"));
  EXPECT_TRUE(exchange.body.ends_with("</html>\n"));
}

TEST(ChatPage, CarriesEveryFileThatItsFilesName) {
  const std::string link = R"re((?:href|src)="([a-z_]+\.[a-z]+)"|from '\./([a-z_.]+)')re";
  size_t found = 0;
  for (const EmbeddedFile& file : embeddedFiles()) {
    for (const auto& match : kel::test::matchesIn(std::string(file.text), link)) {
      AnsweredExchange exchange("/" + match[1] + match[2]);
      EXPECT_TRUE(answerChatPage(exchange)) << file.name << ": " << exchange.asked.path;
      ++found;
    }
  }
  EXPECT_GE(found, 8U);  // three of the page itself, five of its scripts
}

TEST(ChatPage, NamesScriptsAndStylesAsSuch) {
  for (const auto& [path, type] : {std::pair{"/app.js", "text/javascript; charset=utf-8"},
                                   std::pair{"/marked.js", "text/javascript; charset=utf-8"},
                                   std::pair{"/style.css", "text/css; charset=utf-8"},
                                   std::pair{"/icon.svg", "image/svg+xml"}}) {
    AnsweredExchange exchange(path);
    ASSERT_TRUE(answerChatPage(exchange)) << path;
    EXPECT_EQ(exchange.type, type);
  }
}

TEST(ChatPage, LetsTheBrowserLoadAndRunNothingElse) {
  for (const char* path : {"/", "/app.js"}) {
    AnsweredExchange exchange(path);
    ASSERT_TRUE(answerChatPage(exchange));
    const std::string policy = exchange.headers["Content-Security-Policy"];
    EXPECT_NE(policy.find("default-src 'none'"), std::string::npos);
    EXPECT_NE(policy.find("script-src 'self'"), std::string::npos);
    EXPECT_NE(policy.find("frame-ancestors 'none'"), std::string::npos);
    EXPECT_EQ(policy.find("unsafe"), std::string::npos);
    EXPECT_EQ(exchange.headers["X-Content-Type-Options"], "nosniff");
  }
}

TEST(ChatPage, IsNotSentAgainToWhoHasIt) {
  AnsweredExchange first("/style.css");
  ASSERT_TRUE(answerChatPage(first));
  AnsweredExchange again("/style.css");
  again.asked.headers["if-none-match"] = first.headers["ETag"];
  ASSERT_TRUE(answerChatPage(again));
  EXPECT_EQ(again.status, 304);
  EXPECT_EQ(again.body, "");

  AnsweredExchange other("/app.js");
  other.asked.headers["if-none-match"] = first.headers["ETag"];
  ASSERT_TRUE(answerChatPage(other));
  EXPECT_EQ(other.status, 200);
}

TEST(ChatPage, LeavesOtherPathsAlone) {
  for (const char* path : {"/v1/models", "/app", "/../app.js", "/index.html.bak", "", "//"}) {
    AnsweredExchange exchange(path);
    EXPECT_FALSE(answerChatPage(exchange)) << path;
    EXPECT_EQ(exchange.status, 0);
  }
}

}  // namespace
}  // namespace zym
