#pragma once
// A real terminal for the tests of terminal programs: a tmux server of its own (private
// socket, no configuration file) with one detached session running the program. Tests type
// with sendKeys/typeText and read the screen with capture; every wait is bounded.
//
//   Terminal term({program("herald"), "ui"}, {.environment = {{"NO_COLOR", "1"}}});
//   ASSERT_TRUE(term.waitFor("Inbox")) << term.lastCapture();
//   term.sendKeys("Down", "Enter");
//   term.typeText("hello");

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace integration {

using namespace std::chrono_literals;

struct TerminalOptions {
  int cols = 80;
  int rows = 24;
  /// Set for the program after the defaults (LANG and LC_ALL C.UTF-8, TERM as tmux sets
  /// it), so that a test can override any of them, e.g. {"TERM", "dumb"} or {"NO_COLOR", "1"}.
  /// The rest is the test's own environment less COLUMNS, LINES and NO_COLOR, which would
  /// otherwise decide the size and the colours the test checks.
  std::vector<std::pair<std::string, std::string>> environment;
};

/// One program in a detached tmux pane of a private tmux server. The pane stays after the
/// program ends, so that its last screen and exit status can still be read.
class Terminal {
 public:
  /// Starts the server and the program (`argv[0]` is looked up on PATH). Throws
  /// std::runtime_error when tmux cannot start it.
  explicit Terminal(const std::vector<std::string>& argv, const TerminalOptions& options = {});
  /// Kills the server (and with it the program) and removes the socket's directory.
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// Sends named keys, each as tmux names them: "Enter", "Tab", "BTab", "Escape", "Up",
  /// "NPage", "C-c", "M-x", "F5"... A name tmux does not know is typed as text.
  template <class... Keys>
  void sendKeys(const Keys&... keys) {
    sendKeyList({std::string(keys)...});
  }
  void sendKeyList(const std::vector<std::string>& keys);
  /// Types `text` as it is (no key names), e.g. "Enter" is typed as five letters.
  void typeText(const std::string& text);

  /// The visible screen as text, one line per row, trailing blanks dropped.
  std::string capture();
  /// The visible screen with its colours and attributes as escape sequences.
  std::string captureWithEscapes();

  /// Captures every ~50 ms until the screen contains `text` or `limit` passes.
  bool waitFor(const std::string& text, std::chrono::milliseconds limit = 10s);
  /// Captures every ~50 ms until `holds(screen)` or `limit` passes.
  bool waitFor(const std::function<bool(const std::string&)>& holds,
               std::chrono::milliseconds limit = 10s);
  /// Waits until the program has ended.
  bool waitForExit(std::chrono::milliseconds limit = 10s);
  /// The screen that the last capture or wait saw, for a failure's message.
  const std::string& lastCapture() const { return lastCapture_; }

  /// Gives the window (and the program, through SIGWINCH) a new size.
  void resize(int cols, int rows);
  /// The pane's size as tmux has it: {cols, rows}.
  std::pair<int, int> size();

  /// The program's process id (a small shell in the pane runs it and keeps its status).
  pid_t pid();
  bool exited();
  /// The program's exit code once it has ended (128 + N when signal N ended the program
  /// alone); nothing while it runs or when a signal from the terminal (C-c) ended it and its
  /// shell.
  std::optional<int> exitStatus();
  /// Whether the program switched to the alternate screen.
  bool alternateScreen();
  /// Whether the cursor is shown.
  bool cursorVisible();

  /// Runs one tmux command against this server (e.g. {"display", "-p", "#{pane_mode}"}) and
  /// returns its standard output; throws std::runtime_error when tmux fails. The pane is
  /// `target()`.
  std::string tmux(const std::vector<std::string>& args);
  const std::string& target() const { return pane_; }

 private:
  std::string format(const std::string& spec);
  pid_t panePid();

  std::string dir_;
  std::string socket_;
  std::string pane_;
  std::string lastCapture_;
};

/// Whether the process runs: one that ended but is not yet reaped (a zombie) does not.
bool processRunning(pid_t pid);
/// A child of `parent` (the program a shell runs), from /proc; -1 when it has none.
pid_t childOf(pid_t parent);

}  // namespace integration
