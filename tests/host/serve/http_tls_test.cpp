// TLS by a certificate that the test makes.
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/host/serve/serve_fixture.h"

namespace zym {
namespace {

using testing_support::comesTrue;
using testing_support::isGone;

struct Pem {
  std::string certificate;
  std::string key;
};

std::string textOf(const gnutls_datum_t& datum) {
  std::string text(reinterpret_cast<const char*>(datum.data), datum.size);
  gnutls_free(datum.data);
  return text;
}

// A certificate for localhost that signs itself.
Pem makeCertificate() {
  gnutls_x509_privkey_t key = nullptr;
  gnutls_x509_privkey_init(&key);
  gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA,
                               GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0);
  gnutls_x509_crt_t certificate = nullptr;
  gnutls_x509_crt_init(&certificate);
  gnutls_x509_crt_set_version(certificate, 3);
  gnutls_x509_crt_set_serial(certificate, "\x01", 1);
  gnutls_x509_crt_set_dn(certificate, "CN=localhost", nullptr);
  gnutls_x509_crt_set_subject_alt_name(certificate, GNUTLS_SAN_DNSNAME, "localhost", 9,
                                       GNUTLS_FSAN_SET);
  gnutls_x509_crt_set_activation_time(certificate, std::time(nullptr) - 3600);
  gnutls_x509_crt_set_expiration_time(certificate, std::time(nullptr) + 86400);
  gnutls_x509_crt_set_basic_constraints(certificate, 1, -1);
  gnutls_x509_crt_set_key(certificate, key);
  gnutls_x509_crt_sign2(certificate, certificate, key, GNUTLS_DIG_SHA256, 0);
  gnutls_datum_t certificateText{};
  gnutls_datum_t keyText{};
  gnutls_x509_crt_export2(certificate, GNUTLS_X509_FMT_PEM, &certificateText);
  gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &keyText);
  gnutls_x509_crt_deinit(certificate);
  gnutls_x509_privkey_deinit(key);
  return {textOf(certificateText), textOf(keyText)};
}

class TlsClient {
 public:
  TlsClient(uint16_t port, const std::string& trusted) : fd(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 0);
    gnutls_certificate_allocate_credentials(&credentials);
    std::string text = trusted;
    const gnutls_datum_t authority{reinterpret_cast<unsigned char*>(text.data()),
                                   static_cast<unsigned>(text.size())};
    gnutls_certificate_set_x509_trust_mem(credentials, &authority, GNUTLS_X509_FMT_PEM);
    gnutls_init(&session, GNUTLS_CLIENT | GNUTLS_NO_SIGNAL);
    gnutls_set_default_priority(session);
    gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, credentials);
    gnutls_session_set_verify_cert(session, "localhost", 0);
    gnutls_transport_set_int(session, fd);
    gnutls_handshake_set_timeout(session, 20000);
    do {
      shaken = gnutls_handshake(session);
    } while (shaken < 0 && gnutls_error_is_fatal(shaken) == 0);
  }
  TlsClient(const TlsClient&) = delete;
  TlsClient& operator=(const TlsClient&) = delete;
  ~TlsClient() {
    gnutls_deinit(session);
    gnutls_certificate_free_credentials(credentials);
    ::close(fd);
  }

  bool isTrusted() const { return shaken >= 0; }
  void send(const std::string& text) const {
    EXPECT_EQ(gnutls_record_send(session, text.data(), text.size()),
              static_cast<ssize_t>(text.size()));
  }
  bool readUntil(const std::string& text) {
    std::array<char, 4096> buffer{};
    while (received.find(text) == std::string::npos) {
      const ssize_t count = gnutls_record_recv(session, buffer.data(), buffer.size());
      if (count == GNUTLS_E_INTERRUPTED || count == GNUTLS_E_AGAIN) {
        continue;
      }
      if (count <= 0) {
        return false;
      }
      received.append(buffer.data(), static_cast<size_t>(count));
    }
    return true;
  }

 private:
  int fd;
  gnutls_session_t session = nullptr;
  gnutls_certificate_credentials_t credentials = nullptr;
  int shaken = -1;
  std::string received;
};

