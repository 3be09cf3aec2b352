#include "herald_ui/terminal.hpp"

#include <fcntl.h>
#include <langinfo.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>

#include "herald_ui/curses.hpp"
// For tigetstr only; it names every terminfo capability as a macro ("lines", "columns"…).
#include <term.h>
#undef lines
#undef columns
#include "herald_ui/text.hpp"

namespace herald_ui {
namespace {

// What a signal handler needs to give the terminal back, prepared while nothing is wrong:
// only plain memory, a descriptor and async-signal-safe calls are used from there.
struct Rescue {
  int fd = -1;
  termios saved{};
  std::array<char, 256> sequence{};
  std::size_t length = 0;
  std::atomic<bool> armed{false};
};
Rescue rescue;

constexpr std::array kCrashSignals{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};
std::array<struct sigaction, kCrashSignals.size()> previousActions{};
std::terminate_handler previousTerminate = nullptr;
Terminal* current = nullptr;

void rescueTerminal() noexcept {
  if (!rescue.armed.exchange(false)) return;
  ::tcsetattr(rescue.fd, TCSANOW, &rescue.saved);
  [[maybe_unused]] const auto written = ::write(rescue.fd, rescue.sequence.data(), rescue.length);
}

extern "C" void onCrash(int signal) {
  rescueTerminal();
  // The handler was reset on entry (SA_RESETHAND): this ends the process as the signal would
  // have, core dump and all.
  ::raise(signal);
}

// Appends a terminfo string capability to the rescue sequence, if the terminal has it.
void appendCapability(const char* name) {
  char* value = tigetstr(const_cast<char*>(name));
  if (value == nullptr || value == reinterpret_cast<char*>(-1)) return;
  const std::size_t length = std::strlen(value);
  if (rescue.length + length > rescue.sequence.size()) return;
  std::memcpy(rescue.sequence.data() + rescue.length, value, length);
  rescue.length += length;
}

int redirect(int fd, const std::string& logFile) {
  const int saved = ::dup(fd);
  const int target = logFile.empty() ? ::open("/dev/null", O_WRONLY | O_CLOEXEC)
                                     : ::open(logFile.c_str(),
                                              O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (target < 0) {
    ::close(saved);
    throw TerminalError("cannot write the log to " + logFile + ": " + std::strerror(errno));
  }
  ::dup2(target, fd);
  ::close(target);
  return saved;
}

}  // namespace

Terminal::Terminal(const std::string& logFile) {
  if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO))
    throw TerminalError(
        "the screens need a terminal, and standard input or output is not one (in a script, "
        "use herald inbox list or herald inbox watch)");
  const char* term = std::getenv("TERM");
  if (term == nullptr || *term == '\0' || std::string_view(term) == "dumb")
    throw TerminalError(
        "the screens need a terminal that can move the cursor, and TERM is " +
        std::string(term && *term ? "dumb" : "not set") +
        " (herald inbox list and herald prefs list print the same as plain text)");

  // The character set only: numbers in requests and logs keep the C locale's form.
  ::setlocale(LC_CTYPE, "");
  // Otherwise the screens draw in ASCII.
  setUnicode(std::string_view(::nl_langinfo(CODESET)) == "UTF-8");

  // ncurses gets descriptors of its own on the terminal; 1 and 2 then go to the log.
  inputFd_ = ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  outputFd_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  ::tcgetattr(outputFd_, &rescue.saved);
  rescue.fd = outputFd_;
  std::fflush(stdout);
  std::fflush(stderr);
  savedStdout_ = redirect(STDOUT_FILENO, logFile);
  try {
    savedStderr_ = redirect(STDERR_FILENO, logFile);
  } catch (...) {
    giveBack();
    throw;
  }
  in_ = ::fdopen(inputFd_, "r");
  out_ = ::fdopen(outputFd_, "w");
  screen_ = newterm(nullptr, static_cast<FILE*>(out_), static_cast<FILE*>(in_));
  if (screen_ == nullptr) {
    giveBack();
    throw TerminalError("the screens do not know the terminal " + std::string(term) +
                        " (terminfo has no entry for it)");
  }
  active_ = true;
  set_term(static_cast<SCREEN*>(screen_));
  cbreak();
  noecho();
  nonl();
  intrflush(stdscr, FALSE);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
  set_escdelay(25);
  curs_set(0);

