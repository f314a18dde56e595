// Ten thousand requests of every kind to one server: what they take is given back.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/served_program.h"
#include "tests/engine/talking.h"
#include "tests/support/family_shapes.h"
#include "tests/support/instrumented.h"
#include "tests/support/resident_memory.h"
#include "tests/support/scoped_env.h"

namespace zym {
namespace {

using nlohmann::json;
using testing_support::comesTrue;
using testing_support::HttpAnswer;
using testing_support::HttpClient;

constexpr unsigned kCallers = 4;  // at once, of which two are answered together

// What 10,000 requests may add to what the server holds after the first 2,000: 400 bytes a request.
// All that one takes is given back; what is left are the allocator's habits.
constexpr long kAllowedGrowthKb = kel::test::allowedGrowth(4096);

constexpr unsigned share(unsigned requests) {
  return kel::test::kInstrumented ? requests / 10 : requests;
}

kel::test::RandomModelSpec smallModel() {
  kel::test::RandomModelSpec spec = engine::testing_support::talkingModel(kel::test::oddShape());
  spec.shape.layers = 3;
  spec.shape.fullLayers = {};
  spec.shape.fullLayers.add(2);
  return spec;
}

// Chats of a small number of prompts: what is remembered of them is soon all that there will be.
std::string chat(unsigned number, unsigned tokens, bool streams) {
  const std::string text = "say " + std::string(1 + number % 8, 'a');
  return json{{"messages", {{{"role", "user"}, {"content", text}}}},
              {"max_tokens", tokens},
              {"temperature", 0},
              {"stream", streams}}
      .dump();
}

// Asks one thing after the other, over a connection that lasts as long as it may.
class Caller {
 public:
  Caller(uint16_t serverPort, unsigned seed) : port(serverPort), random(seed) {}

  void ask() {
    switch (random() % 16) {
      case 0:
      case 1:
      case 2:
        expect(200, "GET", "/health");
        break;
      case 3:
        expect(200, "GET", "/v1/models");
        break;
      case 4:
      case 5:
        expect(200, "POST", "/v1/chat/completions", chat(number(), 1, false));
        break;
      case 6:
        expect(200, "POST", "/v1/chat/completions", chat(number(), 1, true));
        break;
      case 7:
        expect(400, "POST", "/v1/chat/completions", R"({"messages":[{"role":)");
        break;
      case 8:
        expect(400, "POST", "/v1/messages", R"({"messages":7})");
        break;
      case 9:
        expect(404, "GET", "/v1/nothing" + std::to_string(number()));
        break;
      case 10:
        expect(405, "DELETE", "/v1/models");
        break;
      case 11:
        overlong();
        break;
      case 12:
        abandon("POST /v1/chat/completions HTTP/1.1\r\nHost: local");
        break;
      case 13:
        abandon(
            "POST /v1/chat/completions HTTP/1.1\r\nHost: localhost\r\nContent-Length: "
            "900\r\n\r\n{");
        break;
      case 14:
        abandonChat(false);
        break;
      default:
        abandonChat(true);
    }
  }

 private:
  unsigned number() { return static_cast<unsigned>(random()); }

  HttpClient& connection() {
    if (!open || number() % 64 == 0) {
      open.emplace(HttpClient(port));
    }
    return *open;
  }
  void expect(int status, const std::string& method, const std::string& path,
              const std::string& body = "") {
    HttpClient& client = connection();
    client.ask(method, path, "", body);
    const HttpAnswer answer = client.read();
    EXPECT_EQ(answer.status, status) << method << ' ' << path << ' ' << body << answer.body;
    EXPECT_TRUE(answer.isWhole) << path;
  }
  // Too long by its own words, or by what comes.
  void overlong() {
    HttpClient client(port);
    if (number() % 16 == 0) {
      client.ask("POST", "/v1/completions", "", std::string((1 << 20) + 1, ' '));
    } else {
      client.ask("POST", "/v1/completions", "Content-Length: 99999999\r\nExpect: 100-continue\r\n");
    }
    EXPECT_EQ(client.read().status, 413);
  }
  void abandon(const std::string& bytes) {
    HttpClient client(port);
    EXPECT_TRUE(client.send(bytes));
    leave(client);
  }
  // While it waits or its prompt is read, or in the middle of the answer.
  void abandonChat(bool isBegun) {
    HttpClient client(port);
    client.ask("POST", "/v1/chat/completions", "", chat(number(), 100, true));
    if (isBegun) {
      EXPECT_TRUE(client.readUntil("data: "));
    }
    leave(client);
  }
  void leave(HttpClient& client) {
    if (number() % 2 == 0) {
      client.reset();
    } else {
      client.close();
    }
  }

  uint16_t port;
  std::mt19937 random;
  std::optional<HttpClient> open;
};

class ServeSoakTest : public testing_support::ServedProgram {
 protected:
  static void SetUpTestSuite() {
    ServedProgram::SetUpTestSuite();
    const kel::Status status = kel::test::writeRandomModel(model, smallModel());
    ASSERT_TRUE(status.ok()) << status.message;
  }

  void askTimes(unsigned requests, unsigned seed) const {
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kCallers; ++i) {
      threads.emplace_back([this, requests, seed, i] {
        Caller caller(port, seed + i);
        for (unsigned n = 0; n < requests / kCallers; ++n) {
          caller.ask();
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
  ptrdiff_t entries(const char* kind) const {
    const std::filesystem::directory_iterator found("/proc/" + std::to_string(child) + "/" + kind);
    return std::distance(std::filesystem::begin(found), std::filesystem::end(found));
  }
  bool comesToRest() const {
    return comesTrue([&] {
      const std::string metrics = ask("GET", "/metrics").body;
      return metrics.find("\nzym_running_requests 0\n") != std::string::npos &&
             metrics.find("\nzym_queue_requests 0\n") != std::string::npos &&
             metrics.find("\nzym_connections 1\n") != std::string::npos;
    });
  }

  // The model is too small for threads to be of use.
  kel::test::ScopedEnv oneThread{"OMP_NUM_THREADS", "1"};
};

TEST_F(ServeSoakTest, TenThousandRequestsLeaveMemoryAndDescriptorsAsTheyWere) {
  start({"--quiet", "--parallel", "2", "--context", "250", "--max-body", "1",
         "--connections-per-address", "4000"});
  const ptrdiff_t descriptors = entries("fd");
  askTimes(share(2000), 1);
  ASSERT_TRUE(comesToRest()) << ask("GET", "/metrics").body;
  const long resident = kel::test::residentKilobytes(std::to_string(child));
  ASSERT_GT(resident, 0);
  askTimes(share(10000), 100);
  ASSERT_TRUE(comesToRest()) << ask("GET", "/metrics").body;
  const long growth = kel::test::residentKilobytes(std::to_string(child)) - resident;
  EXPECT_LT(growth, kAllowedGrowthKb);
  RecordProperty("growthKb", std::to_string(growth));
  EXPECT_TRUE(comesTrue([&] { return entries("fd") == descriptors; }))
      << entries("fd") << " of " << descriptors;
  kill(child, SIGTERM);
  EXPECT_EQ(end(), 0) << log();
}

}  // namespace
}  // namespace zym
