// What a log shows of a caller's text.
#include "host/serve/log_line.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace zym {
namespace {

TEST(LogLine, IsOneLineAndControlsNoTerminal) {
  EXPECT_EQ(onOneLine("/Grüße/日本?a=1&b=🙂"), "/Grüße/日本?a=1&b=🙂");
  EXPECT_EQ(onOneLine("a\r\nb\tc\x1b[2J\x7f"), "a??b?c?[2J?");
  // C1, as bytes and as characters: 9B begins what ESC [ begins.
  EXPECT_EQ(onOneLine("a\x9b\x32J\x85"), "a?2J?");
  EXPECT_EQ(onOneLine("a\u0080\u0085\u009b2J\u009f\u00a0"), "a???2J?\u00a0");
  EXPECT_EQ(onOneLine("a\u2028b\u2029c\u2027\u2030"), "a?b?c\u2027\u2030");
  for (const char* direction :
       {"\u061c", "\u200e", "\u200f", "\u202a", "\u202d", "\u202e", "\u2066", "\u2067", "\u2069"}) {
    EXPECT_EQ(onOneLine(std::string("x") + direction + "y"), "x?y");
  }
  EXPECT_EQ(onOneLine("\xe2\x80"), "??");
  EXPECT_EQ(onOneLine(std::string_view("\0a", 2)), "?a");
}

}  // namespace
}  // namespace zym
