#include "session/text_buffer.h"

#include <algorithm>
#include <cstring>

namespace session {

void copyText(char* buffer, size_t capacity, std::string_view text) {
  if (buffer == nullptr || capacity == 0) {
    return;
  }
  const size_t length = std::min(text.substr(0, text.find('\0')).size(), capacity - 1);
  if (length != 0) {
    std::memcpy(buffer, text.data(), length);
  }
  buffer[length] = '\0';
}

}  // namespace session
