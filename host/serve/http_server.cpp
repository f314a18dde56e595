#include "host/serve/http_server.h"

#include <fmt/core.h>
#include <microhttpd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>
#include <vector>

#include "host/serve/api_error.h"
#include "host/serve/http_addresses.h"
#include "host/serve/http_certificate.h"
#include "host/serve/http_channel.h"
#include "host/serve/http_sockets.h"
#include "host/serve/http_watch.h"
#include "host/serve/http_worker.h"
#include "host/serve/log_line.h"

namespace zym {
namespace {

using std::chrono::milliseconds;
using Clock = HttpChannel::Clock;

constexpr const char* kJson = "application/json";
constexpr size_t kBlockBytes = 32 << 10;     // of an answer, given to the library at a time
constexpr size_t kProgressBytes = 64 << 10;  // of a body, for which the read time-out holds

// The application's end of a channel.
class Exchange final : public HttpExchange {
 public:
  explicit Exchange(std::shared_ptr<HttpChannel> to) : channel(std::move(to)) {}
  ~Exchange() override { channel->letGo(); }
  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  const HttpRequest& request() const override { return channel->request(); }
  void answer(int status, std::string_view contentType, std::string body,
              const HttpHeaders& headers) override {
    channel->answer({status, std::string(contentType), headers, {}}, std::move(body));
  }
  void begin(int status, std::string_view contentType, const HttpHeaders& headers) override {
    channel->begin({status, std::string(contentType), headers, {}});
  }
  void write(std::string_view piece) override { channel->write(piece); }
  void end() override { channel->end(); }
  const volatile int* gone() const override { return channel->gone(); }

 private:
  std::shared_ptr<HttpChannel> channel;
};

// A connection, by the polling thread alone.
struct Connection {
  uint64_t id = 0;
  int fd = -1;
  std::string address;
  std::string reached;
  std::string addressKey;  // in HttpAddresses
  bool isUsed = false;     // a request of it has been read
  // Of the request at work.
  Clock::time_point begunAt = Clock::now();
  bool isBegun = false;                // its first line is there
  std::optional<HttpReading> reading;  // from the end of its head to that of its body
  std::shared_ptr<HttpChannel> channel;
  HttpHeaders answerHeaders;
  std::string method;
  std::string path;
  std::string_view lateAnswer;
  int status = 0;
  bool isWhole = true;      // all of the answer was sent
  uint64_t bodyBytes = 0;   // of the answer, where it is no channel's
  size_t unprogressed = 0;  // bytes of the body since the time-out began anew
};

MHD_Result collectHeader(void* to, MHD_ValueKind /*kind*/, const char* name, const char* value) {
  static_cast<HttpHeaders*>(to)->emplace_back(name, value != nullptr ? value : "");
  return MHD_YES;
}

// Leaves the path as it was sent: an escaped zero would end it.
size_t leaveEscapes(void* /*unused*/, MHD_Connection* /*connection*/, char* text) {
  return std::char_traits<char>::length(text);
}

ssize_t pullAnswer(void* from, uint64_t /*at*/, char* to, size_t most) {
  return (*static_cast<std::shared_ptr<HttpChannel>*>(from))->pull(to, most);
}

void forgetAnswer(void* from) {
  delete static_cast<std::shared_ptr<HttpChannel>*>(from);
}

// As bytes: what the library has begun to read it answers with nothing.
std::string lateAnswerAt(std::string_view path) {
  const std::string body =
      refusalBody({408, RefusalReason::TooSlow, "the request took too long to come in", {}}, path);
  return fmt::format(
      "HTTP/1.1 408 Request Timeout\r\nConnection: close\r\nContent-Type: {}\r\n"
      "Content-Length: {}\r\n\r\n{}",
      kJson, body.size(), body);
}

HttpRefusal stoppingRefusal() {
  return {503, RefusalReason::ShuttingDown, "the server is shutting down", {{"Retry-After", "10"}}};
}

}  // namespace

class HttpServer::State {
 public:
  kel::Status start(HttpServerOptions wanted, HttpService served);
  void stop(milliseconds grace);
  uint16_t port() const { return options.port; }
  std::string url() const;
  size_t connectionCount() const { return watch.connectionCount(); }
  RefusalNumbers refusals() const { return refused.numbers(); }
  AnswerNumbers answers() const { return answered.numbers(); }

