// What a server has done and is doing, in the text format that Prometheus collects.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/serve/http_refusal.h"
#include "host/serve/scheduler.h"

namespace zym {

constexpr const char* kMetricsType = "text/plain; version=0.0.4; charset=utf-8";

struct ServerLoad {
  size_t connections = 0;
  RefusalNumbers refusals{};
  AnswerNumbers answers{};
  uint64_t residentBytes = 0;  // of the process
  uint64_t mappedBytes = 0;    // of these, of files: the model's weights
};

std::string metricsText(const SchedulerStatistics& statistics, const ServerLoad& load);

}  // namespace zym
