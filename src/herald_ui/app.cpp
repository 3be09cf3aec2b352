#include "herald_ui/app.hpp"

#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "herald/brand_client.hpp"
#include "herald/herald.hpp"
#include "herald_ui/curses.hpp"
#include "herald_ui/inbox_screen.hpp"
#include "herald_ui/preferences_screen.hpp"
#include "herald_ui/text.hpp"

extern char** environ;

namespace herald_ui {
namespace {

using namespace std::chrono_literals;

constexpr int kMinRows = 10, kMinCols = 40;
// Relative times ("5m") are drawn again this often; nothing is asked of the service.
constexpr auto kClockTick = 30s;

bool isSet(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

bool isNobodySignedIn(const herald::HeraldError& error) {
  const auto expected = herald::HeraldError::noUserSignedIn();
  return error.message == expected.message && error.type == expected.type;
}

// Whether a program is on the PATH.
bool onPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (!path) return false;
  std::string_view rest(path);
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const std::string dir(rest.substr(0, colon));
    if (!dir.empty() && ::access((dir + "/" + name).c_str(), X_OK) == 0) return true;
    if (colon == std::string_view::npos) break;
    rest.remove_prefix(colon + 1);
  }
  return false;
}

}  // namespace

std::string describe(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const herald::HeraldError& e) {
    return e.message;
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "Unknown Error";
  }
}

struct App::Loop {
  explicit Loop(boost::asio::any_io_executor executor, int inputFd)
      : input(executor, ::fcntl(inputFd, F_DUPFD_CLOEXEC, 3)),
        stops(executor, SIGINT, SIGTERM, SIGHUP),
        resize(executor, SIGWINCH),
        clock(executor) {}
  boost::asio::posix::stream_descriptor input;
  boost::asio::signal_set stops, resize;
  boost::asio::steady_timer clock;
};

App::App(const Options& options, Terminal& terminal) : options_(options), terminal_(terminal) {
  auto& herald = herald::Herald::shared();
  userId_ = herald.userId();
  if (options_.pageSize) platform::blockOn(herald.setPaginationLimit(*options_.pageSize));

  Rgb accent = kDefaultAccent;
  if (options_.brandId) {
    // Asked before the first screen, so that it is drawn in the brand's colours at once.
    try {
      const auto client = platform::blockOn(herald.client());
      if (!client) throw herald::HeraldError::noUserSignedIn();
      const auto response = platform::blockOn(client->brands()->getBrand(*options_.brandId));
      const auto& settings = response.data.brand->settings;
      if (settings && settings->inapp) footer_ = settings->inapp->showHeraldFooter();
      if (settings && settings->colors && settings->colors->primary) {
        if (const auto colour = parseColour(*settings->colors->primary))
          accent = *colour;
        else
          setStatus(L"The brand's colour " + widen(*settings->colors->primary) +
                        L" is not one a terminal can show; the screens keep their own",
                    StatusKind::trouble);
      }
    } catch (...) {
      setStatus(L"Could not read the brand " + widen(*options_.brandId) + L": " +
                    widen(describe(std::current_exception())),
                StatusKind::trouble);
    }
  }
  // NO_COLOR: no colour at all, not even the terminal's default pair written out.
  const bool noColor = isSet("NO_COLOR");
  if (!noColor && has_colors()) start_color();
  theme_ = Theme::make(colourDepth(noColor, has_colors(), COLORS), accent);
  inbox_ = std::make_unique<InboxScreen>(*this);
  preferences_ = std::make_unique<PreferencesScreen>(*this);
  screen_ = inbox_.get();
}

App::~App() { *alive_ = false; }

