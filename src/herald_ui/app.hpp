#pragma once
// The screens' application: the event loop on the main queue (keys, signals, timers, the
// live inbox's callbacks), the status line, the header and the footer, and the way work on
// the client is started and its outcome brought back to the main thread.

#include <boost/asio/awaitable.hpp>
#include <cwchar>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "herald/herald_error.hpp"
#include "herald/inbox_module.hpp"
#include "herald_ui/terminal.hpp"
#include "herald_ui/theme.hpp"
#include "herald_ui/ui.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"

namespace herald_ui {

/// A key as ncurses gives it: a character, or a function key (`KEY_UP`…).
struct Key {
  wint_t code = 0;
  bool function = false;
  bool is(wchar_t c) const { return !function && code == static_cast<wint_t>(c); }
};

/// One screen between the header and the status line.
class Screen {
 public:
  virtual ~Screen() = default;
  /// Draws rows [top, bottom) of the whole width.
  virtual void draw(int top, int bottom, int cols) = 0;
  /// Takes a key; false leaves it to the application (quit, help).
  virtual bool key(const Key& key) = 0;
  /// After the screen is on the terminal: what coming into view asks for (a next page).
  virtual void drawn() {}
  /// The header's second line (tabs, or the screen's name).
  virtual void drawTabs(int row, int cols) = 0;
  /// The keys of this screen, for the help.
  virtual std::wstring help() const = 0;
};

enum class StatusKind { info, good, trouble };

/// Why a failure happened, in a line: a service error's message, else what() says.
std::string describe(std::exception_ptr error);

class App {
 public:
  App(const Options& options, Terminal& terminal);
  ~App();

  /// Runs until quit; the exit status.
  int run();

  const Theme& theme() const { return theme_; }

  /// Draws again once the work at hand is done (many changes, one drawing).
  void redraw();
  void setStatus(std::wstring text, StatusKind kind = StatusKind::info);
  void showInbox();
  void showPreferences();
  void quit();
  /// Hands `href` to xdg-open when there is a display to show it on; says it in the status
  /// line either way.
  void openLink(const std::string& href);

  /// The live inbox told of a failure: nobody signed in, or a lost connection (which the
  /// inbox itself retries).
  void inboxFailed(const herald::HeraldError& error);
  /// The status line: Live, "Connection lost, retrying in N s", Offline.
  void connectionChanged(herald::InboxConnectionState state, double retryIn);

  using Failed = std::function<void(const std::string& why)>;

  /// Runs `task` on the shared executor; `done` or `failed` then runs on the main thread,
  /// unless the application has ended.
  template <class T>
  void perform(boost::asio::awaitable<T> task, std::function<void(T)> done, Failed failed = {});
  void perform(boost::asio::awaitable<void> task, std::function<void()> done = {},
               Failed failed = {});

 private:
  struct Loop;
  void draw();
  void drawNobodySignedIn(int top, int bottom, int cols);
  void drawHelp(int rows, int cols);
  void handleKey(const Key& key);

  Options options_;
  Terminal& terminal_;
  Theme theme_;
  bool footer_ = true;
  /// The user the screens are for; none when nobody is signed in.
  std::optional<std::string> userId_;
  bool nobodySignedIn_ = false;
  std::wstring status_;
  StatusKind statusKind_ = StatusKind::info;
  bool help_ = false;
  bool drawPending_ = false;
  std::wstring lastFailure_;  // of the loss the inbox is recovering from
  int exitCode_ = kQuit;
  // Checked by everything posted back to the main queue: false once run() has returned.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  std::unique_ptr<Loop> loop_;
  std::unique_ptr<Screen> inbox_, preferences_;
  Screen* screen_ = nullptr;
};

// ---- templates --------------------------------------------------------------------------------

template <class T>
void App::perform(boost::asio::awaitable<T> task, std::function<void(T)> done, Failed failed) {
  platform::spawnDetached([alive = alive_, task = std::move(task), done = std::move(done),
                           failed = std::move(failed)]() mutable -> boost::asio::awaitable<void> {
    std::optional<T> value;
    std::string why;
    try {
      value.emplace(co_await std::move(task));
    } catch (...) {
      why = describe(std::current_exception());
    }
    platform::MainQueue::shared().post([alive, value = std::move(value), why = std::move(why),
                                        done = std::move(done),
                                        failed = std::move(failed)]() mutable {
      if (!*alive) return;
      if (value) {
        if (done) done(std::move(*value));
      } else if (failed) {
        failed(why);
      }
    });
  });
}

}  // namespace herald_ui
