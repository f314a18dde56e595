#include "host/terminal/line_editor.h"

#include <histedit.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "host/terminal/byte_source.h"
#include "host/terminal/history_file.h"
#include "host/terminal/line_view.h"
#include "host/terminal/terminal.h"
#include "host/terminal/terminal_modes.h"
#include "host/terminal/utf8.h"

namespace zym {
namespace {

namespace fs = std::filesystem;

constexpr int kHistoryLines = 1000;
constexpr std::string_view kPasteEnd = "\x1b[201~";

struct Binding {
  const wchar_t* key;
  const wchar_t* command;
};

// Beside those of the library. Arrows with Ctrl or Alt, as terminals send them: in the way of
// xterm, with and without the number of the key, and in that of rxvt.
constexpr Binding kBindings[] = {
    {L"^R", L"em-inc-search-prev"}, {L"\\e[1;5D", L"ed-prev-word"},
    {L"\\e[1;5C", L"em-next-word"}, {L"\\e[1;3D", L"ed-prev-word"},
    {L"\\e[1;3C", L"em-next-word"}, {L"\\e[5D", L"ed-prev-word"},
    {L"\\e[5C", L"em-next-word"},   {L"\\eOd", L"ed-prev-word"},
    {L"\\eOc", L"em-next-word"},    {L"\\eb", L"ed-prev-word"},
    {L"\\ef", L"em-next-word"},     {L"\\e[1;2D", L"ed-prev-char"},
    {L"\\e[1;2C", L"ed-next-char"}, {L"\\e[A", L"ed-prev-history"},
    {L"\\e[B", L"ed-next-history"}, {L"\\e[C", L"ed-next-char"},
    {L"\\e[D", L"ed-prev-char"},    {L"\\eOA", L"ed-prev-history"},
    {L"\\eOB", L"ed-next-history"}, {L"\\eOC", L"ed-next-char"},
    {L"\\eOD", L"ed-prev-char"},    {L"\\e[H", L"ed-move-to-beg"},
    {L"\\e[F", L"ed-move-to-end"},  {L"\\eOH", L"ed-move-to-beg"},
    {L"\\eOF", L"ed-move-to-end"},  {L"\\e[1~", L"ed-move-to-beg"},
    {L"\\e[4~", L"ed-move-to-end"}, {L"\\e[7~", L"ed-move-to-beg"},
    {L"\\e[8~", L"ed-move-to-end"}, {L"\\e[3~", L"ed-delete-next-char"},
    {L"^L", L"zym-clear-screen"},   {L"\\e[200~", L"zym-paste"},
    {L"\\e[201~", L"zym-nothing"},
};

std::wstring wideOf(std::string_view text) {
  const std::u32string codes = toCodes(text);
  return {codes.begin(), codes.end()};
}

bool inputWaits() {
  pollfd ready{STDIN_FILENO, POLLIN, 0};
  return poll(&ready, 1, 0) > 0;
}

// Terminals send a carriage return for a line end that is pasted, or what the text has.
std::string withLineFeeds(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '\r') {
      out += text[at];
    } else if (at + 1 == text.size() || text[at + 1] != '\n') {
      out += '\n';
    }
  }
  // The editor takes what is inserted up to a zero.
  std::erase(out, '\0');
  return out;
}

