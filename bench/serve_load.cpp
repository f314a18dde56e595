// Drives a running `zym serve` with callers that each ask again as soon as they have their answer.
//
//   serve_load PORT [--seconds N] [--callers LIST] [--tokens N]
//
// For each number of callers of the list (default 1,2,4,8) they ask for so many seconds (default
// 60) and then take the answers that are under way. Every request is a streamed chat completion of
// a short prompt of its own and at most --tokens (default 32) greedy tokens, over a connection that
// is kept. Prints a table. A caller that is refused with 503 waits as long as Retry-After says.
//
// Status 1 where a request was neither answered to its end nor refused with 503.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSilenceSeconds = 600;  // far longer than an answer of a full queue should take

struct Options {
  uint16_t port = 0;
  unsigned seconds = 60;
  unsigned tokens = 32;
  std::vector<unsigned> callers = {1, 2, 4, 8};
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// What stands behind a name in text; 0 where the name does not.
double numberBehind(std::string_view text, std::string_view name) {
  const size_t at = text.rfind(name);
  return at == std::string_view::npos
             ? 0
             : std::strtod(std::string(text.substr(at + name.size(), 32)).c_str(), nullptr);
}

// A connection in the clear to a server at this machine.
class Connection {
 public:
  explicit Connection(uint16_t port) : fd(socket(AF_INET, SOCK_STREAM, 0)) {
    const timeval silence{kSilenceSeconds, 0};
    const int atOnce = 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof(silence));
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &atOnce, sizeof(atOnce));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    isOpen = connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0;
  }
  ~Connection() { ::close(fd); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Sends a request and reads the head of its answer: the status; 0 where none comes.
  int ask(std::string_view line, std::string_view body) {
    const std::string text =
        std::string(line) +
        " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n\r\n" + std::string(body);
    if (!isOpen ||
        send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
      return 0;
    }
    size_t end = std::string::npos;
    while ((end = received.find("\r\n\r\n")) == std::string::npos) {
      if (!readMore()) {
        return 0;
      }
    }
    const std::string_view head = std::string_view(received).substr(0, end + 2);
    isChunked = head.find("Transfer-Encoding: chunked\r\n") != std::string_view::npos;
    left = static_cast<size_t>(numberBehind(head, "Content-Length: "));
    queueSeconds = numberBehind(head, "Server-Timing: queue;dur=") / 1e3;
    retrySeconds = numberBehind(head, "Retry-After: ");
    const int status =
        static_cast<int>(numberBehind(head.substr(0, head.find("\r\n")), "HTTP/1.1 "));
    received.erase(0, end + 4);
    return status;
  }

  // The next part of the answer's body: empty at its end, and where the connection breaks.
  std::string part() {
    size_t frame = 0;  // bytes of the chunk's own
    if (isChunked) {
      size_t end = std::string::npos;
      while ((end = received.find("\r\n")) == std::string::npos) {
        if (!readMore()) {
          return {};
        }
      }
      left = std::strtoul(received.c_str(), nullptr, 16);
      received.erase(0, end + 2);
      frame = 2;
    }
    while (received.size() < left + frame) {
      if (!readMore()) {
        return {};
      }
    }
    std::string bytes = received.substr(0, left);
    received.erase(0, left + frame);
    left = 0;
    isWhole = bytes.empty();
    return bytes;
  }
  std::string rest() {
    std::string text;
    isWhole = false;
    for (std::string bytes = part(); !bytes.empty(); bytes = part()) {
      text += bytes;
    }
    return text;
  }
  bool endedWell() const { return isWhole; }
  // Of the last answer, in seconds.
  double queued() const { return queueSeconds; }
  double retryAfter() const { return retrySeconds; }

 private:
  bool readMore() {
    char buffer[16384];
    const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
    isOpen = count > 0;
    if (isOpen) {
      received.append(buffer, static_cast<size_t>(count));
    }
    return isOpen;
  }

  int fd;
  bool isOpen = false;
  bool isChunked = false;
  bool isWhole = false;  // the body came to its end
  size_t left = 0;
  double queueSeconds = 0;
  double retrySeconds = 0;
  std::string received;
};

// Of one caller, or of all of them.
struct Tally {
  unsigned answered = 0;
  unsigned refused = 0;
  unsigned failed = 0;
  uint64_t tokens = 0;
  std::vector<double> firstToken;  // seconds from the request
  std::vector<double> queue;       // seconds until it was taken up, as the server says
  std::string failure;             // the last one

  void add(const Tally& other) {
    answered += other.answered;
    refused += other.refused;
    failed += other.failed;
    tokens += other.tokens;
    firstToken.insert(firstToken.end(), other.firstToken.begin(), other.firstToken.end());
    queue.insert(queue.end(), other.queue.begin(), other.queue.end());
    if (!other.failure.empty()) {
      failure = other.failure;
    }
  }
};

std::string requestBody(const Options& options, unsigned caller, unsigned number) {
  static constexpr const char* kThings[] = {"rivers", "clocks", "bridges", "apples",
                                            "maps",   "winter", "letters", "harbours"};
  return std::string(R"({"messages":[{"role":"user","content":"Caller )") + std::to_string(caller) +
         " asks for the " + std::to_string(number) + ". time: what is there to say about " +
         kThings[(caller + number) % std::size(kThings)] + R"(?"}],"max_tokens":)" +
         std::to_string(options.tokens) +
         R"(,"temperature":0,"stream":true,"stream_options":{"include_usage":true}})";
}

// Whether some of the reply's text is in these events; the first ones tell of the role alone.
bool hasText(const std::string& events) {
  for (const std::string_view name : {"\"content\":\"", "\"reasoning_content\":\""}) {
    const size_t at = events.find(name);
    if (at != std::string::npos && events[at + name.size()] != '"') {
      return true;
    }
  }
  return false;
}

