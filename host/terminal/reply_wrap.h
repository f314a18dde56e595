// Breaks a streamed reply at words, for a terminal of some width.
//
// Left as they are: code between fences of three backticks or more, and lines that begin with a
// space or a tab. At most the word at the end of what was fed is held back.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace zym {

class ReplyWrap {
 public:
  // Takes whole characters and returns what can be shown. columns: the terminal's width at this
  // time, 0 when it is not known and nothing is to be broken.
  std::string feed(std::string_view text, size_t columns);
  // What was held back. The next text begins a reply.
  std::string finish();

 private:
  enum class Line { Begins, Wrapped, AsItIs };

  void take(char32_t code, std::string& out);
  void takeBlank(char32_t code);
  void takeWordPart(char32_t code, std::string& out);
  void putWord(std::string& out);
  void endLine();
  // Backticks of the fence that the line opens or closes; 0 when it is none.
  size_t fenceInLine() const;

  size_t width = 0;
  Line line = Line::Begins;
  std::string lineText;    // the line so far, as long as it may be a fence
  size_t fenceLength = 0;  // backticks of the fence that the text is behind; 0: outside of code
  size_t column = 0;       // of what is out
  bool overflows = false;  // inside a word that is longer than a row and partly out
  std::string blanks;      // between what is out and the word
  size_t blankColumns = 0;
  std::string word;
  size_t wordColumns = 0;
};

// A text as a whole.
std::string wrappedText(std::string_view text, size_t columns);

}  // namespace zym
