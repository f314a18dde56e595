#include "host/serve/http_reading.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <utility>

#include "host/serve/lower_case.h"

namespace zym {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const int letter = (c | 0x20) - 'a';
  return letter >= 0 && letter < 6 ? 10 + letter : -1;
}

// False where a % is not followed by two digits, or stands for a zero byte; and for what a line of
// HTTP cannot hold but as such.
bool decodePath(std::string_view raw, std::string& path) {
  for (size_t i = 0; i < raw.size(); ++i) {
    if (const auto byte = static_cast<unsigned char>(raw[i]); byte <= 0x20 || byte == 0x7f) {
      return false;
    }
    if (raw[i] != '%') {
      path += raw[i];
      continue;
    }
    const int high = i + 2 < raw.size() ? hexDigit(raw[i + 1]) : -1;
    const int low = high >= 0 ? hexDigit(raw[i + 2]) : -1;
    if (low < 0 || (high == 0 && low == 0)) {
      return false;
    }
    path += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return true;
}

// UINT64_MAX where text is no number, as with one that is too large.
uint64_t lengthOf(std::string_view text) {
  uint64_t length = 0;
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), length);
  const bool isNumber = fault == std::errc() && end == text.data() + text.size();
  return isNumber ? length : std::numeric_limits<uint64_t>::max();
}

// Of the names of headers, as a browser lists them; anything else is not repeated to it.
bool isNameList(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == ',' || c == ' ';
  });
}

// A token of HTTP.
bool isHeaderName(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return c > ' ' && c < 0x7f &&
           std::string_view("\"(),/:;<=>?@[\\]{}").find(c) == std::string::npos;
  });
}

bool isHeaderValue(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && byte != '\t') || byte == 0x7f;
  });
}

HttpRefusal tooLarge(size_t limit) {
  return {413,
          RefusalReason::BodyTooLarge,
          "the body of a request has at most " + std::to_string(limit) + " bytes",
          {}};
}

}  // namespace

bool HttpBodyRoom::take(size_t bytes) {
  if (used.fetch_add(bytes) + bytes <= mostBytes) {
    return true;
  }
  used -= bytes;
  return false;
}

bool HttpBodyShare::take(size_t more) {
  if (!room->take(more)) {
    return false;
  }
  bytes += more;
  return true;
}

void HttpBodyShare::giveBack() {
  room->giveBack(std::exchange(bytes, 0));
}

HttpReading::HttpReading(const HttpService& served, HttpHead head,
                         std::shared_ptr<HttpBodyRoom> room)
    : service(served), share(std::make_shared<HttpBodyShare>(std::move(room))) {
  asked.method = head.method;
  asked.address = head.address;
  collect(head);
  refused = faultOf(head);
}

void HttpReading::refuse(HttpRefusal reason) {
  refused = std::move(reason);
  asked.body = {};
  share->giveBack();
}

void HttpReading::collect(const HttpHead& head) {
  for (const auto& [name, value] : head.headers) {
    const std::string key = lowerCase(name);
    const auto [place, isNew] = asked.headers.emplace(key, value);
    if (!isNew) {
      place->second += ", " + value;
      repeatedLengths += key == "content-length" ? 1 : 0;
      repeatedHosts += key == "host" ? 1 : 0;
    }
  }
}

std::string_view HttpReading::header(const std::string& name) const {
  const auto found = asked.headers.find(name);
  return found == asked.headers.end() ? std::string_view{} : found->second;
}

HttpRefusal HttpReading::faultOf(const HttpHead& head) {
  // First: behind a request whose end is in doubt no other one is read, whatever else is wrong.
  if (HttpRefusal fault = faultOfFraming(head); fault.isRefused()) {
    return fault;
  }
  size_t bytes = head.method.size() + head.rawPath.size();
  for (const auto& [name, value] : head.headers) {
    bytes += name.size() + value.size() + 4;
  }
  if (!decodePath(head.rawPath, asked.path)) {
    asked.path = head.rawPath;
    return {400,
            RefusalReason::InvalidPath,
            "the path has a blank, or a % that stands for no character",
            {}};
  }
  if (bytes > service.limits.headerBytes) {
    return {431,
            RefusalReason::HeadTooLarge,
            "the head of a request has at most " + std::to_string(service.limits.headerBytes) +
                " bytes",
            {}};
  }
  match = service.routes.find(asked.method, asked.path);
  // With refusals, too: without them a browser keeps from its page what went wrong.
  const std::string_view origin = header("origin");
  if (!origin.empty() && service.policy.sharesWith(origin)) {
    shared = {{"Access-Control-Allow-Origin", std::string(origin)},
              {"Access-Control-Expose-Headers", "retry-after, x-request-id"},
              {"Vary", "Origin"}};
  }
  if (HttpRefusal fault = faultOfCaller(head); fault.isRefused()) {
    return fault;
  }
  if (HttpRefusal fault = faultOfTarget(); fault.isRefused()) {
    return fault;
  }
  return faultOfLength();
}

