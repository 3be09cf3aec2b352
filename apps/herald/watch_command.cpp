// `herald inbox watch --raw`: the signed-in user's realtime socket as it is, one JSON line per
// frame on standard output, until SIGINT or SIGTERM (which close the connection with 1000) or
// until the connection ends. Without --raw the watch is the live inbox (live_watch.cpp).

#include <boost/asio/signal_set.hpp>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "commands.hpp"
#include "herald/inbox_socket.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "platform/main_queue.hpp"

namespace cli {
namespace {

using Clock = std::chrono::steady_clock;

// How the watch ended: set once, by the first of the signal, the service or a failure.
struct Ending {
  std::mutex mutex;
  bool ended = false;
  int status = ExitStatus::success;

  /// The first end says why (`say`) and only then stops the main queue: once it has stopped,
  /// the process may be gone before a line written after it.
  void end(int exitStatus, const std::function<void()>& say) {
    {
      std::lock_guard lock(mutex);
      if (ended) return;
      ended = true;
      status = exitStatus;
    }
    say();
    platform::MainQueue::shared().stop();
  }
};

std::string describe(platform::WebSocketCloseCode code, const std::optional<std::string>& reason) {
  std::string text = "code " + std::to_string(static_cast<unsigned>(code));
  if (reason && !reason->empty()) text += ": " + *reason;
  return text;
}

}  // namespace

int watchInbox(const WatchRequest& request, Context& context) {
  return request.raw ? watchRawInbox(request, context) : watchLiveInbox(request, context);
}

int watchRawInbox(const WatchRequest& request, Context& context) {
  // Until the main queue runs: a signal during the sign-in or the connect ends at once.
  std::optional<EndOnSignal> endOnSignal(std::in_place);
  const auto session = platform::blockOn(resumeSession(context));
  if (!session.client) return session.status;

  herald::InboxSocketManager manager;
  const auto socket = platform::blockOn(manager.updateInstance(session.client->options));
  auto ending = std::make_shared<Ending>();
  const auto& report = context.report;
  const bool json = report.json();
  const auto note = [json](const std::string& text) {
    if (!json) writeLine(stderr, "herald: " + text);
  };

  socket->receivedMessage = [](herald::InboxMessagePtr message) {
    writeLine(stdout, platform::toJSON(boost::json::object{{"type", "message"},
                                                           {"message", message->toJSON()}}));
  };
  socket->receivedMessageEvent = [](const herald::MessageEvent& event) {
    writeLine(stdout,
              platform::toJSON(boost::json::object{{"type", "event"}, {"event", event.toJSON()}}));
  };
  // The URL without its query, which holds the access token or the client key.
  const auto where = socket->url.substr(0, socket->url.find('?'));
  socket->onOpen = [note, where, user = session.client->options.userId] {
    note("watching " + where + " as " + user + " (Ctrl-C ends)");
  };
  socket->onError = [ending, &report](const platform::Error& error) {
    ending->end(ExitStatus::unreachable, [&] {
      report.failure(Failure{error.code(), error.localizedDescription(), error.domain(),
                             ExitStatus::unreachable},
                     "inbox watch");
    });
  };
  socket->onClose = [ending, &report](platform::WebSocketCloseCode code,
                                      std::optional<std::string> reason) {
    ending->end(ExitStatus::unreachable, [&] {
      report.failure(Failure{std::nullopt, "the service closed the connection (" +
                                               describe(code, reason) + ")",
                             "connection_closed", ExitStatus::unreachable},
                     "inbox watch");
    });
  };

  // A stream that ends without a closing handshake has no close event of its own.
  socket->onEnd = [ending, &report] {
    ending->end(ExitStatus::unreachable, [&] {
      report.failure(Failure{std::nullopt, "the connection ended", "connection_closed",
                             ExitStatus::unreachable},
                     "inbox watch");
    });
  };

  platform::blockOn(socket->connect());
  platform::blockOn(socket->sendSubscribe(5));
  socket->keepAlive(request.keepAlive);
  // The main queue's loop takes the signals over from here.
  boost::asio::signal_set signals(platform::MainQueue::shared().executor(), SIGINT, SIGTERM);
  std::shared_ptr<platform::WebSocketTask> closing;
  signals.async_wait([&](const boost::system::error_code& error, int) {
    if (error) return;
    // Our own close: its handshake's event must not count as the service's.
    socket->onClose = nullptr;
    closing = socket->webSocketTask();
    socket->disconnect();
    ending->end(ExitStatus::success, [&] { note("closed (code 1000)"); });
  });
  endOnSignal.reset();

  platform::MainQueue::shared().run();

  signals.cancel();
  platform::blockOn(manager.closeSocket());
  // Let the closing handshake reach the service before the process ends (bounded: a service
  // that does not answer it is left behind).
  const auto deadline = Clock::now() + std::chrono::seconds(2);
  while (closing && closing->state() != platform::WebSocketTask::State::completed &&
         Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::lock_guard lock(ending->mutex);
  return ending->status;
}

}  // namespace cli
