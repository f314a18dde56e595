#include "host/serve/http_sockets.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

namespace zym {
namespace {

void setOption(int fd, int level, int name, int value) {
  // An option that the system refuses leaves its default, with which the server works, too.
  (void)setsockopt(fd, level, name, &value, sizeof(value));
}

kel::Status listenAt(const addrinfo& at, int& fd) {
  fd = socket(at.ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    return kel::Status::ioError(std::strerror(errno));
  }
  setOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
  if (at.ai_family == AF_INET6) {
    setOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0);
  }
  if (bind(fd, at.ai_addr, at.ai_addrlen) == 0 && listen(fd, SOMAXCONN) == 0) {
    return kel::Status::success();
  }
  const int reason = errno;
  close(fd);
  fd = -1;
  return kel::Status::ioError(std::strerror(reason));
}

}  // namespace

kel::Status listenAt(const std::string& address, uint16_t& port, int& fd) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  const int fault = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (fault != 0) {
    return kel::Status::ioError("http: no address " + address + ": " + gai_strerror(fault));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> all(found, freeaddrinfo);
  if (const kel::Status status = listenAt(*found, fd); !status.ok()) {
    return kel::Status::ioError("http: cannot listen at " + address + " port " +
                                std::to_string(port) + ": " + status.message);
  }
  sockaddr_storage bound{};
  socklen_t size = sizeof(bound);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &size) == 0) {
    port =
        ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port
                                          : reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
  }
  return kel::Status::success();
}

std::string addressText(const sockaddr* address) {
  if (address == nullptr || (address->sa_family != AF_INET && address->sa_family != AF_INET6)) {
    return {};
  }
  std::array<char, NI_MAXHOST> text{};
  const socklen_t size =
      address->sa_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
  if (getnameinfo(address, size, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) != 0) {
    return {};
  }
  constexpr const char* kWithin = "::ffff:";
  std::string plain = text.data();
  return plain.starts_with(kWithin) && plain.find('.') != std::string::npos
             ? plain.substr(std::strlen(kWithin))
             : plain;
}

std::string localAddress(int fd) {
  sockaddr_storage own{};
  socklen_t size = sizeof(own);
  auto* plain = reinterpret_cast<sockaddr*>(&own);
  return getsockname(fd, plain, &size) == 0 ? addressText(plain) : std::string();
}

void noticeSilence(int fd, std::chrono::milliseconds silence) {
  const int seconds = std::max(3, static_cast<int>(silence.count() / 1000));
  setOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  setOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, seconds);
  setOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, std::max(1, seconds / 3));
  setOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
}

}  // namespace zym
