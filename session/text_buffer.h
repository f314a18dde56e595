// Text buffers of the host: (char*, capacity in bytes) pairs.
#pragma once

#include <cstddef>
#include <string_view>

namespace session {

// Copies text as "%s" printing does: up to its first NUL, cut to capacity - 1 bytes, always
// terminated. A null buffer or a capacity of 0 receives nothing.
void copyText(char* buffer, size_t capacity, std::string_view text);

}  // namespace session
