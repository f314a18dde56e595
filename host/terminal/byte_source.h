// Bytes of standard input, one at a time; after the last one, why there is none.
#pragma once

#include <functional>
#include <string>

#include "host/terminal/line_reader.h"

namespace zym {

class ByteSource {
 public:
  // beforeWaiting: see waitForInput.
  explicit ByteSource(std::function<void()> beforeWaiting = nullptr);

  bool next(char& byte);
  // What the input ended with, after next has returned false. line receives the message of a
  // failure.
  LineResult end(std::string& line) const;

 private:
  std::function<void()> whenIdle;
  LineResult reason = LineResult::End;
  std::string fault;
};

}  // namespace zym
