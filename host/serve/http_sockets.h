// Sockets of the server, and what they are called.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "container/status.h"

namespace zym {

// A listening socket. address: numeric, or a name of this machine. port: 0 takes a free one, and is
// that one afterwards. The caller closes fd.
kel::Status listenAt(const std::string& address, uint16_t& port, int& fd);

// The address without the port, an IPv4 address within IPv6 as IPv4; empty where it is neither.
std::string addressText(const sockaddr* address);
// That of this end of a connection.
std::string localAddress(int fd);

// Has the system end a connection whose other side has not been heard of for so long: a machine
// that is gone closes nothing.
void noticeSilence(int fd, std::chrono::milliseconds silence);

}  // namespace zym
