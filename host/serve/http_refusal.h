// What the transport itself answers a request that no handler gets to see, and the counts of that
// and of all answers.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "host/serve/http_exchange.h"

namespace zym {

enum class RefusalReason : uint8_t {
  InvalidHeader,
  InvalidPath,
  InvalidHost,
  InvalidOrigin,
  InvalidLength,
  InvalidKey,
  NotFound,
  MethodNotAllowed,
  BodyTooLarge,
  HeadTooLarge,
  TooSlow,
  Overloaded,
  ShuttingDown,
  Failed,          // by an exception of its handler
  Malformed,       // no HTTP, or a head beyond all limits: the library's own answer, or none
  AddressTooBusy,  // a connection that is closed, whatever would have been asked
  Count
};

constexpr size_t kRefusalReasons = static_cast<size_t>(RefusalReason::Count);

// For programs: "invalid_host".
std::string_view codeOf(RefusalReason reason);

struct HttpRefusal {
  int status = 0;                       // 0: not refused
  std::optional<RefusalReason> reason;  // none: an answer of the transport that refuses nothing
  std::string message;
  HttpHeaders headers;

  bool isRefused() const { return status != 0; }
};

// Of one that has a reason, in the form of the interface at path. Bytes that are no UTF-8 are
// replaced.
std::string refusalBody(const HttpRefusal& refusal, std::string_view path);

// By reason.
using RefusalNumbers = std::array<uint64_t, kRefusalReasons>;

// By status.
using AnswerNumbers = std::map<int, uint64_t>;

// Any thread.
class AnswerCounts {
 public:
  // A status of HTTP.
  void add(int status) { ++counts[static_cast<size_t>(status) % counts.size()]; }
  AnswerNumbers numbers() const;

 private:
  std::array<std::atomic<uint64_t>, 600> counts{};
};

// Any thread.
class RefusalCounts {
 public:
  void add(RefusalReason reason) { ++counts[static_cast<size_t>(reason)]; }
  RefusalNumbers numbers() const;

 private:
  std::array<std::atomic<uint64_t>, kRefusalReasons> counts{};
};

}  // namespace zym
