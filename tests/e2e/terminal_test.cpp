// zym chat at a terminal.
#include "host/terminal/history_file.h"
#include "tests/e2e/terminal_fixture.h"
#include "tests/support/file_contents.h"

namespace zym {
namespace {

using kel::test::contentsOf;

class TerminalTest : public testing_support::TerminalTest {};

TEST_F(TerminalTest, RepliesAreStreamedAndCtrlDLeaves) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("slow\r");
  ASSERT_TRUE(waitFor("tick tick "));
  type("\x03");
  ASSERT_TRUE(waitFor("(stopped)"));
  ASSERT_TRUE(waitFor("> "));
  type("\x04");
  EXPECT_EQ(waitForExit(), 0);
}

TEST_F(TerminalTest, SplitCharacterAppearsWhole) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("say \xC3\xA9t\xC3\xA9\r");
  ASSERT_TRUE(waitFor("\xC3\xA9t\xC3\xA9"));  // the echo
  ASSERT_TRUE(waitFor("\xC3\xA9t\xC3\xA9"));  // the reply, a piece for every byte
}

TEST_F(TerminalTest, CtrlCAtTheEmptyPromptExplainsThenLeaves) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("\x03");
  ASSERT_TRUE(waitFor("Leave with /quit, Ctrl-D, or Ctrl-C once more."));
  ASSERT_TRUE(waitFor("> "));
  type("\x03");
  EXPECT_EQ(waitForExit(), 130);
}

TEST_F(TerminalTest, CtrlCDropsTheLineThatIsBeingTyped) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("never sent");
  ASSERT_TRUE(waitFor("never sent"));
  type("\x03");
  ASSERT_TRUE(waitFor("> "));
  type("hello\r");
  ASSERT_TRUE(waitFor("heard 1: hello"));
}

TEST_F(TerminalTest, CtrlCDropsTheUnfinishedMessage) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("/multiline\r");
  ASSERT_TRUE(waitFor("> "));
  type("never\r");
  ASSERT_TRUE(waitFor(". "));
  type("\x03");
  ASSERT_TRUE(waitFor("(the message is dropped)"));
  ASSERT_TRUE(waitFor("> "));
  type("first\r");
  ASSERT_TRUE(waitFor(". "));
  type("second\r");
  ASSERT_TRUE(waitFor(". "));
  type(".\r");
  ASSERT_TRUE(waitFor("heard 1: first\r\nsecond"));
}

TEST_F(TerminalTest, MessageAfterTheHintWithdrawsIt) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("\x03");
  ASSERT_TRUE(waitFor("once more."));
  ASSERT_TRUE(waitFor("> "));
  type("hello\r");
  ASSERT_TRUE(waitFor("heard 1: hello"));
  ASSERT_TRUE(waitFor("> "));
  type("\x03");
  ASSERT_TRUE(waitFor("once more."));
}

TEST_F(TerminalTest, SecondCtrlCDuringATurnLeaves) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("think\r");
  ASSERT_TRUE(waitFor("reading "));  // the turn cannot be cancelled before its first piece
  EXPECT_TRUE(view.bracketsPastes());
  type("\x03");
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  type("\x03");
  EXPECT_EQ(waitForExit(), 130);
  EXPECT_FALSE(view.bracketsPastes());
}

TEST_F(TerminalTest, ResetStartsAfresh) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("one\r");
  ASSERT_TRUE(waitFor("heard 1: one"));
  type("/reset\r");
  ASSERT_TRUE(waitFor("The conversation is forgotten."));
  type("two\r");
  ASSERT_TRUE(waitFor("heard 1: two"));
}

TEST_F(TerminalTest, SetAloneShowsTheSettingsInForce) {
  startCommand({"chat", model, "--top-k", "7"});
  ASSERT_TRUE(waitFor("> "));
  type("/set temperature 0.5\r");
  ASSERT_TRUE(waitFor("> "));
  type("/set\r");
  ASSERT_TRUE(
      waitFor("temperature         0.5\r\ntop-k               7\r\ntop-p               off\r\n"));
}