int App::run() {
  auto& main = platform::MainQueue::shared();
  loop_ = std::make_unique<Loop>(main.executor(), terminal_.inputFd());

  std::function<void()> waitForKeys = [this, &waitForKeys] {
    loop_->input.async_wait(boost::asio::posix::descriptor_base::wait_read,
                            [this, &waitForKeys](const boost::system::error_code& error) {
                              if (error) return;
                              wint_t code = 0;
                              int kind = 0, keys = 0;
                              while ((kind = wget_wch(stdscr, &code)) != ERR) {
                                ++keys;
                                if (kind == KEY_CODE_YES && code == KEY_RESIZE) {
                                  terminal_.resize();
                                  continue;
                                }
                                handleKey({code, kind == KEY_CODE_YES});
                              }
                              // Readable with nothing to read: the terminal has gone (a
                              // hang-up without SIGHUP); waiting again would spin.
                              int pending = 0;
                              if (keys == 0 &&
                                  ::ioctl(terminal_.inputFd(), FIONREAD, &pending) == 0 &&
                                  pending == 0)
                                return quit();
                              redraw();
                              waitForKeys();
                            });
  };
  std::function<void()> waitForResize = [this, &waitForResize] {
    loop_->resize.async_wait([this, &waitForResize](const boost::system::error_code& error, int) {
      if (error) return;
      terminal_.resize();
      draw();
      waitForResize();
    });
  };
  std::function<void()> tick = [this, &tick] {
    loop_->clock.expires_after(kClockTick);
    loop_->clock.async_wait([this, &tick](const boost::system::error_code& error) {
      if (error) return;
      redraw();
      tick();
    });
  };
  loop_->stops.async_wait([this](const boost::system::error_code& error, int) {
    if (!error) quit();
  });
  waitForKeys();
  waitForResize();
  tick();

  // The listener's first callbacks (loading, then the state or the failure) come through
  // the main queue like every later one. It goes with the others when the screens end.
  auto& inbox = static_cast<InboxScreen&>(*inbox_);
  perform<std::shared_ptr<herald::HeraldInboxListener>>(
      herald::Herald::shared().addInboxListener(inbox.callbacks()), {},
      [this](const std::string& why) {
        setStatus(L"Could not start the inbox: " + widen(why), StatusKind::trouble);
      });
  draw();
  main.run();

  *alive_ = false;
  boost::system::error_code ignored;
  loop_->stops.cancel(ignored);
  loop_->resize.cancel(ignored);
  loop_->clock.cancel();
  loop_->input.cancel(ignored);
  return exitCode_;
}

void App::redraw() {
  if (drawPending_) return;
  drawPending_ = true;
  platform::MainQueue::shared().post([this, alive = alive_] {
    if (!*alive) return;
    draw();
  });
}

void App::draw() {
  drawPending_ = false;
  werase(stdscr);
  const int rows = terminal_.rows(), cols = terminal_.cols();
  if (rows < kMinRows || cols < kMinCols) {
    put(0, 0, L"The window is too small for herald ui", cols);
    put(1, 0, L"(it needs " + std::to_wstring(kMinCols) + L" by " + std::to_wstring(kMinRows) +
                  L"; q quits)",
        cols);
    wnoutrefresh(stdscr);
    doupdate();
    return;
  }
  const std::wstring user = userId_ ? widen(*userId_) + L" " : L"";
  putPadded(0, 0, L" Herald", cols, theme_.accentBar);
  put(0, std::max(8, cols - columns(user)), user, cols, theme_.accentBar);
  screen_->drawTabs(1, cols);

  const int footerRow = footer_ ? rows - 1 : rows;
  const int statusRow = footerRow - 1;
  if (nobodySignedIn_)
    drawNobodySignedIn(2, statusRow, cols);
  else
    screen_->draw(2, statusRow, cols);

  const std::wstring hints = L" ? help  q quit ";
  const auto statusAttributes = statusKind_ == StatusKind::trouble ? theme_.error
                                : statusKind_ == StatusKind::good  ? theme_.accent
                                                                   : std::uint64_t{0};
  putPadded(statusRow, 0, L" " + status_, cols - columns(hints), statusAttributes);
  put(statusRow, cols - columns(hints), hints, columns(hints), theme_.dim);
  if (footer_) {
    const std::wstring footer = L"Powered by Herald";
    put(footerRow, std::max(0, (cols - columns(footer)) / 2), footer, cols, theme_.dim);
  }
  if (help_) drawHelp(rows, cols);
  wnoutrefresh(stdscr);
  doupdate();
  if (!nobodySignedIn_ && !help_) screen_->drawn();
}

void App::drawNobodySignedIn(int top, int bottom, int cols) {
  const int row = top + std::max(0, (bottom - top - 5) / 2);
  put(row, 2, L"Nobody is signed in.", cols - 4, theme_.bold);
  put(row + 2, 2, L"Sign in first, then start herald ui again:", cols - 4);
  int line = row + 3;
  for (const auto& part : wrap(widen(options_.signInCommand), cols - 6, 4))
    put(line++, 4, part, cols - 6, theme_.accent);
}

