// What a person sees: a terminal of a few rows, fed with what a program writes to it. It knows the
// control sequences that the line editor uses, and fails on others.
#pragma once

#include <gtest/gtest.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace zym::testing_support {

class Screen {
 public:
  Screen(size_t width, size_t height) : columns(width), cells(height, Row(width, " ")) {}

  void feed(std::string_view bytes) {
    pending += bytes;
    size_t used = 0;
    while (const size_t length = step(std::string_view(pending).substr(used))) {
      used += length;
    }
    pending.erase(0, used);
  }

  // Without the spaces at its end.
  std::string row(size_t at) const {
    std::string text;
    for (const std::string& cell : cells[at]) {
      text += cell;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
  }
  // All rows down to the last one that is not empty.
  std::string text() const {
    std::string all;
    for (size_t at = 0; at < cells.size(); ++at) {
      all += row(at) + "\n";
    }
    all.erase(all.find_last_not_of('\n') + 1);
    return all;
  }
  size_t cursorRow() const { return y; }
  size_t cursorColumn() const { return x; }
  bool bracketsPastes() const { return bracketed; }

 private:
  // A cell for each column; the second one of a wide character is empty.
  using Row = std::vector<std::string>;

  // Performs what text begins with and returns its length; 0 while it is incomplete.
  size_t step(std::string_view text) {
    if (text.empty()) {
      return 0;
    }
    if (text.front() == '\x1b') {
      return escape(text);
    }
    if (static_cast<unsigned char>(text.front()) < 0x20) {
      control(text.front());
      return 1;
    }
    utf8proc_int32_t code = -1;
    const auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                         static_cast<utf8proc_ssize_t>(text.size()), &code);
    if (length <= 0) {
      // A character has four bytes at most.
      EXPECT_LT(text.size(), 4U) << "no UTF-8: " << text;
      return text.size() < 4 ? 0 : 1;
    }
    put(std::string(text.substr(0, static_cast<size_t>(length))),
        static_cast<size_t>(utf8proc_charwidth(code)));
    return static_cast<size_t>(length);
  }

  void control(char byte) {
    switch (byte) {
      case '\r':
        x = 0;
        wraps = false;
        break;
      case '\n':
        lineFeed();
        break;
      case '\b':
        x -= x > 0 ? 1 : 0;
        wraps = false;
        break;
      case '\a':
        break;
      case '\t':
        x = std::min(columns - 1, (x / 8 + 1) * 8);
        break;
      default:
        ADD_FAILURE() << "control character " << int{byte};
    }
  }

  void lineFeed() {
    wraps = false;
    if (++y == cells.size()) {
      cells.erase(cells.begin());
      cells.emplace_back(columns, " ");
      --y;
    }
  }

  void put(const std::string& character, size_t width) {
    if (width == 0) {
      // In front of the cursor, past the empty half of a wide character.
      size_t at = wraps ? x : x - std::min<size_t>(x, 1);
      at -= at > 0 && cells[y][at].empty() ? 1 : 0;
      cells[y][at] += character;
      return;
    }
    if (wraps || x + width > columns) {
      x = 0;
      lineFeed();
    }
    Row& row = cells[y];
    if (inserts) {
      row.insert(row.begin() + static_cast<std::ptrdiff_t>(x), width, " ");
      row.resize(columns);
    }
    breakWide(x);
    if (x + width < columns) {
      breakWide(x + width);
    }
    row[x] = character;
    if (width == 2) {
      row[x + 1].clear();
    }
    x += width;
    wraps = x == columns;
    x -= wraps ? 1 : 0;
  }

  // A wide character of which one half is overwritten leaves a space in place of the other.
  void breakWide(size_t at) {
    Row& row = cells[y];
    if (row[at].empty() && at > 0) {
      row[at] = " ";
      row[at - 1] = " ";
    }
  }

  size_t escape(std::string_view text) {
    if (text.size() < 2) {
      return 0;
    }
    if (text[1] != '[') {
      ADD_FAILURE() << "escape sequence with " << text[1];
      return 2;
    }
    const size_t end = text.find_first_not_of("0123456789;?", 2);
    if (end == std::string_view::npos) {
      return 0;
    }
    perform(std::string(text.substr(2, end - 2)), text[end]);
    return end + 1;
  }

  void perform(const std::string& parameters, char command) {
    const size_t given = std::strtoul(parameters.c_str(), nullptr, 10);
    const size_t count = std::max<size_t>(1, given);
    Row& row = cells[y];
    const auto here = row.begin() + static_cast<std::ptrdiff_t>(x);
    const size_t inRow = std::min(count, columns - x);
    wraps = false;
    switch (command) {
      case 'A':
        y -= std::min(count, y);
        break;
      case 'B':
        y = std::min(y + count, cells.size() - 1);
        break;
      case 'C':
        x = std::min(x + count, columns - 1);
        break;
      case 'D':
        x -= std::min(count, x);
        break;
      case 'G':
        x = std::min(count, columns) - 1;
        break;
      case 'H':
        x = 0;
        y = 0;
        break;
      case 'K':
        std::fill(here, row.end(), " ");
        break;
      case 'J':
        std::fill(here, row.end(), " ");
        for (size_t below = y + 1; below < cells.size(); ++below) {
          cells[below].assign(columns, " ");
        }
        break;
      case '@':
        row.insert(here, inRow, " ");
        row.resize(columns);
        break;
      case 'P':
        row.erase(here, here + static_cast<std::ptrdiff_t>(inRow));
        row.resize(columns, " ");
        break;
      case 'h':
      case 'l':
        setMode(parameters, command == 'h');
        break;
      case 'm':
        break;
      default:
        ADD_FAILURE() << "control sequence " << parameters << command;
    }
  }

  void setMode(const std::string& mode, bool on) {
    if (mode == "4") {
      inserts = on;
    } else if (mode == "?2004") {
      bracketed = on;
    } else {
      EXPECT_EQ(mode, "?1") << "an unknown mode";
    }
  }

  size_t columns;
  std::vector<Row> cells;
  std::string pending;  // the beginning of a sequence or of a character
  size_t x = 0;
  size_t y = 0;
  bool wraps = false;  // the last column is written; the next character goes to the next row
  bool inserts = false;
  bool bracketed = false;
};

}  // namespace zym::testing_support
