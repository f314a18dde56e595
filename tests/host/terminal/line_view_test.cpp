#include "host/terminal/line_view.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "host/terminal/utf8.h"
#include "tests/host/terminal/screen.h"

namespace zym {
namespace {

using testing_support::Screen;

LineFrame frameOf(const std::string& text, size_t cursor, TerminalSize size = {40, 10}) {
  return layOutLine("> ", toCodes(text), cursor, size);
}

std::string rowsOf(const LineFrame& frame) {
  std::string all;
  for (const LineFrame::Row& row : frame.rows) {
    all += row.text + "|";
  }
  return all;
}

TEST(LineLayoutTest, LongTextContinuesInIndentedRowsAndLeavesTheLastColumnFree) {
  const LineFrame frame = frameOf("abcdefghij", 10, {8, 10});
  EXPECT_EQ(rowsOf(frame), "> abcde|  fghij|");
  EXPECT_EQ(frame.cursorRow, 1U);
  EXPECT_EQ(frame.cursorColumn, 7U);
}

TEST(LineLayoutTest, LineFeedsBeginRows) {
  const LineFrame frame = frameOf("a\n\nb", 2);
  EXPECT_EQ(rowsOf(frame), "> a|  |  b|");
  EXPECT_EQ(frame.cursorRow, 1U);
  EXPECT_EQ(frame.cursorColumn, 2U);
}

TEST(LineLayoutTest, CursorInFrontOfACharacterThatContinuesBelowIsBelow) {
  const LineFrame frame = frameOf("abcdefg", 5, {8, 10});
  EXPECT_EQ(frame.cursorRow, 1U);
  EXPECT_EQ(frame.cursorColumn, 2U);
}

TEST(LineLayoutTest, WideCharactersAreNotSplit) {
  const LineFrame frame = frameOf("abcd\u6F22x", 4, {8, 10});
  EXPECT_EQ(rowsOf(frame), "> abcd|  \u6F22x|");
  EXPECT_EQ(frame.cursorRow, 1U);
  EXPECT_EQ(frame.rows[1].columns, 5U);
}

TEST(LineLayoutTest, CombiningMarksStandWithTheirCharacters) {
  const LineFrame frame = frameOf("e\u0301x", 2);
  EXPECT_EQ(rowsOf(frame), "> e\u0301x|");
  EXPECT_EQ(frame.cursorColumn, 3U);
}

TEST(LineLayoutTest, MarkAtTheBeginningHasSomethingToStandOn) {
  EXPECT_EQ(rowsOf(frameOf("\u0301x\n\u0301", 0)), "> \u25CC\u0301x|  \u25CC\u0301|");
}

TEST(LineLayoutTest, ControlCharactersDoNotReachTheTerminal) {
  EXPECT_EQ(rowsOf(frameOf("a\x1b[2J\x7F\u009B", 0)), "> a^[[2J^?\uFFFD|");
}

TEST(LineLayoutTest, TabsAreSpaces) {
  EXPECT_EQ(rowsOf(frameOf("a\tb", 0)), "> a       b|");
}

TEST(LineLayoutTest, OfATallTextThePartAroundTheCursorIsShown) {
  const std::string text = "1\n2\n3\n4\n5";
  const LineFrame atEnd = frameOf(text, 9, {40, 3});
  EXPECT_EQ(rowsOf(atEnd), "  3|  4|  5|");
  EXPECT_EQ(atEnd.cursorRow, 2U);
  const LineFrame atBegin = frameOf(text, 0, {40, 3});
  EXPECT_EQ(rowsOf(atBegin), "> 1|  2|  3|");
  EXPECT_EQ(atBegin.cursorRow, 0U);
}

TEST(LineViewTest, TypedCharacterIsSentByItself) {
  LineView view;
  view.show(frameOf("a", 1));
  EXPECT_EQ(view.show(frameOf("ab", 2)), "b");
  EXPECT_EQ(view.show(frameOf("ab", 2)), "");
}

TEST(LineViewTest, LeavingEndsUpBelowAllRows) {
  Screen screen(40, 10);
  LineView view;
  screen.feed(view.show(frameOf("a\nb\nc", 0)));
  screen.feed(view.leave());
  EXPECT_EQ(screen.cursorRow(), 3U);
  EXPECT_EQ(screen.cursorColumn(), 0U);
  screen.feed(view.show(frameOf("next", 4)));
  EXPECT_EQ(screen.text(), "> a\n  b\n  c\n> next");
}

// Edits at random places, with characters of every width: after each one the terminal shows what a
// terminal does that is sent the whole line at once.
TEST(LineViewTest, AfterEveryEditTheScreenShowsTheLine) {
  const std::u32string alphabet = U"ab \n\u00E9\u0301\u6F22\U0001F600\u0308\t";
  std::mt19937 random(7);
  for (const TerminalSize size : {TerminalSize{12, 5}, TerminalSize{40, 8}}) {
    Screen screen(size.columns, size.rows);
    LineView view;
    std::u32string text;
    for (int edit = 0; edit < 400; ++edit) {
      const size_t at = random() % (text.size() + 1);
      if (random() % 3 != 0) {
        text.insert(at, random() % 4 + 1, alphabet[random() % alphabet.size()]);
      } else {
        text.erase(at, random() % 6);
      }
      const LineFrame frame =
          layOutLine("> ", text, std::min(text.size(), at + random() % 2), size);
      screen.feed(view.show(frame));
      Screen whole(size.columns, size.rows);
      whole.feed(LineView().show(frame));
      ASSERT_EQ(screen.text().find(whole.text()), screen.text().size() - whole.text().size())
          << "edit " << edit << "\n"
          << screen.text() << "\nexpected\n"
          << whole.text();
      ASSERT_EQ(screen.cursorColumn(), frame.cursorColumn) << "edit " << edit;
    }
  }
}

}  // namespace
}  // namespace zym