  // The way back for a crash: leave the alternate screen, show the cursor, plain text.
  rescue.length = 0;
  appendCapability("sgr0");
  appendCapability("cnorm");
  appendCapability("rmcup");
  rescue.armed = true;
  struct sigaction action {};
  action.sa_handler = onCrash;
  action.sa_flags = SA_RESETHAND | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  for (std::size_t i = 0; i < kCrashSignals.size(); ++i)
    ::sigaction(kCrashSignals[i], &action, &previousActions[i]);
  current = this;
  previousTerminate = std::set_terminate([] {
    // An exception nobody caught: the terminal first, then the usual message (to the real
    // standard error, which is back by then) and the abort.
    if (current) current->giveBack();
    if (previousTerminate) previousTerminate();
    std::abort();
  });
}

Terminal::~Terminal() { giveBack(); }

void Terminal::giveBack() noexcept {
  if (active_) {
    active_ = false;
    rescue.armed = false;
    endwin();
    delscreen(static_cast<SCREEN*>(screen_));
    screen_ = nullptr;
    for (std::size_t i = 0; i < kCrashSignals.size(); ++i)
      ::sigaction(kCrashSignals[i], &previousActions[i], nullptr);
    std::set_terminate(previousTerminate);
    current = nullptr;
  }
  if (outputFd_ >= 0) ::tcsetattr(outputFd_, TCSANOW, &rescue.saved);
  std::fflush(stdout);
  std::fflush(stderr);
  if (savedStdout_ >= 0) ::dup2(savedStdout_, STDOUT_FILENO), ::close(savedStdout_);
  if (savedStderr_ >= 0) ::dup2(savedStderr_, STDERR_FILENO), ::close(savedStderr_);
  savedStdout_ = savedStderr_ = -1;
  if (in_) std::fclose(static_cast<FILE*>(in_));
  else if (inputFd_ >= 0) ::close(inputFd_);
  if (out_) std::fclose(static_cast<FILE*>(out_));
  else if (outputFd_ >= 0) ::close(outputFd_);
  in_ = out_ = nullptr;
  inputFd_ = outputFd_ = -1;
}

int Terminal::rows() const { return getmaxy(stdscr); }
int Terminal::cols() const { return getmaxx(stdscr); }

void Terminal::resize() {
  winsize size{};
  if (::ioctl(outputFd_, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0)
    resize_term(size.ws_row, size.ws_col);
  clearok(curscr, TRUE);
}

void put(int row, int col, std::wstring_view text, int width, std::uint64_t attributes) {
  if (width <= 0 || row < 0 || row >= getmaxy(stdscr)) return;
  const auto shown = fit(text, std::min(width, getmaxx(stdscr) - col));
  wattrset(stdscr, static_cast<int>(attributes));
  mvwaddnwstr(stdscr, row, col, shown.c_str(), static_cast<int>(shown.size()));
  wattrset(stdscr, A_NORMAL);
}

void putPadded(int row, int col, std::wstring_view text, int width, std::uint64_t attributes) {
  width = std::min(width, getmaxx(stdscr) - col);
  if (width <= 0) return;
  put(row, col, pad(text, width), width, attributes);
}

void drawBox(int top, int left, int height, int width, std::wstring_view title,
             std::uint64_t frame, std::uint64_t titleAttributes) {
  if (height < 2 || width < 2) return;
  const bool u = unicode();
  const wchar_t horizontal = u ? L'\u2500' : L'-', vertical = u ? L'\u2502' : L'|';
  const std::wstring corners = u ? L"\u250c\u2510\u2514\u2518" : L"++++";
  const std::wstring inner(static_cast<std::size_t>(width - 2), horizontal);
  put(top, left, corners.substr(0, 1) + inner + corners.substr(1, 1), width, frame);
  for (int row = top + 1; row < top + height - 1; ++row) {
    put(row, left, std::wstring(1, vertical), 1, frame);
    put(row, left + 1, std::wstring(static_cast<std::size_t>(width - 2), L' '), width - 2);
    put(row, left + width - 1, std::wstring(1, vertical), 1, frame);
  }
  put(top + height - 1, left, corners.substr(2, 1) + inner + corners.substr(3, 1), width, frame);
  if (!title.empty()) put(top, left + 2, L" " + std::wstring(title) + L" ", width - 4, titleAttributes);
}

}  // namespace herald_ui
