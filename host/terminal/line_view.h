// How a line that is being edited looks on a terminal. The line may hold line feeds; it takes as
// many rows as it needs, or the part around the cursor where the terminal has fewer.
//
// Nothing here writes: what a terminal is to be sent is returned. Only sequences that every
// terminal knows are used, and the last column stays free, since terminals differ in what they do
// there.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zym {

struct TerminalSize {
  size_t columns = 80;
  size_t rows = 24;
};

struct LineFrame {
  struct Row {
    std::string text;  // UTF-8, as it is sent to the terminal
    size_t columns = 0;
    bool operator==(const Row&) const = default;
  };
  std::vector<Row> rows;
  size_t cursorRow = 0;
  size_t cursorColumn = 0;
};

// Control characters show as ^X, tabs as spaces; a line feed begins a row. Rows after the first are
// indented like the text behind the prompt. cursor: characters in front of it.
LineFrame layOutLine(std::string_view prompt, std::u32string_view text, size_t cursor,
                     const TerminalSize& size);

class LineView {
 public:
  // What turns the frame on the screen into this one; only what differs is sent. The first frame
  // begins in the cursor's row.
  std::string show(const LineFrame& frame);
  // Moves the cursor behind what is shown, to the beginning of a row. The next frame is a first
  // one.
  std::string leave();
  // Clears what is shown, as far as it is where it was drawn. The next frame is a first one.
  std::string clear();
  // The screen was written to by others. The next frame is a first one.
  void forget();

 private:
  void goTo(size_t row, std::string& out);
  void showRow(const LineFrame::Row& next, size_t at, std::string& out);

  std::vector<LineFrame::Row> shown;
  // Where the terminal's cursor is.
  size_t row = 0;
  size_t column = 0;
};

}  // namespace zym
