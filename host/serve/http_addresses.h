// Connections that each address has, by the thread that polls them.
//
// A caller by IPv6 has a whole network of addresses to itself: all of a /64 count as one, but for
// those of one link, which are of different machines.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <map>
#include <string>

namespace zym {

class HttpAddresses {
 public:
  // What is counted as one address; bytes. IPv4 within IPv6 is IPv4.
  static std::string keyOf(const sockaddr* address);

  size_t countOf(const std::string& key) const;
  void enter(const std::string& key) { ++counts[key]; }
  void leave(const std::string& key);

 private:
  std::map<std::string, size_t> counts;  // none of them 0
};

}  // namespace zym
