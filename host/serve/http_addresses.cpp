#include "host/serve/http_addresses.h"

#include <netinet/in.h>

namespace zym {
namespace {

std::string bytesOf(const void* from, size_t count) {
  return {static_cast<const char*>(from), count};
}

}  // namespace

std::string HttpAddresses::keyOf(const sockaddr* address) {
  if (address == nullptr) {
    return {};
  }
  if (address->sa_family == AF_INET) {
    const in_addr& ip = reinterpret_cast<const sockaddr_in*>(address)->sin_addr;
    return bytesOf(&ip, sizeof(ip));
  }
  if (address->sa_family != AF_INET6) {
    return {};
  }
  const in6_addr& ip = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
  constexpr size_t kBytesBeforeIpv4 = 12;
  if (IN6_IS_ADDR_V4MAPPED(&ip)) {
    return bytesOf(ip.s6_addr + kBytesBeforeIpv4, sizeof(in_addr));
  }
  return bytesOf(ip.s6_addr, IN6_IS_ADDR_LINKLOCAL(&ip) ? sizeof(ip) : sizeof(ip) / 2);
}

size_t HttpAddresses::countOf(const std::string& key) const {
  const auto found = counts.find(key);
  return found == counts.end() ? 0 : found->second;
}

void HttpAddresses::leave(const std::string& key) {
  const auto found = counts.find(key);
  if (found != counts.end() && --found->second == 0) {
    counts.erase(found);
  }
}

}  // namespace zym
