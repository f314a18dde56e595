// Two servers behind nginx, by the configuration that is shipped.
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "host/serve/http_sockets.h"
#include "tests/host/serve/serve_fixture.h"

extern char** environ;

namespace zym {
namespace {

using testing_support::comesTrue;
using testing_support::HttpAnswer;
using testing_support::HttpClient;
using testing_support::Inbox;
using testing_support::isGone;

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
  size_t at = text.find(from);
  ASSERT_NE(at, std::string::npos) << from;
  for (; at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

uint16_t freePort() {
  uint16_t port = 0;
  int fd = -1;
  EXPECT_TRUE(listenAt("127.0.0.1", port, fd).ok());
  ::close(fd);
  return port;
}

class NginxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (size_t i = 0; i < servers.size(); ++i) {
      startServer(i);
    }
    startNginx();
  }
  void TearDown() override {
    if (nginx > 0) {
      kill(nginx, SIGTERM);
      waitpid(nginx, nullptr, 0);
    }
    std::filesystem::remove_all(folder);
  }

  void startServer(size_t i) {
    HttpService service;
    service.routes.add("GET", "/who", [i](const std::shared_ptr<HttpExchange>& exchange) {
      exchange->answer(200, "text/plain", std::to_string(i));
    });
    service.routes.add("POST", "/who", [i](const std::shared_ptr<HttpExchange>& exchange) {
      exchange->answer(200, "text/plain", std::to_string(i));
    });
    service.routes.add("POST", "/full", [this](const std::shared_ptr<HttpExchange>& exchange) {
      ++refusals;
      exchange->answer(503, "application/json", "{}", {{"Retry-After", "3"}});
    });
    service.routes.add("POST", "/wait", [this](auto exchange) { inbox.put(std::move(exchange)); });
    const kel::Status status = servers[i].start({}, service);
    ASSERT_TRUE(status.ok()) << status.message;
  }

  void startNginx() {
    folder =
        std::filesystem::path(::testing::TempDir()) / ("zym_nginx_" + std::to_string(getpid()));
    std::filesystem::create_directories(folder);
    std::ifstream shipped(ZYM_NGINX_SITE);
    std::ostringstream text;
    text << shipped.rdbuf();
    std::string site = text.str();
    port = freePort();
    replaceAll(site, "127.0.0.1:8081", "127.0.0.1:" + std::to_string(servers[0].port()));
    replaceAll(site, "127.0.0.1:8082", "127.0.0.1:" + std::to_string(servers[1].port()));
    replaceAll(site, "listen 8080", "listen 127.0.0.1:" + std::to_string(port));
    const std::string here = folder;
    std::ofstream(folder / "nginx.conf")
        << (geteuid() == 0 ? "user root;\n" : "") << "daemon off;\nworker_processes 1;\npid "
        << here << "/pid;\nerror_log " << here
        << "/error.log;\nevents {}\nhttp {\naccess_log off;\n"
        << "client_body_temp_path " << here << "/body;\nproxy_temp_path " << here << "/proxy;\n"
        << "fastcgi_temp_path " << here << "/fastcgi;\nuwsgi_temp_path " << here << "/uwsgi;\n"
        << "scgi_temp_path " << here << "/scgi;\n"
        << site << "}\n";
    const std::string config = folder / "nginx.conf";
    const std::string errors = folder / "error.log";
    std::array<const char*, 6> words = {ZYM_NGINX, "-e",           errors.c_str(),
                                        "-c",      config.c_str(), nullptr};
    ASSERT_EQ(posix_spawn(&nginx, ZYM_NGINX, nullptr, nullptr,
                          const_cast<char* const*>(words.data()), environ),
              0);
    ASSERT_TRUE(comesTrue([&] { return HttpClient(port).isConnected; })) << logText();
  }

  std::string logText() const {
    std::ifstream log(folder / "error.log");
    std::ostringstream text;
    text << log.rdbuf();
    return text.str();
  }

  // Which server answers a request of that conversation; empty: none.
  std::string serverOf(const std::string& conversation, const std::string& method = "POST") const {
    HttpClient caller(port);
    caller.ask(method, "/who",
               conversation.empty() ? "" : "X-Conversation: " + conversation + "\r\n",
               method == "POST" ? "{}" : "");
    const HttpAnswer answer = caller.read();
    return answer.status == 200 ? answer.body : "";
  }

  std::array<HttpServer, 2> servers;
  Inbox inbox;
  std::atomic<int> refusals = 0;
  std::filesystem::path folder;
  uint16_t port = 0;
  pid_t nginx = -1;
};

TEST_F(NginxTest, StreamsArriveAsTheyAreWritten) {
  HttpClient caller(port);
  caller.ask("POST", "/wait", "", "{}");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/event-stream");
  for (const std::string piece : {"data: 1\n\n", "data: 2\n\n", "data: 3\n\n"}) {
    exchange->write(piece);
    ASSERT_TRUE(caller.readUntil(piece));
  }
  EXPECT_FALSE(isGone(*exchange));
  exchange->end();
  EXPECT_TRUE(caller.readUntil("\r\n0\r\n\r\n"));
}

TEST_F(NginxTest, ConversationsStayWithTheirServers) {
  std::map<std::string, int> counts;
  for (int i = 0; i < 20; ++i) {
    const std::string conversation = "conversation-" + std::to_string(i);
    const std::string first = serverOf(conversation);
    ++counts[first];
    for (int again = 0; again < 3; ++again) {
      EXPECT_EQ(serverOf(conversation), first) << conversation;
    }
  }
  EXPECT_EQ(counts.size(), 2u);
  EXPECT_GT(counts["0"], 0);
  EXPECT_GT(counts["1"], 0);
}

TEST_F(NginxTest, CallersWithoutAConversationStayWithOneServer) {
  const std::string first = serverOf("");
  EXPECT_NE(first, "");
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(serverOf(""), first);
  }
}

TEST_F(NginxTest, TheOtherServerAnswersForOneThatIsGone) {
  std::map<std::string, std::string> before;
  for (int i = 0; i < 12; ++i) {
    const std::string conversation = std::to_string(i);
    before[conversation] = serverOf(conversation);
  }
  servers[0].stop(std::chrono::milliseconds(0));
  for (const auto& [conversation, server] : before) {
    EXPECT_EQ(serverOf(conversation), "1") << conversation << " of " << server;
    EXPECT_EQ(serverOf(conversation, "GET"), "1") << conversation;
  }
}

TEST_F(NginxTest, FullQueueIsToldToTheCaller) {
  HttpClient caller(port);
  caller.ask("POST", "/full", "", "{}");
  const HttpAnswer answer = caller.read();
  EXPECT_EQ(answer.status, 503);
  EXPECT_EQ(answer.headers.at("retry-after"), "3");
  EXPECT_EQ(refusals, 1);
  // And counts for no fault of the server's.
  EXPECT_EQ(serverOf(""), serverOf(""));
}

TEST_F(NginxTest, CallerThatLeavesIsGoneForTheServer) {
  HttpClient caller(port);
  caller.ask("POST", "/wait", "", "{}");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  EXPECT_FALSE(isGone(*exchange));
  caller.close();
  EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); }));
}

TEST_F(NginxTest, ForeignNamesAndPagesAreRefused) {
  HttpClient caller(port);
  caller.send("GET /who HTTP/1.1\r\nHost: evil.example\r\n\r\n");
  EXPECT_EQ(caller.read().status, 403);
  HttpClient page(port);
  page.ask("POST", "/who", "Origin: https://evil.example\r\n", "{}");
  EXPECT_EQ(page.read().status, 403);
}

}  // namespace
}  // namespace zym
