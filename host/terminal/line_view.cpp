#include "host/terminal/line_view.h"

#include <algorithm>

#include "host/terminal/utf8.h"

namespace zym {
namespace {

constexpr size_t kTabColumns = 8;

struct Shape {
  std::string text;
  size_t columns = 0;
};

// Collects rows of at most `limit` columns.
class Layout {
 public:
  Layout(std::string_view prompt, size_t columns) : limit(std::max<size_t>(columns, 3) - 1) {
    for (const char32_t code : toCodes(prompt)) {
      add(shapeOf(code));
    }
    // A prompt as wide as the terminal leaves no room for an indentation.
    indent = rows.back().columns * 2 <= limit ? rows.back().columns : 0;
    bare = true;
  }

  void put(char32_t code) {
    if (code == '\n') {
      beginRow();
    } else {
      add(shapeOf(code));
    }
  }
  // Where code, which comes next, begins.
  void mark(char32_t code, LineFrame& frame) const {
    const bool wraps = code != '\n' && rows.back().columns + shapeOf(code).columns > limit;
    frame.cursorRow = rows.size() - (wraps ? 0 : 1);
    frame.cursorColumn = wraps ? indent : rows.back().columns;
  }
  void markEnd(LineFrame& frame) const {
    frame.cursorRow = rows.size() - 1;
    frame.cursorColumn = rows.back().columns;
  }

  std::vector<LineFrame::Row> rows{1};

 private:
  Shape shapeOf(char32_t code) const {
    if (code == '\t') {
      const size_t columns = kTabColumns - (rows.back().columns - indent) % kTabColumns;
      return {std::string(columns, ' '), columns};
    }
    if (code < 0x20 || code == 0x7F) {
      return {{'^', static_cast<char>(code ^ 0x40U)}, 2};
    }
    if (code >= 0x80 && code < 0xA0) {
      return {"\uFFFD", 1};
    }
    const size_t columns = columnsOf(code);
    // A mark without a character in front of it gets one to stand on.
    if (columns == 0 && bare) {
      return {"\u25CC" + utf8Of(code), 1};
    }
    return {utf8Of(code), columns};
  }

  void add(const Shape& shape) {
    if (rows.back().columns + shape.columns > limit) {
      beginRow();
    }
    rows.back().text += shape.text;
    rows.back().columns += shape.columns;
    bare = false;
  }

  void beginRow() {
    rows.push_back({std::string(indent, ' '), indent});
    bare = true;
  }

  size_t limit;
  size_t indent = 0;
  bool bare = true;  // there is no character of the text in the row yet
};

}  // namespace

LineFrame layOutLine(std::string_view prompt, std::u32string_view text, size_t cursor,
                     const TerminalSize& size) {
  LineFrame frame;
  Layout layout(prompt, size.columns);
  for (size_t at = 0; at < text.size(); ++at) {
    if (at == cursor) {
      layout.mark(text[at], frame);
    }
    layout.put(text[at]);
  }
  if (cursor >= text.size()) {
    layout.markEnd(frame);
  }
  // Rows above the terminal's first one cannot be reached any more.
  const size_t height = std::max<size_t>(1, size.rows);
  const size_t last = std::max(std::min(layout.rows.size(), height), frame.cursorRow + 1);
  const size_t first = last - std::min(last, height);
  frame.rows.assign(layout.rows.begin() + static_cast<std::ptrdiff_t>(first),
                    layout.rows.begin() + static_cast<std::ptrdiff_t>(last));
  frame.cursorRow -= first;
  return frame;
}

std::string LineView::show(const LineFrame& frame) {
  std::string out;
  if (shown.empty()) {
    out += '\r';
    shown.emplace_back();
  }
  for (size_t at = 0; at < frame.rows.size(); ++at) {
    if (at >= shown.size() || frame.rows[at] != shown[at]) {
      showRow(frame.rows[at], at, out);
    }
  }
  if (shown.size() > frame.rows.size()) {
    goTo(frame.rows.size(), out);
    out += "\r\x1b[J";
    column = 0;
  }
  shown = frame.rows;
  goTo(frame.cursorRow, out);
  if (column == frame.cursorColumn + 1) {
    out += '\b';
  } else if (column != frame.cursorColumn) {
    out += '\r';
    if (frame.cursorColumn > 0) {
      out += "\x1b[" + std::to_string(frame.cursorColumn) + "C";
    }
  }
  column = frame.cursorColumn;
  return out;
}

void LineView::showRow(const LineFrame::Row& next, size_t at, std::string& out) {
  goTo(at, out);
  const LineFrame::Row before = at < shown.size() ? shown[at] : LineFrame::Row{};
  // What is typed at the end of a row is sent by itself.
  if (column == before.columns && next.text.starts_with(before.text)) {
    out += next.text.substr(before.text.size());
  } else {
    out += "\r" + next.text + "\x1b[K";
  }
  column = next.columns;
}

void LineView::goTo(size_t target, std::string& out) {
  if (target < row) {
    out += "\x1b[" + std::to_string(row - target) + "A";
  }
  // A line feed also makes a row that is not there yet.
  for (; row < target; ++row) {
    out += "\r\n";
    column = 0;
  }
  row = target;
}

std::string LineView::leave() {
  std::string out;
  if (!shown.empty()) {
    goTo(shown.size() - 1, out);
  }
  out += "\r\n";
  forget();
  return out;
}

std::string LineView::clear() {
  std::string out;
  goTo(0, out);
  out += "\r\x1b[J";
  forget();
  return out;
}

void LineView::forget() {
  shown.clear();
  row = 0;
  column = 0;
}

}  // namespace zym
