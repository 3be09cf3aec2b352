#include "herald_ui/ui.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>

#include "herald/herald.hpp"
#include "herald_ui/app.hpp"
#include "herald_ui/terminal.hpp"

namespace herald_ui {
namespace {

// What is left to do once the screens are gone (the listener removed, the socket closed with
// its handshake) may wait on a service that no longer answers; a person who quit should not.
constexpr auto kFarewellLimit = std::chrono::seconds(3);

bool farewell() {
  auto done = platform::spawnFuture([]() -> boost::asio::awaitable<void> {
    auto& herald = herald::Herald::shared();
    co_await herald.removeAllInboxListeners();
    co_await herald.didEnterBackground();
  }());
  return done.wait_for(kFarewellLimit) == std::future_status::ready;
}

}  // namespace

int run(const Options& options) {
  int status = kQuit;
  bool finished = true;
  try {
    Terminal terminal(options.logFile);
    App app(options, terminal);
    status = app.run();
    // While the library's lines still go to the log.
    finished = farewell();
  } catch (const TerminalError& error) {
    std::fprintf(stderr, "herald: %s\n", error.what());
    return kNoTerminal;
  } catch (...) {
    // The terminal is back (its destructor ran on the way here); now the reason can be read.
    std::fprintf(stderr, "herald: the screens failed: %s\n",
                 describe(std::current_exception()).c_str());
    status = kFailed;
  }
  if (!finished) {
    std::fflush(stdout);
    std::fflush(stderr);
    std::_Exit(status);
  }
  return status;
}

}  // namespace herald_ui
