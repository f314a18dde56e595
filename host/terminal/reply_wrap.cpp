#include "host/terminal/reply_wrap.h"

#include <algorithm>

#include "host/terminal/utf8.h"

namespace zym {
namespace {

constexpr size_t kTabColumns = 8;
// The line that opens a fence names a language at most.
constexpr size_t kFenceBytes = 256;

}  // namespace

std::string ReplyWrap::feed(std::string_view text, size_t columns) {
  width = columns;
  std::string out;
  for (const char32_t code : toCodes(text)) {
    take(code, out);
  }
  return out;
}

std::string ReplyWrap::finish() {
  std::string out;
  putWord(out);
  out += blanks;
  *this = {};
  return out;
}

void ReplyWrap::take(char32_t code, std::string& out) {
  if (code == '\n') {
    putWord(out);
    out += '\n';
    endLine();
    return;
  }
  const bool blank = code == ' ' || code == '\t';
  if (line == Line::Begins) {
    line = blank || fenceLength > 0 ? Line::AsItIs : Line::Wrapped;
  }
  if (lineText.size() <= kFenceBytes) {
    lineText += utf8Of(code);
  }
  if (line == Line::Wrapped && blank) {
    putWord(out);
  }
  if (line == Line::Wrapped && width == 0) {
    putWord(out);
    out += blanks;
    blanks.clear();
    line = Line::AsItIs;
  }
  if (line == Line::AsItIs) {
    out += utf8Of(code);
  } else if (blank) {
    takeBlank(code);
  } else {
    takeWordPart(code, out);
  }
}

void ReplyWrap::takeBlank(char32_t code) {
  const size_t at = column + blankColumns;
  blankColumns += code == '\t' ? kTabColumns - at % kTabColumns : 1;
  blanks += static_cast<char>(code);
  overflows = false;
}

void ReplyWrap::takeWordPart(char32_t code, std::string& out) {
  const size_t columns = columnsOf(code);
  // A mark belongs to the character before it.
  if (columns == 0 && word.empty() && blanks.empty()) {
    out += utf8Of(code);
    return;
  }
  if (overflows) {
    // The terminal breaks it, so that an address can be copied whole.
    column = (column + columns - 1) % width + 1;
    out += utf8Of(code);
    return;
  }
  // Scripts of wide characters break between any two of them.
  if (columns == 2) {
    putWord(out);
  }
  word += utf8Of(code);
  wordColumns += columns;
  if (columns == 2) {
    putWord(out);
  } else if (wordColumns > width) {
    overflows = true;
    putWord(out);
    column = (column - 1) % width + 1;
  }
}

void ReplyWrap::putWord(std::string& out) {
  if (word.empty()) {
    return;
  }
  if (column == 0 && lineText.starts_with("```")) {
    line = Line::AsItIs;
  }
  if (column > 0 && column + blankColumns + wordColumns > width) {
    out += '\n';
    column = 0;
  } else {
    out += blanks;
    column += blankColumns;
  }
  out += word;
  column += wordColumns;
  blanks.clear();
  blankColumns = 0;
  word.clear();
  wordColumns = 0;
}

void ReplyWrap::endLine() {
  const size_t fence = fenceInLine();
  if (fence > 0) {
    fenceLength = fenceLength == 0 ? fence : 0;
  }
  line = Line::Begins;
  lineText.clear();
  column = 0;
  overflows = false;
  // Blanks at the end of a line are not seen.
  blanks.clear();
  blankColumns = 0;
}

size_t ReplyWrap::fenceInLine() const {
  const size_t begin = lineText.find_first_not_of(' ');
  if (lineText.size() > kFenceBytes || begin == std::string::npos || begin > 3) {
    return 0;
  }
  const size_t end = std::min(lineText.find_first_not_of('`', begin), lineText.size());
  const size_t length = end - begin;
  // Behind a fence that opens a language may stand, behind one that closes nothing.
  const bool opens =
      fenceLength == 0 && length >= 3 && lineText.find('`', end) == std::string::npos;
  const bool closes = fenceLength > 0 && length >= fenceLength &&
                      lineText.find_first_not_of(" \t", end) == std::string::npos;
  return opens || closes ? length : 0;
}

std::string wrappedText(std::string_view text, size_t columns) {
  ReplyWrap wrap;
  std::string out = wrap.feed(text, columns);
  return out + wrap.finish();
}

}  // namespace zym
