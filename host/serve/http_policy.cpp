#include "host/serve/http_policy.h"

#include <algorithm>
#include <cstddef>

#include "host/serve/lower_case.h"

namespace zym {
namespace {

bool isPort(std::string_view text) {
  return text.size() <= 5 &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

bool isIn(const std::vector<std::string>& all, std::string_view one) {
  return std::find(all.begin(), all.end(), one) != all.end();
}

std::string_view headerOf(const HttpRequest& request, const std::string& name) {
  const auto found = request.headers.find(name);
  return found == request.headers.end() ? std::string_view{} : found->second;
}

}  // namespace

std::string hostOf(std::string_view text) {
  const bool isBracketed = text.starts_with('[');
  const size_t end = isBracketed ? text.find(']') : text.find(':');
  if (isBracketed && end == std::string_view::npos) {
    return {};
  }
  const size_t behind = isBracketed ? end + 1 : std::min(end, text.size());
  const std::string_view port = text.substr(behind);
  if (!port.empty() && (port.front() != ':' || !isPort(port.substr(1)))) {
    return {};
  }
  return lowerCase(isBracketed ? text.substr(1, end - 1) : text.substr(0, behind));
}

bool HttpPolicy::knowsHost(std::string_view host, std::string_view reached) const {
  const std::string name = hostOf(host);
  if (name == "localhost" || name == "127.0.0.1" || name == "::1") {
    return true;
  }
  return !name.empty() &&
         (name == reached || std::any_of(hostNames.begin(), hostNames.end(),
                                         [&](const auto& own) { return lowerCase(own) == name; }));
}

bool HttpPolicy::sharesWith(std::string_view origin) const {
  return isIn(origins, origin) || isIn(origins, "*");
}

bool HttpPolicy::admitsOrigin(std::string_view origin, std::string_view host) const {
  const size_t scheme = origin.find("://");
  const bool isOwn = scheme != std::string_view::npos && !host.empty() &&
                     lowerCase(origin.substr(scheme + 3)) == lowerCase(host);
  return isOwn || sharesWith(origin);
}

bool HttpPolicy::admitsKeyOf(const HttpRequest& request) const {
  if (keys.empty()) {
    return true;
  }
  constexpr std::string_view kScheme = "bearer ";
  const std::string_view authorization = headerOf(request, "authorization");
  if (lowerCase(authorization.substr(0, kScheme.size())) == kScheme &&
      keys.contain(authorization.substr(kScheme.size()))) {
    return true;
  }
  return keys.contain(headerOf(request, "x-api-key"));
}

}  // namespace zym
