// The files that the program carries in itself: those of the chat page. Built by
// cmake/EmbedFiles.cmake.
#pragma once

#include <span>
#include <string_view>

namespace zym {

struct EmbeddedFile {
  std::string_view name;  // as a page asks for it
  std::string_view text;
  std::string_view tag;  // quoted, changes with the text: an entity tag (RFC 9110, section 8.8.3)
};

std::span<const EmbeddedFile> embeddedFiles();

}  // namespace zym