 private:
  kel::Status startDaemon();

  // Callbacks of the library, on its thread.
  static MHD_Result admit(void* self, const sockaddr* address, socklen_t size);
  static void noticeConnection(void* self, MHD_Connection* polled, void** context,
                               MHD_ConnectionNotificationCode what);
  static void* noticeTarget(void* self, const char* target, MHD_Connection* polled);
  static MHD_Result handle(void* self, MHD_Connection* polled, const char* path, const char* method,
                           const char* version, const char* data, size_t* size, void** context);
  static void noticeEnd(void* self, MHD_Connection* polled, void** context,
                        MHD_RequestTerminationCode how);
  static Connection& contextOf(MHD_Connection* polled);

  void* open(MHD_Connection* polled);
  void close(const Connection& connection);
  MHD_Result readHead(MHD_Connection* polled, Connection& connection, HttpHead head);
  MHD_Result readBody(Connection& connection, std::string_view piece);
  MHD_Result dispatch(MHD_Connection* polled, Connection& connection);
  void callHandler(const HttpHandler& handler, const std::shared_ptr<HttpChannel>& channel);
  MHD_Result goOn(MHD_Connection* polled, Connection& connection);
  MHD_Result refuse(MHD_Connection* polled, Connection& connection);
  MHD_Result queue(MHD_Connection* polled, Connection& connection, MHD_Response* response,
                   int status, const std::string& contentType, const HttpHeaders& headers);
  void finish(Connection& connection, bool isAnswered);
  std::optional<RefusalReason> unansweredFor(const Connection& connection) const;
  void logRequest(const Connection& connection, std::optional<RefusalReason> reason) const;
  // Whatever a caller has put into it.
  void logLine(std::string_view line) const {
    if (options.log) {
      options.log(onOneLine(line));
    }
  }

  HttpServerOptions options;
  HttpService service;
  HttpCertificate certificate;
  std::shared_ptr<HttpBodyRoom> room;
  std::string lateAnswer;
  std::string lateMessagesAnswer;
  HttpAddresses addresses;
  RefusalCounts refused;
  AnswerCounts answered;
  HttpWatch watch;
  HttpWorker worker;
  MHD_Daemon* daemon = nullptr;
  int listening = -1;
  std::atomic<bool> isStopping = false;
  std::atomic<bool> isForced = false;  // no connection is suspended any more
};

kel::Status HttpServer::State::start(HttpServerOptions wanted, HttpService served) {
  options = std::move(wanted);
  service = std::move(served);
  room = std::make_shared<HttpBodyRoom>(service.limits.bodiesBytes);
  if (!options.certFile.empty() || !options.keyFile.empty()) {
    kel::Status status = HttpCertificate::read(options.certFile, options.keyFile, certificate);
    if (!status.ok()) {
      return status;
    }
  }
  if (kel::Status status = listenAt(options.address, options.port, listening); !status.ok()) {
    return status;
  }
  const HttpLimits& limits = service.limits;
  const milliseconds tick =
      std::clamp(std::min({limits.readTimeout, limits.writeTimeout, limits.idleTimeout}) / 4,
                 milliseconds(10), milliseconds(250));
  // Bytes in the clear would mean nothing within TLS.
  if (certificate.chain.empty()) {
    lateAnswer = lateAnswerAt("");
    lateMessagesAnswer = lateAnswerAt("/v1/messages");
  }
  kel::Status status = watch.start(tick, limits.writeTimeout);
  if (status.ok()) {
    status = startDaemon();
  }
  if (!status.ok()) {
    ::close(std::exchange(listening, -1));
  }
  return status;
}

kel::Status HttpServer::State::startDaemon() {
  const HttpLimits& limits = service.limits;
  // The times are kept by the watch; the library's own is for what it does not see.
  const auto backstop = static_cast<unsigned>(
      60 + std::max({limits.readTimeout, limits.writeTimeout, limits.idleTimeout}).count() / 1000);
  std::vector<MHD_OptionItem> items = {
      {MHD_OPTION_LISTEN_SOCKET, listening, nullptr},
      {MHD_OPTION_CONNECTION_LIMIT, limits.connections, nullptr},
      {MHD_OPTION_CONNECTION_MEMORY_LIMIT, static_cast<intptr_t>(4 * limits.headerBytes), nullptr},
      {MHD_OPTION_CONNECTION_TIMEOUT, backstop, nullptr},
      // The library would answer a request without a Host header, and that twice.
      {MHD_OPTION_STRICT_FOR_CLIENT, 0, nullptr},
      {MHD_OPTION_UNESCAPE_CALLBACK, reinterpret_cast<intptr_t>(leaveEscapes), nullptr},
      {MHD_OPTION_URI_LOG_CALLBACK, reinterpret_cast<intptr_t>(noticeTarget), this},
      {MHD_OPTION_NOTIFY_CONNECTION, reinterpret_cast<intptr_t>(noticeConnection), this},
      {MHD_OPTION_NOTIFY_COMPLETED, reinterpret_cast<intptr_t>(noticeEnd), this},
  };
  unsigned flags = MHD_USE_EPOLL_INTERNAL_THREAD | MHD_ALLOW_SUSPEND_RESUME;
  if (!certificate.chain.empty()) {
    flags |= MHD_USE_TLS;
    items.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, certificate.chain.data()});
    items.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, certificate.key.data()});
  }
  items.push_back({MHD_OPTION_END, 0, nullptr});
  daemon = MHD_start_daemon(flags, 0, admit, this, handle, this, MHD_OPTION_ARRAY, items.data(),
                            MHD_OPTION_END);
  return daemon != nullptr ? kel::Status::success()
                           : kel::Status::ioError("http: the server cannot be started");
}