class LineEditor : public LineReader {
 public:
  explicit LineEditor(const fs::path& file)
      : nowhere(fopencookie(nullptr, "w", {})),
        editor(
            el_init_fd("zym", stdin, nowhere, nowhere, STDIN_FILENO, STDERR_FILENO, STDERR_FILENO)),
        past(history_winit()),
        bytes([this] { beforeWaiting(); }),
        historyFile(file),
        modes(STDIN_FILENO, STDERR_FILENO) {
    HistEventW event{};
    history_w(past, &event, H_SETSIZE, kHistoryLines);
    history_w(past, &event, H_SETUNIQUE, 1);
    el_wset(editor, EL_CLIENTDATA, this);
    el_wset(editor, EL_EDITOR, L"emacs");
    el_wset(editor, EL_SIGNAL, 0);
    // Otherwise the terminal makes two line ends of the CR LF in a paste.
    el_wset(editor, EL_SETTY, L"-d", L"-icrnl", L"-inlcr", nullptr);
    el_wset(editor, EL_HIST, history_w, past);
    el_wset(editor, EL_GETCFN, readCharacter);
    el_wset(editor, EL_ADDFN, L"zym-paste", L"Insert a pasted text", insertPaste);
    el_wset(editor, EL_ADDFN, L"zym-clear-screen", L"Clear the screen", clearScreen);
    el_wset(editor, EL_ADDFN, L"zym-nothing", L"Do nothing", doNothing);
    // Where there is no locale that knows them, the library takes these for keys with Alt.
    for (wchar_t character = 0x80; character <= 0xFF; ++character) {
      el_wset(editor, EL_BIND, std::wstring(1, character).c_str(), L"ed-insert", nullptr);
    }
    for (const Binding& binding : kBindings) {
      el_wset(editor, EL_BIND, binding.key, binding.command, nullptr);
    }
    for (const std::string& message : historyFile.load(kHistoryLines)) {
      history_w(past, &event, H_ENTER, wideOf(message).c_str());
    }
  }
  ~LineEditor() override {
    history_wend(past);
    el_end(editor);
    std::fclose(nowhere);
  }
  LineEditor(const LineEditor&) = delete;
  LineEditor& operator=(const LineEditor&) = delete;

  LineResult read(const std::string& shown, std::string& line, bool& wasEmpty) override {
    prompt = shown;
    hasEnded = false;
    leftEmpty = true;
    // Before the prompt is shown: keys typed as soon as it appears must reach the editor.
    el_wset(editor, EL_PREP_TERM, 1);
    modes.beginEditing();
    int length = 0;
    const wchar_t* text = el_wgets(editor, &length);
    modes.endEditing();
    if (hasEnded || text == nullptr || length <= 0) {
      send(view.leave());
      wasEmpty = leftEmpty;
      return bytes.end(line);
    }
    std::u32string codes(text, text + length);
    while (!codes.empty() && (codes.back() == '\n' || codes.back() == '\r')) {
      codes.pop_back();
    }
    // What came in one go with the Enter behind it has not been shown yet.
    send(shownAs(codes, codes.size()));
    send(view.leave());
    line = fromCodes(codes);
    return LineResult::Line;
  }

  bool offer(const std::string& text) override {
    offered = wideOf(text);
    return true;
  }

  void remember(const std::string& message) override {
    HistEventW event{};
    history_w(past, &event, H_ENTER, wideOf(message).c_str());
    const kel::Status status = historyFile.append(message);
    if (!status.ok() && !complained) {
      remark("(the history is not kept: " + status.message + ")");
      complained = true;
    }
  }

 private:
  static LineEditor& editorOf(EditLine* handle) {
    LineEditor* self = nullptr;
    el_wget(handle, EL_CLIENTDATA, &self);
    return *self;
  }

  // Called by the library for each character. Its own reader would read on after Ctrl-C.
  static int readCharacter(EditLine* handle, wchar_t* out) {
    char32_t code = 0;
    if (!editorOf(handle).nextCharacter(code)) {
      return editorOf(handle).atEnd() ? 0 : -1;
    }
    *out = static_cast<wchar_t>(code);
    return 1;
  }
  static unsigned char insertPaste(EditLine* handle, wint_t) {
    return editorOf(handle).takePaste() ? CC_REFRESH : CC_EOF;
  }
  static unsigned char clearScreen(EditLine* handle, wint_t) {
    editorOf(handle).view.forget();
    send("\x1b[H\x1b[2J");
    return CC_NORM;
  }
  static unsigned char doNothing(EditLine*, wint_t) { return CC_NORM; }

