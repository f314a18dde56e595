// zym chat at a terminal: a pseudo-terminal stands in for the person's.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>

#include <chrono>
#include <fstream>
#include <iterator>

#include "host/terminal/history_file.h"
#include "tests/e2e/fixture.h"
#include "tests/host/terminal/screen.h"

namespace zym {
namespace {

using testing_support::exitStatus;
using testing_support::Screen;

constexpr std::chrono::seconds kPatience{20};

// What a shell does with a job: waits until it ends or stops, then takes the terminal, with modes
// of its own, until a line is typed, and continues the job. Tells what modes the terminal was left
// with.
[[noreturn]] void runAsShell(char** argv) {
  for (const int number : {SIGTTOU, SIGTTIN, SIGTSTP}) {
    std::signal(number, SIG_IGN);
  }
  const pid_t job = fork();
  if (job == 0) {
    setpgid(0, 0);
    tcsetpgrp(STDIN_FILENO, getpid());
    for (const int number : {SIGTTOU, SIGTTIN, SIGTSTP}) {
      std::signal(number, SIG_DFL);
    }
    execv(argv[0], argv);
    _exit(127);
  }
  setpgid(job, job);
  tcsetpgrp(STDIN_FILENO, job);
  int waited = 0;
  while (waitpid(job, &waited, WUNTRACED) == job && WIFSTOPPED(waited)) {
    tcsetpgrp(STDIN_FILENO, getpgrp());
    termios left{};
    tcgetattr(STDIN_FILENO, &left);
    const bool plain =
        (left.c_lflag & tcflag_t{ICANON}) != 0 && (left.c_lflag & tcflag_t{ECHO}) != 0;
    termios own = left;
    own.c_lflag |= tcflag_t{ICANON} | tcflag_t{ECHO};
    own.c_iflag |= tcflag_t{ICRNL};
    tcsetattr(STDIN_FILENO, TCSANOW, &own);
    const std::string told = plain ? "\nstopped\n" : "\nstopped with modes of its own\n";
    char line[64];
    if (write(STDOUT_FILENO, told.data(), told.size()) < 0 ||
        read(STDIN_FILENO, line, sizeof(line)) <= 0) {
      break;
    }
    tcsetpgrp(STDIN_FILENO, job);
    kill(-job, SIGCONT);
  }
  _exit(exitStatus(waited));
}

class TerminalTest : public testing_support::ProgramTest {
 protected:
  void TearDown() override {
    if (child > 0) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
    }
    if (terminal >= 0) {
      close(terminal);
    }
    testing_support::ProgramTest::TearDown();
  }

  // errors: where standard error goes; empty: to the terminal.
  void start(const std::string& errors = "") { startCommand({"chat", model}, errors); }
  void startCommand(std::vector<std::string> words, const std::string& errors = "") {
    words.insert(words.begin(), ZYM_PROGRAM);
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    setenv("TERM", terminalType.c_str(), 1);
    view = Screen(size.ws_col == 0 ? 80 : size.ws_col, size.ws_row == 0 ? 24 : size.ws_row);
    child = forkpty(&terminal, nullptr, nullptr, size.ws_col == 0 ? nullptr : &size);
    ASSERT_GE(child, 0);
    if (child == 0) {
      const bool redirected =
          errors.empty() || dup2(creat(errors.c_str(), 0600), STDERR_FILENO) >= 0;
      if (underShell) {
        runAsShell(argv.data());
      }
      if (redirected) {
        execv(argv[0], argv.data());
      }
      _exit(127);
    }
  }

  void type(const std::string& keys) const {
    ASSERT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }

  // Reads until text has appeared behind what earlier calls have taken.
  testing::AssertionResult waitFor(const std::string& text) {
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < until) {
      const size_t at = screen.find(text);
      if (at != std::string::npos) {
        screen.erase(0, at + text.size());
        return testing::AssertionSuccess();
      }
      if (!readMore()) {
        break;
      }
    }
    return testing::AssertionFailure() << "no \"" << text << "\" in: " << screen;
  }

  // Reads until the terminal shows these rows and nothing else.
  testing::AssertionResult shows(const std::string& rows) {
    const auto until = std::chrono::steady_clock::now() + kPatience;
    while (view.text() != rows && std::chrono::steady_clock::now() < until && readMore()) {
    }
    return view.text() == rows ? testing::AssertionSuccess()
                               : testing::AssertionFailure() << "expected\n"
                                                             << rows << "\nseen\n"
                                                             << view.text();
  }

  void showOnlyThePrompt() { view.feed("\x1b[H\x1b[J> "); }

  // Reads what there is, or waits a little. False when the program has left the terminal.
  bool readMore() {
    pollfd ready{terminal, POLLIN, 0};
    if (poll(&ready, 1, 100) <= 0) {
      return true;
    }
    char buffer[1024];
    const ssize_t got = read(terminal, buffer, sizeof(buffer));
    if (got <= 0) {
      return false;
    }
    const std::string_view bytes(buffer, static_cast<size_t>(got));
    screen += bytes;
    view.feed(bytes);
    return true;
  }

  bool edits() const {
    termios settings{};
    return tcgetattr(terminal, &settings) == 0 && (settings.c_lflag & tcflag_t{ICANON}) == 0;
  }

  static std::string textOf(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  int waitForExit() {
    int waited = 0;
    // The rest of the output is taken off the terminal, so that the child can end.
    (void)waitFor("a text that never comes");
    pid_t ended = 0;
    for (int i = 0; i < 100 && (ended = waitpid(child, &waited, WNOHANG)) == 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (ended == 0) {
      ADD_FAILURE() << "the program does not end; on the screen: " << screen;
      kill(child, SIGKILL);
      waitpid(child, &waited, 0);
    }
    child = -1;
    return exitStatus(waited);
  }

  void resize(uint16_t columns, uint16_t rows) {
    size = {rows, columns, 0, 0};
    if (terminal >= 0) {
      ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
    }
  }

  std::string terminalType = "xterm";
  bool underShell = false;
  Screen view{80, 24};
  winsize size{};  // of the terminal; nothing: not known
  int terminal = -1;
  pid_t child = -1;
  std::string screen;
};

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
  EXPECT_EQ(textOf(file), "_HiStOrY_V2_\ntyped elsewhere\ntyped here\n");
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
  EXPECT_EQ(textOf(errors),
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