class HttpTlsTest : public testing_support::ServeTest {
 protected:
  HttpTlsTest() : folder(::testing::TempDir() + "zym_http_tls_" + std::to_string(getpid())) {
    std::filesystem::create_directories(folder);
    options.certFile = write("certificate.pem", pem.certificate);
    options.keyFile = write("key.pem", pem.key);
  }
  ~HttpTlsTest() override { std::filesystem::remove_all(folder); }

  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(folder / name, std::ios::binary) << text;
    return folder / name;
  }

  std::filesystem::path folder;
  Pem pem = makeCertificate();
};

TEST_F(HttpTlsTest, AnswersAndStreamsGoThroughTls) {
  start();
  EXPECT_TRUE(server.url().starts_with("https://127.0.0.1:"));
  TlsClient caller(server.port(), pem.certificate);
  ASSERT_TRUE(caller.isTrusted());
  caller.send("POST /echo HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\nhello");
  EXPECT_TRUE(caller.readUntil("\r\n\r\nhello"));
  caller.send("GET /wait HTTP/1.1\r\nHost: localhost\r\n\r\n");
  const auto exchange = inbox.take();
  ASSERT_NE(exchange, nullptr);
  exchange->begin(200, "text/event-stream");
  exchange->write("data: 1\n\n");
  EXPECT_TRUE(caller.readUntil("data: 1\n\n"));
  exchange->write("data: 2\n\n");
  EXPECT_TRUE(caller.readUntil("data: 2\n\n"));
  exchange->end();
  EXPECT_TRUE(caller.readUntil("\r\n0\r\n\r\n"));
}

TEST_F(HttpTlsTest, CallerThatLeavesIsGone) {
  start();
  std::shared_ptr<HttpExchange> exchange;
  {
    TlsClient caller(server.port(), pem.certificate);
    caller.send("GET /wait HTTP/1.1\r\nHost: localhost\r\n\r\n");
    exchange = inbox.take();
    ASSERT_NE(exchange, nullptr);
    EXPECT_FALSE(isGone(*exchange));
  }
  EXPECT_TRUE(comesTrue([&] { return isGone(*exchange); }));
}

TEST_F(HttpTlsTest, CallersInTheClearAreNotServed) {
  start();
  testing_support::HttpClient caller = client();
  caller.ask("GET", "/health");
  EXPECT_TRUE(caller.isClosed());
  EXPECT_EQ(caller.take().find("HTTP/1.1"), std::string::npos);
}

TEST_F(HttpTlsTest, HandshakesThatStallAreCutOff) {
  service.limits.readTimeout = std::chrono::milliseconds(200);
  start();
  // The beginning of a record of 512 bytes, whose rest does not come.
  for (const std::string& begun : {std::string(), std::string("\x16\x03\x01\x02\x00\x01", 6)}) {
    testing_support::HttpClient caller = client();
    caller.send(begun);
    EXPECT_TRUE(caller.isClosed());
    EXPECT_TRUE(comesTrue([&] { return server.connectionCount() == 0; }));
  }
  TlsClient caller(server.port(), pem.certificate);
  caller.send("GET /health HTTP/1.1\r\nHost: localhost\r\n\r\n");
  EXPECT_TRUE(caller.readUntil("{\"status\":\"ok\"}"));
}

TEST_F(HttpTlsTest, FilesThatCannotBeUsedAreToldOf) {
  const auto fault = [&](const std::string& certificate, const std::string& key) {
    HttpServer unstarted;
    HttpServerOptions wrong;
    wrong.certFile = certificate;
    wrong.keyFile = key;
    return unstarted.start(wrong, {}).message;
  };
  const std::string missing = folder / "missing.pem";
  EXPECT_EQ(fault(missing, options.keyFile), "tls: cannot read " + missing);
  EXPECT_EQ(fault(options.certFile, missing), "tls: cannot read " + missing);
  EXPECT_EQ(fault(options.certFile, ""), "tls: cannot read ");
  const std::string foreign = write("foreign.pem", makeCertificate().key);
  EXPECT_EQ(fault(options.certFile, foreign),
            "tls: " + foreign + " is not the key of " + options.certFile);
  const std::string text = write("text.pem", "no certificate");
  EXPECT_TRUE(fault(text, options.keyFile)
                  .starts_with("tls: " + text + " and " + options.keyFile +
                               " do not hold a certificate and its key: "));
}

}  // namespace
}  // namespace zym
