// The messages typed at earlier prompts, in a file that several chats may use at once.
//
// The first line is "_HiStOrY_V2_". Every further line is one message, the oldest first, in UTF-8;
// a line feed in it is written \012, and so are a backslash (\134) and other control characters: a
// backslash and three octal digits. The line editor's library writes the same format with more
// escapes (\040, \M-C, \^I), and reads this one; what it has written is read here.
//
// A message is appended by a single write under a lock (flock), so that no chat loses another's.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "container/status.h"

namespace zym {

std::string encodeHistoryLine(std::string_view message);
// Escapes that are none are taken as they are.
std::string decodeHistoryLine(std::string_view line);

class HistoryFile {
 public:
  // path: empty for none. What is there but is no regular file, such as a link to /dev/null, is
  // left alone: then there is no history either.
  explicit HistoryFile(std::filesystem::path path);

  // The last `limit` messages. Cuts a file that holds more than twice as many down to them. Sets
  // its mode to 0600.
  std::vector<std::string> load(size_t limit);
  // Makes the file and its folder if need be, the file with mode 0600. On failure the file is as it
  // was.
  kel::Status append(const std::string& message);

 private:
  std::filesystem::path file;
};

}  // namespace zym
