#include "host/serve/http_certificate.h"

#include <gnutls/gnutls.h>

#include <fstream>
#include <sstream>
#include <utility>

namespace zym {
namespace {

kel::Status readFile(const std::string& path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream all;
  if (!file || !(all << file.rdbuf())) {
    return kel::Status::invalid("tls: cannot read " + path);
  }
  text = std::move(all).str();
  return kel::Status::success();
}

gnutls_datum_t datumOf(std::string& text) {
  return {reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned>(text.size())};
}

}  // namespace

kel::Status HttpCertificate::read(const std::string& certFile, const std::string& keyFile,
                                  HttpCertificate& certificate) {
  if (kel::Status status = readFile(certFile, certificate.chain); !status.ok()) {
    return status;
  }
  if (kel::Status status = readFile(keyFile, certificate.key); !status.ok()) {
    return status;
  }
  gnutls_certificate_credentials_t credentials = nullptr;
  int result = gnutls_certificate_allocate_credentials(&credentials);
  if (result >= 0) {
    const gnutls_datum_t chain = datumOf(certificate.chain);
    const gnutls_datum_t key = datumOf(certificate.key);
    result = gnutls_certificate_set_x509_key_mem(credentials, &chain, &key, GNUTLS_X509_FMT_PEM);
    gnutls_certificate_free_credentials(credentials);
  }
  if (result == GNUTLS_E_CERTIFICATE_KEY_MISMATCH) {
    return kel::Status::invalid("tls: " + keyFile + " is not the key of " + certFile);
  }
  if (result < 0) {
    return kel::Status::invalid(
        "tls: " + certFile + " and " + keyFile +
        " do not hold a certificate and its key: " + gnutls_strerror(result));
  }
  return kel::Status::success();
}

}  // namespace zym
