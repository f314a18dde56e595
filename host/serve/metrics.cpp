#include "host/serve/metrics.h"

#include <fmt/core.h>

#include <string_view>

namespace zym {
namespace {

class Text {
 public:
  void family(std::string_view name, std::string_view type, std::string_view help) {
    current = name;
    out += fmt::format("# HELP zym_{} {}\n# TYPE zym_{} {}\n", name, help, name, type);
  }
  template <typename Value>
  void sample(Value value, std::string_view labels = "") {
    out += fmt::format("zym_{}{} {}\n", current, labels, value);
  }
  template <typename Value>
  void counter(std::string_view name, std::string_view help, Value value) {
    family(name, "counter", help);
    sample(value);
  }
  template <typename Value>
  void gauge(std::string_view name, std::string_view help, Value value) {
    family(name, "gauge", help);
    sample(value);
  }

  std::string out;

 private:
  std::string_view current;
};

}  // namespace

std::string metricsText(const SchedulerStatistics& statistics, const ServerLoad& load) {
  Text text;
  text.family("requests_total", "counter", "Requests for replies, by what became of them");
  text.sample(statistics.completed, "{outcome=\"completed\"}");
  text.sample(statistics.cancelled, "{outcome=\"cancelled\"}");
  text.sample(statistics.failed, "{outcome=\"failed\"}");
  text.sample(statistics.turnedAway, "{outcome=\"turned_away\"}");
  text.sample(statistics.queueFull, "{outcome=\"queue_full\"}");
  text.sample(statistics.shuttingDown, "{outcome=\"shutting_down\"}");

  text.counter("prompt_tokens_total", "Tokens of prompts that were read to their end",
               statistics.promptTokens);
  text.counter("cached_prompt_tokens_total", "Those of them that were in place before",
               statistics.cachedTokens);
  text.counter("snapshot_hits_total", "Requests that found some of their prompt in place",
               statistics.cacheHits);
  text.counter("read_tokens_total", "Tokens that were fed of prompts", statistics.readTokens);
  text.counter("reply_tokens_total", "Tokens of finished replies", statistics.replyTokens);
  text.counter("passes_total", "Passes over tokens of replies, of one or several conversations",
               statistics.passes);
  text.counter("queue_seconds_total", "Time that requests waited to be taken up",
               statistics.queueSeconds);
  text.counter("prefill_seconds_total", "Time spent on reading prompts", statistics.prefillSeconds);
  text.counter("decode_seconds_total", "Time spent on writing replies", statistics.decodeSeconds);

  text.gauge("queue_requests", "Requests that wait", statistics.waiting);
  text.gauge("running_requests", "Requests at work", statistics.running);
  text.gauge("context_positions_used", "Positions of all conversations that are filled",
             statistics.positionsUsed);
  text.gauge("context_positions", "Positions of all conversations", statistics.positions);
  text.gauge("snapshot_bytes", "Memory of remembered states", statistics.snapshotBytes);
  text.gauge("connections", "Open connections", load.connections);
  text.gauge("resident_memory_bytes", "Memory of the process", load.residentBytes);
  text.gauge("mapped_memory_bytes", "Of this, pages of files, which the system can drop",
             load.mappedBytes);
  return text.out;
}

}  // namespace zym