TEST_F(TerminalTest, HistoryComesBackAndIsPrivate) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("remember me\r");
  ASSERT_TRUE(waitFor("heard 1: remember me"));
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[A\r");  // the arrow up
  ASSERT_TRUE(waitFor("heard 2: remember me"));
  ASSERT_TRUE(waitFor("> "));
  type("\x04");
  EXPECT_EQ(waitForExit(), 0);

  const std::string file = folder / "zym" / "history";
  struct stat info {};
  ASSERT_EQ(stat(file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0600U);

  start();
  screen.clear();
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[A\r");
  ASSERT_TRUE(waitFor("heard 1: remember me"));
}

TEST_F(TerminalTest, HistoryKeepsWhatOtherChatsAddMeanwhile) {
  start();
  ASSERT_TRUE(waitFor("> "));
  const std::string file = folder / "zym" / "history";
  std::filesystem::create_directories(folder / "zym");
  ASSERT_TRUE(HistoryFile(file).append("typed elsewhere").ok());
  type("typed here\r");
  ASSERT_TRUE(waitFor("heard 1: typed here"));
  EXPECT_EQ(contentsOf(file), "_HiStOrY_V2_\ntyped elsewhere\ntyped here\n");
}

TEST_F(TerminalTest, MessagesOfSeveralLinesComeBackWhole) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("/multiline\r");
  ASSERT_TRUE(waitFor("> "));
  type("first\r");
  ASSERT_TRUE(waitFor(". "));
  type("second\r");
  ASSERT_TRUE(waitFor(". "));
  type(".\r");
  ASSERT_TRUE(waitFor("heard 1: first\r\nsecond"));
  ASSERT_TRUE(waitFor("> "));
  type("\x04");
  EXPECT_EQ(waitForExit(), 0);

  start();
  screen.clear();
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[A");
  ASSERT_TRUE(waitFor("second"));
  type("\r");
  ASSERT_TRUE(waitFor("heard 1: first\r\nsecond"));
}

TEST_F(TerminalTest, HistoryThatCannotBeKeptCostsARemark) {
  std::ofstream(folder / "zym") << "in the way";
  start();
  ASSERT_TRUE(waitFor("> "));
  type("one\r");
  ASSERT_TRUE(waitFor("(the history is not kept: "));
  ASSERT_TRUE(waitFor("heard 1: one"));
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[A\r");
  ASSERT_TRUE(waitFor("heard 2: one"));
  const std::string seen = view.text();
  EXPECT_EQ(seen.find("not kept"), seen.rfind("not kept")) << seen;
}

TEST_F(TerminalTest, HistoryThatIsNoFileIsLeftAlone) {
  const std::filesystem::path pipe = folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0640), 0);
  std::filesystem::create_directories(folder / "zym");
  std::filesystem::create_symlink(pipe, folder / "zym" / "history");
  start();
  ASSERT_TRUE(waitFor("> "));
  type("hello\r");
  ASSERT_TRUE(waitFor("heard 1: hello"));
  ASSERT_TRUE(waitFor("> "));
  type("\x04");
  EXPECT_EQ(waitForExit(), 0);
  struct stat info {};
  ASSERT_EQ(stat(pipe.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0640U);
}

// The person's locale knows no characters above ASCII.
TEST_F(TerminalTest, CharactersOfEveryWidthCanBeEditedInTheMiddle) {
  setenv("LC_ALL", "C", 1);
  resize(40, 6);
  start();
  unsetenv("LC_ALL");
  ASSERT_TRUE(waitFor("> "));
  showOnlyThePrompt();
  type("caf\u00E9 \u00E0 b");
  ASSERT_TRUE(shows("> caf\u00E9 \u00E0 b"));
  type("\x01\x06");  // to the beginning, one to the right
  type("\u6F22e\u0301");
  ASSERT_TRUE(shows("> c\u6F22e\u0301af\u00E9 \u00E0 b"));
  type("\u00FC\x7F\x06\x06\x06\x7F");
  ASSERT_TRUE(shows("> c\u6F22e\u0301af \u00E0 b"));
  EXPECT_EQ(view.cursorColumn(), 8U);
  type("\r");
  ASSERT_TRUE(waitFor("heard 1: c\u6F22\u00E9af \u00E0 b"))
      << "the model reads composed characters";
}

TEST_F(TerminalTest, ArrowsWithCtrlAndAltMoveByWords) {
  setenv("LC_ALL", "C", 1);
  start();
  unsetenv("LC_ALL");
  ASSERT_TRUE(waitFor("> "));
  int turn = 0;
  for (const std::string keys : {"[1;5D", "[5D", "Od", "b", "[1;3D"}) {
    type("one two three\x1b" + keys + "\x1b" + keys + "X\r");
    ASSERT_TRUE(waitFor("heard " + std::to_string(++turn) + ": one Xtwo three")) << keys;
  }
  type("un \u00E9t\u00E9\x1b[1;5DX\r");
  ASSERT_TRUE(waitFor("heard " + std::to_string(++turn) + ": un X\u00E9t\u00E9"));
  for (const std::string keys : {"[1;5C", "[5C", "Oc", "f", "[1;3C"}) {
    type("one two three\x01\x1b" + keys + "\x1b" + keys + "X\r");
    ASSERT_TRUE(waitFor("heard " + std::to_string(++turn) + ": one twoX three")) << keys;
  }
}

TEST_F(TerminalTest, PastedLinesAreOneMessageThatIsSeenFirst) {
  resize(40, 8);
  start();
  ASSERT_TRUE(waitFor("> "));
  EXPECT_TRUE(view.bracketsPastes());
  showOnlyThePrompt();
  type("see: \x1b[200~first line\r\n/second\n" + std::string(40, 'x') + "\r\x1b[201~");
  ASSERT_TRUE(shows("> see: first line\n  /second\n  " + std::string(37, 'x') + "\n  xxx"));
  type("!\r");
  ASSERT_TRUE(waitFor("heard 1: see: first line\r\n/second\r\n" + std::string(40, 'x') + "\r\n!"));
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[200~/quit\rnot\x1b[201~\r");
  ASSERT_TRUE(waitFor("heard 2: /quit\r\nnot"));
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[200~/a\x1b[31mb\x1b[201~\r");
  ASSERT_TRUE(waitFor("no command /a[31mb"));
  ASSERT_TRUE(waitFor("> "));
  type("\x04");
  EXPECT_EQ(waitForExit(), 0);
  EXPECT_FALSE(view.bracketsPastes());
}

TEST_F(TerminalTest, PasteDuringAReplyIsTheNextMessage) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("slow\r");
  ASSERT_TRUE(waitFor("tick "));
  type("\x1b[200~first\rsecond\x1b[201~\r");
  ASSERT_TRUE(waitFor("heard 2: first\r\nsecond"));
}

TEST_F(TerminalTest, PasteIsShownWhileItsEndIsWaitedFor) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[200~one\r");
  ASSERT_TRUE(waitFor("one"));
  type("two\xC3");
  ASSERT_TRUE(waitFor("two"));
  type("\xA9\x1b[201");
  ASSERT_TRUE(waitFor("\u00E9"));
  type("~\r");
  ASSERT_TRUE(waitFor("heard 1: one\r\ntwo\u00E9"));
}

TEST_F(TerminalTest, CtrlCDropsAPaste) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("\x1b[200~one\rtwo");
  ASSERT_TRUE(waitFor("two"));
  type("\x03");
  ASSERT_TRUE(waitFor("> "));
  type("three\r");
  ASSERT_TRUE(waitFor("heard 1: three"));
}

TEST_F(TerminalTest, SignalThatEndsTheProgramGivesTheTerminalBack) {
  start();
  ASSERT_TRUE(waitFor("> "));
  EXPECT_TRUE(edits());
  kill(child, SIGTERM);
  EXPECT_EQ(waitForExit(), 128 + SIGTERM);
  EXPECT_FALSE(view.bracketsPastes());
  EXPECT_FALSE(edits());
}

TEST_F(TerminalTest, StoppedPromptComesBackWithItsLine) {
  underShell = true;
  resize(40, 8);
  start();
  ASSERT_TRUE(waitFor("> "));
  showOnlyThePrompt();
  type("half a \u6F22");
  ASSERT_TRUE(shows("> half a \u6F22"));
  type("\x1a");
  ASSERT_TRUE(waitFor("\nstopped\r\n"));
  EXPECT_FALSE(view.bracketsPastes());
  type("fg\r");
  ASSERT_TRUE(shows("> half a \u6F22\nstopped\nfg\n> half a \u6F22"));
  EXPECT_TRUE(view.bracketsPastes());
  EXPECT_TRUE(edits());
  type(" line\r");
  ASSERT_TRUE(waitFor("heard 1: half a \u6F22 line"));
}

TEST_F(TerminalTest, ReplyGoesOnAfterAStop) {
  underShell = true;
  start();
  ASSERT_TRUE(waitFor("> "));
  type("slow\r");
  ASSERT_TRUE(waitFor("tick "));
  type("\x1a");
  ASSERT_TRUE(waitFor("\nstopped\r\n"));
  EXPECT_FALSE(view.bracketsPastes());
  type("fg\r");
  ASSERT_TRUE(waitFor("tick "));
  EXPECT_TRUE(view.bracketsPastes());
  type("\x03");
  ASSERT_TRUE(waitFor("(stopped)"));
  ASSERT_TRUE(waitFor("> "));
  EXPECT_TRUE(edits());
  type("hello\r");
  ASSERT_TRUE(waitFor("heard 2: hello"));
}

TEST_F(TerminalTest, PromptFollowsTheTerminalsWidth) {
  resize(40, 8);
  start();
  ASSERT_TRUE(waitFor("> "));
  showOnlyThePrompt();
  type("a line of some length");
  ASSERT_TRUE(shows("> a line of some length"));
  resize(20, 8);
  // What was drawn may have moved.
  ASSERT_TRUE(waitFor("\r\x1b[J"));
  ASSERT_TRUE(shows("> a line of some le\n  ngth"));
}

TEST_F(TerminalTest, TerminalThatCannotMoveItsCursorEditsAndEchoes) {
  terminalType = "dumb";
  start();
  ASSERT_TRUE(waitFor("> "));
  EXPECT_FALSE(edits());
  type("hello\r");
  ASSERT_TRUE(waitFor("hello\r\nheard 1: hello\r\n> "));
  EXPECT_EQ(view.text().find('\x1b'), std::string::npos);
  EXPECT_FALSE(view.bracketsPastes());
}

TEST_F(TerminalTest, LimitIsMarkedDimly) {
  unsetenv("NO_COLOR");
  start();
  ASSERT_TRUE(waitFor("> "));
  type("limit\r");
  ASSERT_TRUE(waitFor("\x1b[2m(cut at 96 tokens"));
}

TEST_F(TerminalTest, NoColorIsHonoured) {
  setenv("NO_COLOR", "1", 1);
  start();
  unsetenv("NO_COLOR");
  ASSERT_TRUE(waitFor("> "));
  type("limit\r");
  ASSERT_TRUE(waitFor("x\r\n(cut at 96 tokens"));
}

TEST_F(TerminalTest, LongPromptShowsThatItIsAlive) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("think\r");
  ASSERT_TRUE(waitFor("reading 0 s"));
  ASSERT_TRUE(waitFor("reading 1 s"));
  ASSERT_TRUE(waitFor("done"));
}

TEST_F(TerminalTest, WithoutStandardErrorTheTerminalEditsAndEchoes) {
  const std::string errors = folder / "errors";
  start(errors);
  type("hello\r");
  ASSERT_TRUE(waitFor("hello\r\n"));  // the echo
  ASSERT_TRUE(waitFor("heard 1: hello\r\n"));
  termios settings{};
  ASSERT_EQ(tcgetattr(terminal, &settings), 0);
  EXPECT_NE(settings.c_lflag & tcflag_t{ECHO}, 0U);
  EXPECT_NE(settings.c_lflag & tcflag_t{ICANON}, 0U);

  type("drop this\x03");
  ASSERT_TRUE(waitFor("^C"));
  type("hello\x7Fp\r");
  ASSERT_TRUE(waitFor("heard 2: hellp"));
  type("\x04");
  EXPECT_EQ(waitForExit(), 0);
  EXPECT_EQ(contentsOf(errors),
            "Type a message. /help lists the commands.\n"
            "Leave with /quit, Ctrl-D, or Ctrl-C once more.\n");
}

TEST_F(TerminalTest, WithoutStandardErrorTheSecondCtrlCLeaves) {
  start(folder / "errors");
  type("hello\r");
  ASSERT_TRUE(waitFor("heard 1: hello\r\n"));
  type("\x03");
  ASSERT_TRUE(waitFor("^C"));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  type("\x03");
  EXPECT_EQ(waitForExit(), 130);
}

TEST_F(TerminalTest, LongCompletionShowsThatItIsAlive) {
  startCommand({"run", model, "-p", "think"});
  ASSERT_TRUE(waitFor("completing 0 s"));
  ASSERT_TRUE(waitFor("completing 1 s"));
  ASSERT_TRUE(waitFor("think and so on"));
}

TEST_F(TerminalTest, BenchShowsABar) {
  startCommand({"bench", model, "--repetitions", "1", "--prompt", "20", "--steps", "4"});
  ASSERT_TRUE(waitFor("measuring ["));
  ASSERT_TRUE(waitFor("0 of 24 positions"));
  ASSERT_TRUE(waitFor("median"));
}

TEST_F(TerminalTest, RepliesBreakBetweenWordsAtTheTerminalsWidth) {
  resize(20, 10);
  start();
  ASSERT_TRUE(waitFor("> "));
  type("one two three four five six\r");
  ASSERT_TRUE(waitFor("heard 1: one two\r\nthree four five six\r\n"));
  resize(12, 10);
  type("one two three\r");
  ASSERT_TRUE(waitFor("heard 2: one\r\ntwo three\r\n"));
}

TEST_F(TerminalTest, RepliesOfATerminalOfUnknownWidthStayAsTheyAre) {
  start();
  ASSERT_TRUE(waitFor("> "));
  const std::string text(100, 'w');
  type("one " + text + " two\r");
  ASSERT_TRUE(waitFor("heard 1: one " + text + " two\r\n"));
}

TEST_F(TerminalTest, RepliesCannotControlTheTerminal) {
  start();
  ASSERT_TRUE(waitFor("> "));
  type("escape\r");
  ASSERT_TRUE(waitFor("\na[31mb"));
}

}  // namespace
}  // namespace zym