std::string HttpServer::State::url() const {
  const bool isAll = options.address == "0.0.0.0" || options.address == "::";
  std::string host = isAll ? "localhost" : options.address;
  host = host.find(':') != std::string::npos ? "[" + host + "]" : host;
  return fmt::format("{}://{}:{}", certificate.chain.empty() ? "http" : "https", host,
                     options.port);
}

void HttpServer::State::stop(milliseconds grace) {
  if (daemon == nullptr) {
    return;
  }
  const Clock::time_point until = Clock::now() + grace;
  isStopping = true;
  // The polling thread may still look at the socket: it is closed when that thread has ended.
  const bool isOurs = MHD_quiesce_daemon(daemon) != MHD_INVALID_SOCKET;
  shutdown(listening, SHUT_RDWR);
  watch.waitForRequests(until);
  // Requests that are attended to after this see the flag, the others are in the list.
  isForced = true;
  watch.cutRequests();
  MHD_stop_daemon(std::exchange(daemon, nullptr));
  worker.stop();
  if (isOurs) {
    ::close(listening);
  }
  listening = -1;
  watch.stop();
}

Connection& HttpServer::State::contextOf(MHD_Connection* polled) {
  return *static_cast<Connection*>(
      MHD_get_connection_info(polled, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
}

void HttpServer::State::noticeConnection(void* self, MHD_Connection* polled, void** context,
                                         MHD_ConnectionNotificationCode what) {
  auto& state = *static_cast<State*>(self);
  if (what == MHD_CONNECTION_NOTIFY_STARTED) {
    *context = state.open(polled);
    return;
  }
  const std::unique_ptr<Connection> connection(static_cast<Connection*>(*context));
  state.close(*connection);
}

MHD_Result HttpServer::State::admit(void* self, const sockaddr* address, socklen_t /*size*/) {
  auto& state = *static_cast<State*>(self);
  const size_t most = state.service.limits.perAddressConnections;
  if (state.addresses.countOf(HttpAddresses::keyOf(address)) < most) {
    return MHD_YES;
  }
  state.refused.add(RefusalReason::AddressTooBusy);
  return MHD_NO;
}

void* HttpServer::State::open(MHD_Connection* polled) {
  auto* connection = new Connection;
  connection->fd = MHD_get_connection_info(polled, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  const sockaddr* address =
      MHD_get_connection_info(polled, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr;
  connection->address = addressText(address);
  connection->addressKey = HttpAddresses::keyOf(address);
  addresses.enter(connection->addressKey);
  connection->reached = localAddress(connection->fd);
  noticeSilence(connection->fd, service.limits.writeTimeout);
  connection->id = watch.add(connection->fd, Clock::now() + service.limits.readTimeout);
  return connection;
}

void HttpServer::State::close(const Connection& connection) {
  if (const auto reason = unansweredFor(connection); reason.has_value()) {
    refused.add(*reason);
    logRequest(connection, reason);
  }
  watch.remove(connection.id);
  addresses.leave(connection.addressKey);
}

// Why a connection ends with a request of which no handler has heard.
std::optional<RefusalReason> HttpServer::State::unansweredFor(const Connection& connection) const {
  if (isForced || (connection.isUsed && !connection.isBegun)) {
    return std::nullopt;
  }
  if (watch.isLate(connection.id)) {
    return connection.isBegun ? std::optional(RefusalReason::TooSlow) : std::nullopt;
  }
  if (connection.reading.has_value() && connection.reading->refusal().reason.has_value()) {
    return connection.reading->refusal().reason;
  }
  // Callers that go away in the middle, or without a word, are no fault of anybody's.
  char next = 0;
  const ssize_t left = recv(connection.fd, &next, 1, MSG_PEEK | MSG_DONTWAIT);
  const bool isOpen = left > 0 || (left < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
  return isOpen ? std::optional(RefusalReason::Malformed) : std::nullopt;
}

void* HttpServer::State::noticeTarget(void* self, const char* target, MHD_Connection* polled) {
  auto& state = *static_cast<State*>(self);
  Connection& connection = contextOf(polled);
  connection.begunAt = Clock::now();
  connection.isBegun = true;
  const std::string_view path = std::string_view(target).substr(0, std::strcspn(target, "?"));
  connection.lateAnswer =
      errorFormOf(path) == ErrorForm::Messages ? state.lateMessagesAnswer : state.lateAnswer;
  state.watch.readUntil(connection.id, connection.begunAt + state.service.limits.readTimeout,
                        connection.lateAnswer);
  return nullptr;
}

MHD_Result HttpServer::State::handle(void* self, MHD_Connection* polled, const char* path,
                                     const char* method, const char* version, const char* data,
                                     size_t* size, void** /*context*/) {
  auto& state = *static_cast<State*>(self);
  Connection& connection = contextOf(polled);
  // The library is not made to be left by an exception.
  try {
    if (connection.channel != nullptr) {
      return state.goOn(polled, connection);
    }
    if (!connection.reading.has_value()) {
      return state.readHead(polled, connection, {method, path, version, {}, {}, {}});
    }
    if (*size > 0) {
      return state.readBody(connection, {data, std::exchange(*size, 0)});
    }
    return state.dispatch(polled, connection);
  } catch (const std::exception& fault) {
    state.logLine(std::string("http: ") + fault.what());
    return MHD_NO;
  }
}

MHD_Result HttpServer::State::readHead(MHD_Connection* polled, Connection& connection,
                                       HttpHead head) {
  MHD_get_connection_values(polled, MHD_HEADER_KIND, collectHeader, &head.headers);
  head.address = connection.address;
  head.reached = connection.reached;
  HttpReading& reading = connection.reading.emplace(service, std::move(head), room);
  connection.method = reading.request().method;
  connection.path = reading.request().path;
  connection.unprogressed = 0;
  watch.readUntil(connection.id, Clock::now() + service.limits.readTimeout, connection.lateAnswer);
  return reading.refusesAtOnce() ? refuse(polled, connection) : MHD_YES;
}

MHD_Result HttpServer::State::readBody(Connection& connection, std::string_view piece) {
  connection.unprogressed += piece.size();
  if (connection.unprogressed >= kProgressBytes) {
    connection.unprogressed = 0;
    watch.readUntil(connection.id, Clock::now() + service.limits.readTimeout,
                    connection.lateAnswer);
  }
  return connection.reading->take(piece) ? MHD_YES : MHD_NO;
}

MHD_Result HttpServer::State::dispatch(MHD_Connection* polled, Connection& connection) {
  HttpReading& reading = *connection.reading;
  if (isStopping && !reading.refusal().isRefused()) {
    reading.refuse(stoppingRefusal());
  }
  if (reading.refusal().isRefused()) {
    return refuse(polled, connection);
  }
  if (options.logsBodies) {
    logLine(connection.method + " " + connection.path + " " + reading.request().body);
  }
  const HttpHandler handler = *reading.handler();
  connection.answerHeaders = reading.answerHeaders();
  std::shared_ptr<HttpBodyShare> share = reading.takeShare();
  connection.channel = std::make_shared<HttpChannel>(polled, connection.fd, reading.takeRequest(),
                                                     std::move(share), service.limits.unsentBytes);
  connection.reading.reset();
  watch.attend(connection.id, connection.channel);
  // A long body takes its time to be understood, while others' replies go on.
  if (connection.method == "GET" || connection.method == "HEAD") {
    callHandler(handler, connection.channel);
  } else {
    worker.add([this, handler, channel = connection.channel] { callHandler(handler, channel); });
  }
  return goOn(polled, connection);
}

void HttpServer::State::callHandler(const HttpHandler& handler,
                                    const std::shared_ptr<HttpChannel>& channel) {
  const auto exchange = std::make_shared<Exchange>(channel);
  try {
    handler(exchange);
  } catch (const std::exception& fault) {
    logLine(std::string("http: ") + fault.what());
    refused.add(RefusalReason::Failed);
    const HttpRefusal failure{500, RefusalReason::Failed, "the server failed at this request", {}};
    exchange->answer(500, kJson, refusalBody(failure, channel->request().path), {});
  }
}

MHD_Result HttpServer::State::goOn(MHD_Connection* polled, Connection& connection) {
  HttpChannel& channel = *connection.channel;
  if (isForced) {
    channel.callerGone();
  }
  const HttpChannel::Next next = channel.next();
  if (next != HttpChannel::Next::Answer) {
    return next == HttpChannel::Next::Wait ? MHD_YES : MHD_NO;
  }
  const HttpAnswerHead& head = channel.answerHead();
  MHD_Response* response = nullptr;
  if (head.bytes == 0) {
    response = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
  } else {
    auto* shared = new std::shared_ptr<HttpChannel>(connection.channel);
    response = MHD_create_response_from_callback(head.bytes.value_or(MHD_SIZE_UNKNOWN), kBlockBytes,
                                                 pullAnswer, shared, forgetAnswer);
    if (response == nullptr) {
      delete shared;
    }
  }
  return queue(polled, connection, response, head.status, head.contentType, head.headers);
}

MHD_Result HttpServer::State::refuse(MHD_Connection* polled, Connection& connection) {
  const HttpRefusal& refusal = connection.reading->refusal();
  connection.answerHeaders = connection.reading->answerHeaders();
  std::string body =
      refusal.reason.has_value() ? refusalBody(refusal, connection.path) : std::string();
  connection.bodyBytes = body.size();
  if (refusal.reason.has_value()) {
    refused.add(*refusal.reason);
  }
  // The answer is short, and the library's own time-out does for it.
  watch.readUntil(connection.id, Clock::time_point::max());
  MHD_Response* response =
      MHD_create_response_from_buffer(body.size(), body.data(), MHD_RESPMEM_MUST_COPY);
  return queue(polled, connection, response, refusal.status, body.empty() ? "" : kJson,
               refusal.headers);
}

MHD_Result HttpServer::State::queue(MHD_Connection* polled, Connection& connection,
                                    MHD_Response* response, int status,
                                    const std::string& contentType, const HttpHeaders& headers) {
  if (response == nullptr) {
    return MHD_NO;
  }
  const auto add = [&](const std::string& name, const std::string& value) {
    MHD_add_response_header(response, name.c_str(), value.c_str());
  };
  if (!contentType.empty()) {
    add("Content-Type", contentType);
  }
  constexpr const char* kNoSniffing = "X-Content-Type-Options";
  if (std::none_of(headers.begin(), headers.end(),
                   [](const auto& header) { return header.first == kNoSniffing; })) {
    add(kNoSniffing, "nosniff");
  }
  for (const HttpHeaders* some : {&headers, &std::as_const(connection.answerHeaders)}) {
    for (const auto& [name, value] : *some) {
      add(name, value);
    }
  }
  if (isStopping) {
    add("Connection", "close");
  }
  connection.status = status;
  answered.add(status);
  const MHD_Result result = MHD_queue_response(polled, static_cast<unsigned>(status), response);
  MHD_destroy_response(response);
  return result;
}

void HttpServer::State::noticeEnd(void* self, MHD_Connection* polled, void** /*context*/,
                                  MHD_RequestTerminationCode how) {
  static_cast<State*>(self)->finish(contextOf(polled), how == MHD_REQUEST_TERMINATED_COMPLETED_OK);
}

void HttpServer::State::finish(Connection& connection, bool isAnswered) {
  std::optional<RefusalReason> reason;
  if (connection.channel != nullptr) {
    const bool isAllTaken = connection.channel->detach();
    connection.isWhole = isAllTaken || connection.method == "HEAD";
    watch.release(connection.id);
  } else if (connection.status == 0) {
    reason = isAnswered ? RefusalReason::Malformed : unansweredFor(connection);
  }
  if (reason.has_value()) {
    refused.add(*reason);
  }
  watch.readUntil(connection.id, Clock::now() + service.limits.idleTimeout);
  logRequest(connection, reason);
  connection.isUsed = true;
  connection.isBegun = false;
  connection.channel.reset();
  connection.reading.reset();
  connection.answerHeaders.clear();
  connection.method.clear();
  connection.path.clear();
  connection.status = 0;
  connection.bodyBytes = 0;
  connection.isWhole = true;
}

void HttpServer::State::logRequest(const Connection& connection,
                                   std::optional<RefusalReason> unanswered) const {
  if (!options.log) {
    return;
  }
  const auto orNone = [](const std::string& text) { return text.empty() ? "-" : text; };
  const auto ms = std::chrono::duration_cast<milliseconds>(Clock::now() - connection.begunAt);
  const bool hasChannel = connection.channel != nullptr;
  logLine(fmt::format("{} {} {} {} {} ms {} bytes{}{}", connection.address,
                      orNone(connection.method), orNone(connection.path),
                      connection.status == 0 ? "-" : std::to_string(connection.status), ms.count(),
                      hasChannel ? connection.channel->pulledBytes() : connection.bodyBytes,
                      connection.isWhole ? "" : " (cut off)",
                      unanswered.has_value() ? fmt::format(" ({})", codeOf(*unanswered)) : ""));
}

HttpServer::HttpServer() : state(std::make_unique<State>()) {}

HttpServer::~HttpServer() {
  stop(milliseconds(0));
}

kel::Status HttpServer::start(HttpServerOptions options, HttpService service) {
  return state->start(std::move(options), std::move(service));
}

uint16_t HttpServer::port() const {
  return state->port();
}

std::string HttpServer::url() const {
  return state->url();
}

RefusalNumbers HttpServer::refusals() const {
  return state->refusals();
}

AnswerNumbers HttpServer::answers() const {
  return state->answers();
}

size_t HttpServer::connectionCount() const {
  return state->connectionCount();
}

void HttpServer::stop(milliseconds grace) {
  state->stop(grace);
}

void addHealth(HttpRoutes& routes) {
  routes.add(
      "GET", "/health",
      [](const std::shared_ptr<HttpExchange>& exchange) {
        exchange->answer(200, kJson, "{\"status\":\"ok\"}");
      },
      RouteAccess::Open);
}

}  // namespace zym