void App::drawHelp(int rows, int cols) {
  const std::wstring common =
      L"Tab        Inbox and Archived\n"
      L"p          preferences (Esc goes back)\n"
      L"?          this help\n"
      L"q          quit";
  const std::wstring text = screen_->help() + L"\n" + common;
  std::vector<std::wstring> lines;
  for (std::size_t start = 0; start <= text.size();) {
    const auto end = std::min(text.find(L'\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  const int height = std::min(rows - 2, static_cast<int>(lines.size()) + 3);
  const int width = std::min(cols - 4, 60);
  const int top = std::max(1, (rows - height) / 2), left = (cols - width) / 2;
  drawBox(top, left, height, width, L"Keys", theme_.accent, theme_.accent);
  for (int i = 0; i < static_cast<int>(lines.size()) && i < height - 3; ++i)
    put(top + 1 + i, left + 2, lines[static_cast<std::size_t>(i)], width - 4);
  put(top + height - 2, left + 2, L"any key closes this", width - 4, theme_.dim);
}

void App::handleKey(const Key& key) {
  if (help_) {
    help_ = false;
    if (key.is(L'q')) quit();
    return;
  }
  if (key.is(L'q')) return quit();
  if (key.is(L'?')) {
    help_ = true;
    return;
  }
  if (key.is(L'\f')) {  // Ctrl-L: the whole screen again
    clearok(curscr, TRUE);
    return;
  }
  if (!nobodySignedIn_) screen_->key(key);
}

void App::setStatus(std::wstring text, StatusKind kind) {
  status_ = std::move(text);
  statusKind_ = kind;
  redraw();
}

void App::showInbox() {
  screen_ = inbox_.get();
  redraw();
}

void App::showPreferences() {
  static_cast<PreferencesScreen&>(*preferences_).open();
  screen_ = preferences_.get();
  redraw();
}

void App::quit() { platform::MainQueue::shared().stop(); }

void App::openLink(const std::string& href) {
  if ((isSet("DISPLAY") || isSet("WAYLAND_DISPLAY")) && onPath("xdg-open")) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
      posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd ? O_WRONLY : O_RDONLY, 0);
    pid_t pid = -1;
    std::string program = "xdg-open", link = href;
    char* argv[] = {program.data(), link.data(), nullptr};
    const int failed = posix_spawnp(&pid, "xdg-open", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed == 0) {
      // Reaped aside: a browser may take its time to answer.
      std::thread([pid] { ::waitpid(pid, nullptr, 0); }).detach();
      setStatus(L"Opened " + widen(href), StatusKind::good);
      return;
    }
  }
  setStatus(L"Link: " + widen(href));
}

void App::inboxFailed(const herald::HeraldError& error) {
  if (isNobodySignedIn(error)) {
    nobodySignedIn_ = true;
    setStatus(L"Nobody is signed in", StatusKind::trouble);
    return;
  }
  // The connection state that follows says what happens next; the reason stays beside it.
  lastFailure_ = widen(error.message);
  setStatus(L"Connection lost: " + lastFailure_, StatusKind::trouble);
}

// The inbox restarts itself after a loss; the status line only says how it stands.
void App::connectionChanged(herald::InboxConnectionState state, double retryIn) {
  using State = herald::InboxConnectionState;
  const auto& inbox = static_cast<InboxScreen&>(*inbox_);
  switch (state) {
    case State::live:
      lastFailure_.clear();
      setStatus(L"Live", StatusKind::good);
      break;
    case State::connecting:
      if (lastFailure_.empty()) setStatus(L"Connecting" + glyph(L"\u2026", L"..."));
      break;
    case State::reconnecting: {
      const auto seconds = static_cast<long>(std::ceil(retryIn));
      // The wait first: the reason may be long, and the line is cut at the terminal's edge.
      setStatus((inbox.loaded() ? L"Connection lost" : L"Could not load the inbox") +
                    std::wstring(L", retrying in ") + std::to_wstring(seconds) + L" s" +
                    (lastFailure_.empty() ? L"" : L": " + lastFailure_),
                StatusKind::trouble);
      break;
    }
    case State::offline:
      if (!nobodySignedIn_)
        setStatus(L"Offline" + (lastFailure_.empty() ? L"" : L": " + lastFailure_),
                  StatusKind::trouble);
      break;
  }
}

namespace {

// A task without a value, as one with: perform's outcome is then a value or a failure.
boost::asio::awaitable<bool> finished(boost::asio::awaitable<void> task) {
  co_await std::move(task);
  co_return true;
}

}  // namespace

void App::perform(boost::asio::awaitable<void> task, std::function<void()> done, Failed failed) {
  std::function<void(bool)> then;
  if (done) then = [done = std::move(done)](bool) { done(); };
  perform<bool>(finished(std::move(task)), std::move(then), std::move(failed));
}

}  // namespace herald_ui
