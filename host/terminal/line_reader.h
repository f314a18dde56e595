// Lines of standard input, typed or from a pipe.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

namespace zym {

enum class LineResult {
  Line,
  End,          // Ctrl-D, or the end of the pipe
  Interrupted,  // Ctrl-C; what had been typed is dropped
  Failed,       // the input cannot be read
};

class LineReader {
 public:
  virtual ~LineReader() = default;
  // Shows prompt at a terminal. line: without its line end (LF or CR LF), but with the line feeds
  // of what was pasted into it; after Failed, a message for people. wasEmpty tells, after
  // Interrupted, whether nothing had been typed.
  virtual LineResult read(const std::string& prompt, std::string& line, bool& wasEmpty) = 0;
  // The next line that is read begins with text, which may have several lines, to be changed. False
  // where lines are not edited.
  virtual bool offer(const std::string& text);
  // Adds a message, which may have several lines, to the history, if there is one.
  virtual void remember(const std::string& message);
};

// From standard input: with editing and history where it and standard error are terminals that can
// move their cursor (historyFile: see history_file.h; empty: not kept), plainly otherwise.
std::unique_ptr<LineReader> openLineReader(const std::filesystem::path& historyFile);

// $XDG_STATE_HOME/zym/history or ~/.local/state/zym/history; empty when neither is known.
std::filesystem::path defaultHistoryFile();

}  // namespace zym
