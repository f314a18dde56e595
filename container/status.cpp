#include "container/status.h"

namespace kel {

const char* Status::codeName() const {
  switch (code) {
    case StatusCode::Ok:
      return "OK";
    case StatusCode::InvalidFormat:
      return "InvalidFormat";
    case StatusCode::Unsupported:
      return "Unsupported";
    case StatusCode::Corrupted:
      return "Corrupted";
    case StatusCode::IoError:
      return "IOError";
  }
  return "Unknown";
}

}  // namespace kel
