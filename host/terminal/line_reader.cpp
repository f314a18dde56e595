#include "host/terminal/line_reader.h"

#include <fcntl.h>
#include <histedit.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "host/terminal/input_text.h"
#include "host/terminal/interrupt.h"
#include "host/terminal/terminal.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

namespace fs = std::filesystem;

constexpr int kHistoryLines = 1000;

// Bytes of standard input, one at a time; after the last one, why there is none.
class ByteSource {
 public:
  bool next(char& byte) {
    while (waitForInput(STDIN_FILENO)) {
      const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
      // A read is interrupted by Ctrl-C alone, which the wait then reports.
      if (got < 0 && errno == EINTR) {
        continue;
      }
      if (got < 0) {
        fault = readFailure(kStandardInput, errno).message;
      }
      reason = got < 0 ? LineResult::Failed : LineResult::End;
      return got == 1;
    }
    reason = LineResult::Interrupted;
    return false;
  }
  // What the line ended with, after next has returned false. line receives the message of a
  // failure.
  LineResult end(std::string& line) const {
    if (reason == LineResult::Failed) {
      line = fault;
    }
    return reason;
  }

 private:
  LineResult reason = LineResult::End;
  std::string fault;
};

class EditingReader : public LineReader {
 public:
  explicit EditingReader(fs::path historyFile)
      : file(std::move(historyFile)),
        // Standard output is for replies: the prompt goes to standard error.
        editor(el_init("zym", stdin, stderr, stderr)),
        past(history_init()) {
    HistEvent event{};
    history(past, &event, H_SETSIZE, kHistoryLines);
    history(past, &event, H_SETUNIQUE, 1);
    el_set(editor, EL_CLIENTDATA, this);
    el_set(editor, EL_PROMPT, promptOf);
    el_set(editor, EL_EDITOR, "emacs");
    el_set(editor, EL_SIGNAL, 0);
    el_set(editor, EL_HIST, history, past);
    el_set(editor, EL_GETCFN, readCharacter);
    el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
    openHistory();
  }
  ~EditingReader() override {
    history_end(past);
    el_end(editor);
  }
  EditingReader(const EditingReader&) = delete;
  EditingReader& operator=(const EditingReader&) = delete;

  LineResult read(const std::string& shown, std::string& line, bool& wasEmpty) override {
    prompt = shown;
    // Before the prompt is shown: keys typed as soon as it appears must reach the editor.
    el_set(editor, EL_PREP_TERM, 1);
    int length = 0;
    const char* text = el_gets(editor, &length);
    if (text == nullptr || length <= 0) {
      const LineInfo* typed = el_line(editor);
      wasEmpty = typed == nullptr || typed->lastchar == typed->buffer;
      std::fputc('\n', stderr);
      return bytes.end(line);
    }
    line.assign(text, static_cast<size_t>(length));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) {
      line.pop_back();
    }
    if (!line.empty()) {
      remember(line);
    }
    return LineResult::Line;
  }

 private:
  static EditingReader& readerOf(EditLine* editor) {
    EditingReader* self = nullptr;
    el_get(editor, EL_CLIENTDATA, &self);
    return *self;
  }
  static char* promptOf(EditLine* editor) { return readerOf(editor).prompt.data(); }

  // Called by the editor for each character. The editor's own reader would read on after Ctrl-C.
  static int readCharacter(EditLine* editor, wchar_t* out) {
    ByteSource& source = readerOf(editor).bytes;
    std::string character;
    char byte = 0;
    do {
      std::string ignored;
      if (!source.next(byte)) {
        return source.end(ignored) == LineResult::End ? 0 : -1;
      }
      character += byte;
    } while (incompleteTail(character) == character.size());
    char32_t code = 0;
    *out = characterAt(character, code) == 0 ? L'?' : static_cast<wchar_t>(code);
    return 1;
  }

  void openHistory() {
    if (file.empty()) {
      return;
    }
    std::error_code ignored;  // without the folder the history is kept for this run only
    fs::create_directories(file.parent_path(), ignored);
    const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
      file.clear();
      return;
    }
    struct stat info {};
    const bool isFile = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    if (isFile) {
      fchmod(fd, S_IRUSR | S_IWUSR);
    }
    ::close(fd);
    // The editor's library sets the mode of the file when it saves. For somebody who wants no
    // history and links the name to /dev/null, that would lock everybody else out of the device.
    if (!isFile) {
      file.clear();
      return;
    }
    HistEvent event{};
    history(past, &event, H_LOAD, file.c_str());
  }

  // Saved line by line, so that leaving by Ctrl-C loses nothing.
  void remember(const std::string& line) {
    HistEvent event{};
    history(past, &event, H_ENTER, line.c_str());
    if (!file.empty()) {
      history(past, &event, H_SAVE, file.c_str());
    }
  }

  fs::path file;
  EditLine* editor;
  History* past;
  std::string prompt;
  ByteSource bytes;
};

// Reads lines from a pipe, or from a terminal that edits and echoes them itself.
class PlainReader : public LineReader {
 public:
  LineResult read(const std::string&, std::string& line, bool& wasEmpty) override {
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
    const LineResult result = bytes.end(line);
    // The last line may end without a line feed.
    return result == LineResult::End && !wasEmpty ? LineResult::Line : result;
  }

 private:
  ByteSource bytes;
};

}  // namespace

std::unique_ptr<LineReader> openLineReader(const fs::path& historyFile) {
  // The editor draws on standard error and turns the terminal's own echo off: with standard error
  // elsewhere a person would type blindly.
  const bool editable = isTerminal(STDIN_FILENO) && isTerminal(STDERR_FILENO);
  if (!editable) {
    return std::make_unique<PlainReader>();
  }
  return std::make_unique<EditingReader>(historyFile);
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
