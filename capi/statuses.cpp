#include <algorithm>

#include "capi/border.h"
#include "engine/utf8_text.h"

namespace capi {

namespace {

ZYMStatus statusOf(kel::StatusCode code, Work work) {
  const bool isRead = work == Work::OpenedModel || work == Work::ReadFile;
  switch (code) {
    case kel::StatusCode::Ok:
      return ZYM_OK;
    case kel::StatusCode::InvalidFormat:
      return isRead ? ZYM_ERROR_FORMAT : ZYM_ERROR_ARGUMENT;
    case kel::StatusCode::Unsupported:
      return ZYM_ERROR_UNSUPPORTED;
    case kel::StatusCode::Corrupted:
      return isRead ? ZYM_ERROR_FORMAT : ZYM_ERROR_NUMBERS;
    case kel::StatusCode::IoError:
      return work == Work::ReadFile || work == Work::WrittenFile ? ZYM_ERROR_FILE
                                                                 : ZYM_ERROR_MEMORY;
  }
  return ZYM_ERROR_INTERNAL;
}

}  // namespace

void check(const kel::Status& status, Work work) {
  if (!status.ok()) {
    throw Failure(statusOf(status.code, work), status.message);
  }
}

void ErrorBuffer::write(std::string_view message) const noexcept {
  if (text == nullptr || nBytes == 0) {
    return;
  }
  std::string_view fitting = message.substr(0, nBytes - 1);
  if (fitting.size() < message.size()) {
    fitting.remove_suffix(engine::unfinishedBytes(fitting));
  }
  // One line, whatever the name of a file holds.
  std::replace_copy(fitting.begin(), fitting.end(), text, '\n', ' ');
  text[fitting.size()] = '\0';
}

}  // namespace capi

const char* zym_engine_version(void) {
  return ZYM_VERSION;
}

const char* zym_status_text(int32_t status) {
  switch (status) {
    case ZYM_OK:
      return "success";
    case ZYM_ERROR_ARGUMENT:
      return "wrong argument";
    case ZYM_ERROR_RECORD:
      return "wrong record";
    case ZYM_ERROR_FILE:
      return "the system refuses the file";
    case ZYM_ERROR_FORMAT:
      return "not such a file, or a damaged one";
    case ZYM_ERROR_UNSUPPORTED:
      return "not supported";
    case ZYM_ERROR_MEMORY:
      return "not enough memory";
    case ZYM_ERROR_NUMBERS:
      return "the model's numbers run out of range";
    case ZYM_ERROR_ROOM:
      return "no room in the context";
    case ZYM_ERROR_CAPACITY:
      return "the buffer is too small";
    case ZYM_ERROR_BUSY:
      return "the context is in use";
    case ZYM_ERROR_INTERNAL:
      return "a fault of the library";
    default:
      return "unknown status";
  }
}
