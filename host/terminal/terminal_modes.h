// What the line editor sets in the person's terminal, and its undoing where the program is stopped
// (Ctrl-Z) or ended by a signal: the modes of the terminal and bracketed pastes.
#pragma once

namespace zym {

// While it lives, the terminal marks what is pasted, and signals give the terminal back before they
// stop or end the program. When the program goes on, the terminal is as it was before. Signals that
// were ignored when the program started stay ignored. One at a time.
class TerminalModes {
 public:
  // input, output: descriptors of the terminal.
  TerminalModes(int input, int output);
  ~TerminalModes();
  TerminalModes(const TerminalModes&) = delete;
  TerminalModes& operator=(const TerminalModes&) = delete;

  // The modes that the terminal has are the editor's: they are put back too, until the editing
  // ends.
  void beginEditing();
  void endEditing();
  // Whether the program was continued after a stop, since the last call. Then the screen was
  // written to by others. A program that was continued in the background first stops until it is in
  // the foreground, as one does that reads there.
  bool wasContinued();
  // Whether the terminal's size may have changed since the last call.
  bool wasResized();
};

// Undoes what TerminalModes has set, if anything. For signal handlers that end the program.
void giveTerminalBack();

}  // namespace zym