// The events of a stream, up to its end.
void readAnswer(Connection& connection, Clock::time_point start, Tally& tally) {
  double first = 0;
  std::string all;
  for (std::string events = connection.part(); !events.empty(); events = connection.part()) {
    if (first == 0 && hasText(events)) {
      first = secondsSince(start);
    }
    all += events;
  }
  if (!connection.endedWell() || !all.ends_with("data: [DONE]\n\n")) {
    ++tally.failed;
    tally.failure =
        "an answer without an end: " + all.substr(all.size() - std::min<size_t>(all.size(), 300));
    return;
  }
  ++tally.answered;
  tally.tokens += static_cast<uint64_t>(numberBehind(all, "\"completion_tokens\":"));
  tally.firstToken.push_back(first > 0 ? first : secondsSince(start));
  tally.queue.push_back(connection.queued());
}

Tally runCaller(const Options& options, unsigned caller, Clock::time_point end) {
  Tally tally;
  Connection connection(options.port);
  for (unsigned number = 1; Clock::now() < end && tally.failed == 0; ++number) {
    const Clock::time_point start = Clock::now();
    const int status =
        connection.ask("POST /v1/chat/completions", requestBody(options, caller, number));
    if (status == 200) {
      readAnswer(connection, start, tally);
      continue;
    }
    const std::string text = connection.rest();
    if (status == 503 && connection.endedWell() && connection.retryAfter() > 0) {
      ++tally.refused;
      std::this_thread::sleep_for(std::chrono::duration<double>(connection.retryAfter()));
    } else {
      // Anything but the two ends this caller.
      ++tally.failed;
      tally.failure = "status " + std::to_string(status) + ": " + text.substr(0, 300);
    }
  }
  return tally;
}

double residentMib(const Options& options) {
  Connection connection(options.port);
  if (connection.ask("GET /metrics", "") != 200) {
    std::fprintf(stderr, "serve_load: no server with metrics at port %u\n", unsigned{options.port});
    std::exit(2);
  }
  return numberBehind(connection.rest(), "\nzym_resident_memory_bytes ") / (1 << 20);
}

// The least value that so large a share of them does not exceed; 0 of none.
double percentile(std::vector<double> values, double share) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<size_t>(std::ceil(share * static_cast<double>(values.size())));
  return values[std::clamp<size_t>(rank, 1, values.size()) - 1];
}

Tally measure(const Options& options, unsigned callers) {
  const double before = residentMib(options);
  const Clock::time_point start = Clock::now();
  const Clock::time_point end = start + std::chrono::seconds(options.seconds);
  std::vector<Tally> tallies(callers);
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < callers; ++i) {
    threads.emplace_back([&, i] { tallies[i] = runCaller(options, i, end); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const double seconds = secondsSince(start);
  const double after = residentMib(options);
  Tally all;
  for (const Tally& tally : tallies) {
    all.add(tally);
  }
  std::printf("| %7u | %8u | %7u | %6u | %9.2f | %9.2f | %9.3f | %9.3f | %8.1f | %6.0f | %6.0f |\n",
              callers, all.answered, all.refused, all.failed, percentile(all.firstToken, 0.5),
              percentile(all.firstToken, 0.99), percentile(all.queue, 0.5),
              percentile(all.queue, 0.99), static_cast<double>(all.tokens) / seconds, before,
              after);
  std::fflush(stdout);
  return all;
}

[[noreturn]] void usage() {
  std::fputs("usage: serve_load PORT [--seconds N] [--callers N,N,...] [--tokens N]\n", stderr);
  std::exit(2);
}

std::vector<unsigned> numbers(const char* text) {
  std::vector<unsigned> list;
  for (char* end = nullptr; *text != '\0'; text = *end == ',' ? end + 1 : end) {
    const unsigned long number = std::strtoul(text, &end, 10);
    if (end == text || (*end != '\0' && *end != ',') || number == 0 || number > 4096) {
      usage();
    }
    list.push_back(static_cast<unsigned>(number));
  }
  return list;
}

Options parse(int argc, char** argv) {
  Options options;
  if (argc < 2 || argc % 2 != 0) {
    usage();
  }
  options.port = static_cast<uint16_t>(std::strtoul(argv[1], nullptr, 10));
  for (int i = 2; i < argc; i += 2) {
    const std::vector<unsigned> values = numbers(argv[i + 1]);
    const bool isList = std::strcmp(argv[i], "--callers") == 0;
    if (values.empty() || (!isList && values.size() != 1)) {
      usage();
    }
    if (isList) {
      options.callers = values;
    } else if (std::strcmp(argv[i], "--seconds") == 0) {
      options.seconds = values[0];
    } else if (std::strcmp(argv[i], "--tokens") == 0) {
      options.tokens = values[0];
    } else {
      usage();
    }
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  std::puts(
      "| callers | answered | refused | failed | first p50 | first p99 | queue p50 | queue p99 | "
      "tokens/s | before |  after |");
  std::puts(
      "|--------:|---------:|--------:|-------:|----------:|----------:|----------:|----------:|"
      "---------:|-------:|-------:|");
  int status = 0;
  for (const unsigned callers : options.callers) {
    const Tally tally = measure(options, callers);
    if (tally.failed > 0) {
      std::fprintf(stderr, "serve_load: %s\n", tally.failure.c_str());
      status = 1;
    }
  }
  std::puts(
      "first: seconds until the first text of a reply; queue: seconds until its request was taken "
      "up,");
  std::puts("as its Server-Timing says; before, after: MiB of resident memory of the server");
  return status;
}