HttpRefusal HttpReading::faultOfCaller(const HttpHead& head) const {
  const bool hasHost = asked.headers.contains("host");
  if (repeatedHosts > 0 || (!hasHost && head.version != "HTTP/1.0")) {
    return {400, RefusalReason::InvalidHost, "a request has one Host header", {}};
  }
  if (hasHost && !service.policy.knowsHost(header("host"), head.reached)) {
    return {403,
            RefusalReason::InvalidHost,
            "this server is not called " + std::string(header("host")) +
                "; --host-name gives it a name",
            {}};
  }
  const std::string_view origin = header("origin");
  const bool onlyReads =
      asked.method == "GET" || asked.method == "HEAD" || asked.method == "OPTIONS";
  if (!origin.empty() && !onlyReads && !service.policy.admitsOrigin(origin, header("host"))) {
    return {403,
            RefusalReason::InvalidOrigin,
            "pages of " + std::string(origin) + " may not ask this server; --cors lets them",
            {}};
  }
  const bool isOpen = match.handler != nullptr && match.access == RouteAccess::Open;
  // Browsers ask for leave without the headers that they ask leave for.
  if (!isOpen && asked.method != "OPTIONS" && !service.policy.admitsKeyOf(asked)) {
    return {401,
            RefusalReason::InvalidKey,
            "no such API key; send one as \"Authorization: Bearer KEY\" or \"x-api-key: KEY\"",
            {{"WWW-Authenticate", "Bearer"}}};
  }
  return {};
}

HttpRefusal HttpReading::faultOfTarget() const {
  if (asked.method == "OPTIONS" && match.handler == nullptr) {
    HttpHeaders headers;
    if (!match.allowed.empty()) {
      headers.emplace_back("Allow", match.allowed);
    }
    if (asked.headers.contains("access-control-request-method") && !shared.empty()) {
      const std::string_view wanted = header("access-control-request-headers");
      headers.emplace_back("Access-Control-Allow-Methods", "GET, HEAD, POST, OPTIONS");
      headers.emplace_back("Access-Control-Allow-Headers", !wanted.empty() && isNameList(wanted)
                                                               ? wanted
                                                               : "authorization, content-type");
      headers.emplace_back("Access-Control-Max-Age", "600");
    }
    return {204, std::nullopt, "", std::move(headers)};
  }
  if (match.allowed.empty()) {
    return {404, RefusalReason::NotFound, "there is nothing at " + asked.path, {}};
  }
  if (match.handler == nullptr) {
    return {405,
            RefusalReason::MethodNotAllowed,
            asked.path + " takes " + match.allowed,
            {{"Allow", match.allowed}}};
  }
  return {};
}

// Where a server in front of this one could see another body than this one does, or another header,
// one request could be hidden in another.
HttpRefusal HttpReading::faultOfFraming(const HttpHead& head) const {
  const HttpHeaders last = {{"Connection", "close"}};
  for (const auto& [name, value] : head.headers) {
    if (!isHeaderName(name) || !isHeaderValue(value)) {
      return {400, RefusalReason::InvalidHeader, "a header has characters that none has", last};
    }
  }
  const bool isChunked = asked.headers.contains("transfer-encoding");
  const bool hasLength = asked.headers.contains("content-length");
  if (repeatedLengths > 0 || (isChunked && hasLength)) {
    return {400, RefusalReason::InvalidLength,
            "the length of the body is told in more than one way", last};
  }
  if (isChunked &&
      (head.version == "HTTP/1.0" || lowerCase(header("transfer-encoding")) != "chunked")) {
    return {400, RefusalReason::InvalidLength,
            "a body comes with its length or, from HTTP/1.1 on, in chunks", last};
  }
  return {};
}

HttpRefusal HttpReading::faultOfLength() const {
  if (asked.headers.contains("content-length") &&
      lengthOf(header("content-length")) > service.limits.bodyBytes) {
    return tooLarge(service.limits.bodyBytes);
  }
  return {};
}

bool HttpReading::refusesAtOnce() const {
  if (!refused.isRefused()) {
    return false;
  }
  const bool isAskedFirst = asked.headers.contains("expect");
  return isAskedFirst || refused.reason == RefusalReason::InvalidLength ||
         refused.reason == RefusalReason::InvalidHeader ||
         (asked.headers.contains("content-length") &&
          lengthOf(header("content-length")) > mostDropped());
}

bool HttpReading::take(std::string_view piece) {
  if (!refused.isRefused()) {
    if (asked.body.size() + piece.size() > service.limits.bodyBytes) {
      refuse(tooLarge(service.limits.bodyBytes));
    } else if (!share->take(piece.size())) {
      refuse({503,
              RefusalReason::Overloaded,
              "the bodies of other requests take all the room; try again",
              {{"Retry-After", "1"}}});
    } else {
      asked.body += piece;
      return true;
    }
  }
  dropped += piece.size();
  return dropped <= mostDropped();
}

}  // namespace zym