  static void send(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
  }

  bool nextCharacter(char32_t& code) {
    // The library has emptied the line before it asks for the first character of a new one.
    if (!offered.empty()) {
      el_winsertstr(editor, std::exchange(offered, {}).c_str());
    }
    std::string character;
    char byte = 0;
    do {
      if (!bytes.next(byte)) {
        noteEnd();
        return false;
      }
      character += byte;
    } while (incompleteTail(character) == character.size());
    if (characterAt(character, code) == 0) {
      code = U'\uFFFD';
    }
    return true;
  }

  void noteEnd() {
    const LineInfoW* typed = el_wline(editor);
    leftEmpty = typed == nullptr || typed->lastchar == typed->buffer;
    hasEnded = true;
    draw();
  }

  bool atEnd() const {
    std::string ignored;
    return bytes.end(ignored) == LineResult::End;
  }

  // Reads up to the mark that ends the paste. What has come is shown while more is waited for, so
  // that nothing is hidden where the mark is lost.
  bool takePaste() {
    std::string text;
    bool ended = false;
    while (!ended) {
      if (!text.empty() && !inputWaits()) {
        insertBut(heldBack(text), text);
      }
      char byte = 0;
      if (!bytes.next(byte)) {
        insertBut(0, text);
        noteEnd();
        return false;
      }
      text += byte;
      ended = text.ends_with(kPasteEnd);
    }
    text.resize(text.size() - kPasteEnd.size());
    insertBut(0, text);
    return true;
  }

  // Bytes at the end of text that may be the beginning of the mark, of a character, or of a line
  // end.
  static size_t heldBack(std::string_view text) {
    for (size_t length = std::min(text.size(), kPasteEnd.size() - 1); length > 0; --length) {
      if (kPasteEnd.starts_with(text.substr(text.size() - length))) {
        return length;
      }
    }
    return text.ends_with('\r') ? 1 : incompleteTail(text);
  }

  // Moves text into the line, except for so many bytes at its end.
  void insertBut(size_t held, std::string& text) {
    const std::wstring wide =
        wideOf(withLineFeeds(std::string_view(text).substr(0, text.size() - held)));
    text.erase(0, text.size() - held);
    if (!wide.empty()) {
      el_winsertstr(editor, wide.c_str());
    }
  }

  // Also called after a signal. Keys that wait are taken first: one drawing shows what they did.
  void beforeWaiting() {
    if (modes.wasContinued()) {
      view.forget();
      send("\r\x1b[J");
    }
    if (modes.wasResized()) {
      send(view.clear());
    }
    if (!inputWaits()) {
      draw();
    }
  }

  void draw() {
    const LineInfoW* line = el_wline(editor);
    if (line == nullptr) {
      return;
    }
    send(shownAs({line->buffer, line->lastchar}, static_cast<size_t>(line->cursor - line->buffer)));
  }

  std::string shownAs(const std::u32string& text, size_t cursor) {
    TerminalSize size;
    terminalSize(STDERR_FILENO, size.columns, size.rows);
    return view.show(layOutLine(prompt, text, cursor, size));
  }

  FILE* nowhere;  // where the library draws
  EditLine* editor;
  HistoryW* past;
  LineView view;
  ByteSource bytes;
  HistoryFile historyFile;
  std::string prompt;
  std::wstring offered;   // what the next line begins with
  bool hasEnded = false;  // the input has ended or was interrupted while the line was read
  bool leftEmpty = true;  // and there was nothing in the line
  bool complained = false;
  TerminalModes modes;
};

}  // namespace

bool terminalCanEdit() {
  const char* type = std::getenv("TERM");
  const std::string_view name = type == nullptr ? "" : type;
  return !name.empty() && name != "dumb" && name != "emacs";
}

std::unique_ptr<LineReader> openLineEditor(const fs::path& historyFile) {
  return std::make_unique<LineEditor>(historyFile);
}

}  // namespace zym
