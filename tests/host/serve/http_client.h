// A caller that writes what bytes it likes, and reads answers.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace zym::testing_support {

struct HttpAnswer {
  int status = 0;  // 0: the connection ended, or nothing came for seconds
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;
  bool isWhole = false;
};

// A connection in the clear. Waits far longer than anything should take, and fails then.
class HttpClient {
 public:
  explicit HttpClient(uint16_t port, int receiveBytes = 0, in_addr_t address = INADDR_LOOPBACK)
      : fd(socket(AF_INET, SOCK_STREAM, 0)) {
    if (receiveBytes > 0) {
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBytes, sizeof(receiveBytes));
    }
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(address);
    isConnected = connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0;
  }
  HttpClient(HttpClient&& other) noexcept
      : isConnected(other.isConnected), fd(std::exchange(other.fd, -1)) {}
  HttpClient& operator=(HttpClient&&) = delete;
  ~HttpClient() { close(); }

  void close() {
    if (fd >= 0) {
      ::close(std::exchange(fd, -1));
    }
  }
  // As a program that is killed in the middle: what it has not read is refused.
  void reset() {
    const linger hard{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    close();
  }

  // Says that nothing more will be sent, and goes on reading.
  void endSending() const { shutdown(fd, SHUT_WR); }

  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t count = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count <= 0) {
        return false;
      }
      bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
  }
  // A whole request, with a Host header.
  bool ask(std::string_view method, std::string_view path, std::string_view headers = "",
           std::string_view body = "") const {
    std::string text = std::string(method) + " " + std::string(path) +
                       " HTTP/1.1\r\nHost: localhost\r\n" + std::string(headers);
    if (!body.empty()) {
      text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return send(text + "\r\n" + std::string(body));
  }

  // Reads until text has come; false where the connection ends before.
  bool readUntil(std::string_view text) {
    while (received.find(text) == std::string::npos) {
      if (!readMore()) {
        return false;
      }
    }
    return true;
  }
  // Takes what has been read so far.
  std::string take() { return std::exchange(received, {}); }
  // Whether the other side closes, after whatever it still sends.
  bool isClosed() {
    while (readMore()) {
    }
    return hasEnded;
  }
  // isHead: an answer to HEAD, which has no body.
  HttpAnswer read(bool isHead = false);

 private:
  bool readMore() {
    pollfd wait{fd, POLLIN, 0};
    if (poll(&wait, 1, 20000) <= 0) {
      return false;
    }
    char buffer[16384];
    const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
    hasEnded = count <= 0;
    if (count > 0) {
      received.append(buffer, static_cast<size_t>(count));
    }
    return count > 0;
  }
  bool readBytes(size_t count) {
    while (received.size() < count) {
      if (!readMore()) {
        return false;
      }
    }
    return true;
  }
  void readChunks(HttpAnswer& answer);

 public:
  bool isConnected = false;

 private:
  int fd;
  bool hasEnded = false;
  std::string received;
};

inline void HttpClient::readChunks(HttpAnswer& answer) {
  while (readUntil("\r\n")) {
    const size_t size = std::stoul(received, nullptr, 16);
    received.erase(0, received.find("\r\n") + 2);
    if (!readBytes(size + 2)) {
      return;
    }
    answer.body += received.substr(0, size);
    received.erase(0, size + 2);
    if (size == 0) {
      answer.isWhole = true;
      return;
    }
  }
}

inline HttpAnswer HttpClient::read(bool isHead) {
  HttpAnswer answer;
  if (!readUntil("\r\n\r\n")) {
    return answer;
  }
  const size_t end = received.find("\r\n\r\n");
  const std::string head = received.substr(0, end + 2);
  received.erase(0, end + 4);
  answer.status = std::stoi(head.substr(head.find(' ')));
  for (size_t at = head.find("\r\n") + 2; at < head.size(); at = head.find("\r\n", at) + 2) {
    const std::string line = head.substr(at, head.find("\r\n", at) - at);
    std::string name = line.substr(0, line.find(':'));
    for (char& c : name) {
      c = static_cast<char>(tolower(c));
    }
    answer.headers[name] = line.substr(line.find(": ") + 2);
  }
  if (answer.headers.contains("transfer-encoding")) {
    readChunks(answer);
  } else {
    const auto length = answer.headers.find("content-length");
    const bool hasBody = !isHead && length != answer.headers.end();
    const size_t count = hasBody ? std::stoul(length->second) : 0;
    answer.isWhole = readBytes(count);
    answer.body = received.substr(0, count);
    received.erase(0, answer.body.size());
  }
  return answer;
}

}  // namespace zym::testing_support
