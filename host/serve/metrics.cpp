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

  void histogram(std::string_view name, std::string_view help, const TimeHistogram& times) {
    family(name, "histogram", help);
    for (size_t i = 0; i < TimeHistogram::kBounds.size(); ++i) {
      out += fmt::format("zym_{}_bucket{{le=\"{}\"}} {}\n", name, TimeHistogram::kBounds[i],
                         times.countUpTo(i));
    }
    out += fmt::format("zym_{0}_bucket{{le=\"+Inf\"}} {1}\nzym_{0}_sum {2}\nzym_{0}_count {1}\n",
                       name, times.count(), times.seconds());
  }

  std::string out;

 private:
  std::string_view current;
};

// One family for both: whoever misses a reply looks in one place.
void writeOutcomes(const SchedulerStatistics& statistics, const RefusalNumbers& refusals,
                   Text& text) {
  text.family(
      "requests_total", "counter",
      "Requests for replies by what became of them, and all that were refused by the reason");
  const auto outcome = [&](std::string_view name, uint64_t count) {
    text.sample(count, fmt::format("{{outcome=\"{}\"}}", name));
  };
  outcome("completed", statistics.completed);
  outcome("cancelled", statistics.cancelled);
  outcome("failed", statistics.failed);
  outcome("turned_away", statistics.turnedAway);
  outcome("queue_full", statistics.queueFull);
  for (size_t i = 0; i < kRefusalReasons; ++i) {
    const auto reason = static_cast<RefusalReason>(i);
    // By the transport, or by the queue, which stops taking requests a moment before.
    const uint64_t others = reason == RefusalReason::ShuttingDown ? statistics.shuttingDown : 0;
    outcome(codeOf(reason), refusals[i] + others);
  }
}

}  // namespace

std::string metricsText(const SchedulerStatistics& statistics, const ServerLoad& load) {
  Text text;
  writeOutcomes(statistics, load.refusals, text);
  text.family("http_answers_total", "counter", "Answers to requests of any kind, by their status");
  for (const auto& [status, count] : load.answers) {
    text.sample(count, fmt::format("{{status=\"{}\"}}", status));
  }
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
  text.counter("prefill_seconds_total", "Time spent on reading prompts", statistics.prefillSeconds);
  text.counter("decode_seconds_total", "Time spent on writing replies", statistics.decodeSeconds);

  text.histogram("queue_seconds", "Time that requests waited to be taken up",
                 statistics.queueTimes);
  text.histogram("first_token_seconds",
                 "Time from a request's arrival to the first token of its reply",
                 statistics.firstTokenTimes);

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
