// Which callers count as one.
#include "host/serve/http_addresses.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <string>

namespace zym {
namespace {

std::string keyOf(const std::string& address) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_port = htons(static_cast<uint16_t>(address.size()));  // no part of it
  sockaddr_in6 v6{};
  v6.sin6_family = AF_INET6;
  if (inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1) {
    return HttpAddresses::keyOf(reinterpret_cast<const sockaddr*>(&v4));
  }
  EXPECT_EQ(inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr), 1) << address;
  return HttpAddresses::keyOf(reinterpret_cast<const sockaddr*>(&v6));
}

TEST(HttpAddresses, NetworkOfOneCallerIsOneAddress) {
  EXPECT_EQ(keyOf("2001:db8:1:2::1"), keyOf("2001:db8:1:2:ffff:1:2:3"));
  EXPECT_NE(keyOf("2001:db8:1:2::1"), keyOf("2001:db8:1:3::1"));
  EXPECT_NE(keyOf("192.0.2.1"), keyOf("192.0.2.2"));
  EXPECT_NE(keyOf("::1"), keyOf("127.0.0.1"));
}

TEST(HttpAddresses, MachinesOfOneLinkAreSeveral) {
  EXPECT_NE(keyOf("fe80::1"), keyOf("fe80::2"));
}

TEST(HttpAddresses, Ipv4WithinIpv6IsTheSameAddress) {
  EXPECT_EQ(keyOf("::ffff:192.0.2.1"), keyOf("192.0.2.1"));
  EXPECT_NE(keyOf("::ffff:192.0.2.1"), keyOf("::ffff:192.0.2.2"));
}

TEST(HttpAddresses, CountsThoseThatHaveNotLeft) {
  HttpAddresses addresses;
  addresses.enter("a");
  addresses.enter("a");
  addresses.enter("b");
  EXPECT_EQ(addresses.countOf("a"), 2u);
  addresses.leave("a");
  addresses.leave("b");
  EXPECT_EQ(addresses.countOf("a"), 1u);
  EXPECT_EQ(addresses.countOf("b"), 0u);
}

}  // namespace
}  // namespace zym
