// zym cache: the containers that were made from models of other forms.
#include <fmt/core.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/commands.h"
#include "host/models/conversion_cache.h"
#include "host/models/model_source.h"
#include "host/terminal/terminal.h"
#include "host/terminal/units.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

constexpr int64_t kDaySeconds = 86'400;

struct ClearOptions {
  std::vector<std::string> models;
  std::optional<unsigned> olderThanDays;
};

int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A clock that was set back makes nothing younger than new.
int64_t daysSince(int64_t seconds) {
  return std::max<int64_t>(secondsNow() - seconds, 0) / kDaySeconds;
}

std::string ageText(int64_t seconds) {
  const int64_t days = daysSince(seconds);
  if (seconds == 0) {
    return "unknown";
  }
  return days == 0 ? "today" : days == 1 ? "1 day ago" : fmt::format("{} days ago", days);
}

std::string timeText(int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts{};
  gmtime_r(&time, &parts);
  char text[32];
  const size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
  return {text, length};
}

const char* stateName(EntryState state) {
  switch (state) {
    case EntryState::Current:
      return "current";
    case EntryState::OtherVersion:
      return "other version";
    case EntryState::SourceChanged:
      return "source changed";
    case EntryState::SourceGone:
      return "source gone";
    case EntryState::Damaged:
      break;
  }
  return "damaged";
}

// The cache of the user, or none, which has been told.
std::optional<ConversionCache> userCache() {
  const std::optional<std::string> folder = ConversionCache::defaultFolder();
  if (!folder) {
    complain("there is no cache: neither XDG_CACHE_HOME nor HOME is set to an absolute path");
    return std::nullopt;
  }
  return ConversionCache(*folder);
}

nlohmann::ordered_json entryJson(const CacheEntry& entry) {
  using Json = nlohmann::ordered_json;
  const bool known = entry.state != EntryState::Damaged;
  return {{"container", entry.container},
          {"source", known ? Json(entry.source) : Json(nullptr)},
          {"state", stateName(entry.state)},
          {"bytes", entry.bytes},
          {"converted", known ? Json(timeText(entry.convertedAt)) : Json(nullptr)},
          {"lastUsed", timeText(entry.lastUsedAt)}};
}

void printJson(const ConversionCache& cache, const std::vector<CacheEntry>& entries) {
  using Json = nlohmann::ordered_json;
  Json all = {{"folder", cache.path()}, {"entries", Json::array()}};
  for (const CacheEntry& entry : entries) {
    all["entries"].push_back(entryJson(entry));
  }
  fmt::print("{}\n", all.dump(2, ' ', false, Json::error_handler_t::replace));
}

// Names are other people's: on a terminal nothing in them takes effect.
std::string shown(const std::string& path) {
  return withoutControls(replaceInvalid(path));
}

std::string sourceText(const CacheEntry& entry) {
  switch (entry.state) {
    case EntryState::Current:
      return shown(entry.source);
    case EntryState::Damaged:
      return fmt::format("(damaged: {})", shown(entry.container));
    case EntryState::OtherVersion:
    case EntryState::SourceChanged:
    case EntryState::SourceGone:
      break;
  }
  return fmt::format("{} ({})", shown(entry.source), stateName(entry.state));
}

std::string countText(size_t count) {
  return fmt::format("{} {}", count, count == 1 ? "container" : "containers");
}

void printTable(const ConversionCache& cache, const std::vector<CacheEntry>& entries) {
  uint64_t bytes = 0;
  if (!entries.empty()) {
    fmt::print("{:>8}  {:<14} {:<14} {}\n", "size", "converted", "last use", "source");
  }
  for (const CacheEntry& entry : entries) {
    bytes += entry.bytes;
    fmt::print("{:>8}  {:<14} {:<14} {}\n", bytesText(entry.bytes), ageText(entry.convertedAt),
               ageText(entry.lastUsedAt), sourceText(entry));
  }
  fmt::print("{}: {}, {}\n", shown(cache.path()), countText(entries.size()), bytesText(bytes));
}

int list(bool json) {
  const std::optional<ConversionCache> cache = userCache();
  if (!cache) {
    return 1;
  }
  const std::vector<CacheEntry> entries = cache->list();
  if (json) {
    printJson(*cache, entries);
  } else {
    printTable(*cache, entries);
  }
  return 0;
}

bool isNamed(const CacheEntry& entry, const std::string& model) {
  return entry.source == modelPath(model) || entry.container == modelPath(model);
}

int clear(const ClearOptions& options) {
  const std::optional<ConversionCache> cache = userCache();
  if (!cache) {
    return 1;
  }
  std::vector<bool> found(options.models.size(), false);
  const auto chosen = [&](const CacheEntry& entry) {
    bool named = options.models.empty();
    for (size_t i = 0; i < options.models.size(); ++i) {
      if (isNamed(entry, options.models[i])) {
        found[i] = true;
        named = true;
      }
    }
    return named &&
           (!options.olderThanDays || daysSince(entry.lastUsedAt) >= *options.olderThanDays);
  };
  const CacheRemoval removal = cache->remove(chosen);
  fmt::print("removed {}, {}\n", countText(removal.entries), bytesText(removal.bytes));
  int status = 0;
  for (size_t i = 0; i < found.size(); ++i) {
    if (!found[i]) {
      complain(options.models[i] + ": has no container in the cache; see zym cache list");
      status = 1;
    }
  }
  if (!removal.status.ok()) {
    complain(removal.status.message);
    status = 1;
  }
  return status;
}

void addList(const Command& cache, Action& action) {
  auto json = std::make_shared<bool>(false);
  const Command command = cache.addCommand("list", "Show what is in the cache");
  command.addFlag("--json", *json, "Everything as one JSON object");
  addExamples(command, "  zym cache list");
  command.onCall([json, &action] { action = [json] { return list(*json); }; });
}

void addClear(const Command& cache, Action& action) {
  auto options = std::make_shared<ClearOptions>();
  const Command command =
      cache.addCommand("clear", "Remove containers from the cache; the models stay");
  command.addOption("MODEL", options->models, "Only those of these models (default: all)");
  command
      .addOption("--older-than", options->olderThanDays,
                 "Only those that were not used for so many days")
      .range(0, 100'000)
      .typeName("DAYS");
  addExamples(command,
              "  zym cache clear\n"
              "  zym cache clear model.gguf\n"
              "  zym cache clear --older-than 30");
  command.onCall([options, &action] { action = [options] { return clear(*options); }; });
}

}  // namespace

void addCache(const Command& program, Action& action) {
  const Command command =
      program.addGroup("cache", "Show or remove the containers made from GGUF files and folders");
  addList(command, action);
  addClear(command, action);
  addExamples(command,
              "  zym cache list\n"
              "  zym cache clear --older-than 30");
}

}  // namespace zym
