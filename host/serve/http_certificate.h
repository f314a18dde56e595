// The certificate and the key that a server shows to callers by TLS.
#pragma once

#include <string>

#include "container/status.h"

namespace zym {

struct HttpCertificate {
  std::string chain;  // PEM, the server's own certificate first
  std::string key;    // PEM

  // Fails where a file cannot be read, is no PEM, or the key is that of another certificate.
  static kel::Status read(const std::string& certFile, const std::string& keyFile,
                          HttpCertificate& certificate);
};

}  // namespace zym
