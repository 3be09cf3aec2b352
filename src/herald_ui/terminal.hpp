#pragma once
// The terminal while the screens are up: ncurses started on standard input and output, and
// the terminal put back as it was on every way out (return, exception, signal, crash).

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace herald_ui {

/// The terminal cannot hold the screens (not a terminal, TERM=dumb, unknown to terminfo).
class TerminalError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class Terminal {
 public:
  /// Takes over the terminal. Until it is destroyed, the process's standard output and error
  /// go to `logFile` (or nowhere when it is empty), so that nothing a library prints lands in
  /// the middle of a screen. Throws `TerminalError`.
  explicit Terminal(const std::string& logFile);
  /// Ends ncurses and gives the terminal and both outputs back.
  ~Terminal();
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  /// The descriptor keys arrive on, for the event loop to watch.
  int inputFd() const { return inputFd_; }
  int rows() const;
  int cols() const;
  /// Takes the window's size from the terminal again (after SIGWINCH).
  void resize();

 private:
  void giveBack() noexcept;

  int inputFd_ = -1, outputFd_ = -1;
  int savedStdout_ = -1, savedStderr_ = -1;
  void* in_ = nullptr;      // FILE*
  void* out_ = nullptr;     // FILE*
  void* screen_ = nullptr;  // SCREEN*
  bool active_ = false;
};

/// Drawing on the whole screen: each call cuts its text to `width` columns.
void put(int row, int col, std::wstring_view text, int width, std::uint64_t attributes = 0);
/// `put`, padded with spaces to the whole `width` in the same attributes.
void putPadded(int row, int col, std::wstring_view text, int width, std::uint64_t attributes = 0);
/// A framed box (lines when the terminal takes Unicode, "+-|" otherwise) with `title` in its
/// top edge; its inside is cleared.
void drawBox(int top, int left, int height, int width, std::wstring_view title,
             std::uint64_t frame, std::uint64_t titleAttributes);

}  // namespace herald_ui
