#include "host/terminal/line_reader.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "host/terminal/byte_source.h"
#include "host/terminal/line_editor.h"
#include "host/terminal/terminal.h"

namespace zym {
namespace {

namespace fs = std::filesystem;

// Reads lines from a pipe, or from a terminal that edits and echoes them itself.
class PlainReader : public LineReader {
 public:
  explicit PlainReader(bool showPrompt) : prompts(showPrompt) {}

  LineResult read(const std::string& prompt, std::string& line, bool& wasEmpty) override {
    if (prompts) {
      std::fputs(prompt.c_str(), stderr);
    }
    line.clear();
    wasEmpty = true;
    char byte = 0;
    while (bytes.next(byte)) {
      if (byte == '\n') {
        if (line.ends_with('\r')) {
          line.pop_back();
        }
        return LineResult::Line;
      }
      line += byte;
      wasEmpty = false;
    }
    if (prompts) {
      std::fputs("\n", stderr);
    }
    const LineResult result = bytes.end(line);
    // The last line may end without a line feed.
    return result == LineResult::End && !wasEmpty ? LineResult::Line : result;
  }

 private:
  bool prompts;
  ByteSource bytes;
};

}  // namespace

bool LineReader::offer(const std::string&) {
  return false;
}

void LineReader::remember(const std::string&) {}

std::unique_ptr<LineReader> openLineReader(const fs::path& historyFile) {
  // The editor draws on standard error and turns the terminal's own echo off: with standard error
  // elsewhere a person would type blindly.
  const bool visible = isTerminal(STDIN_FILENO) && isTerminal(STDERR_FILENO);
  if (!visible || !terminalCanEdit()) {
    return std::make_unique<PlainReader>(visible);
  }
  return openLineEditor(historyFile);
}

fs::path defaultHistoryFile() {
  const char* state = std::getenv("XDG_STATE_HOME");
  // The XDG base directory specification says to ignore a relative path.
  if (state != nullptr && *state == '/') {
    return fs::path(state) / "zym" / "history";
  }
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home != '/') {
    return {};
  }
  return fs::path(home) / ".local" / "state" / "zym" / "history";
}

}  // namespace zym
