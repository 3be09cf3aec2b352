#pragma once
/// A thin WebSocket connection for the service's realtime endpoint: connect, send JSON,
/// keep alive, and one receive at a time handed to `onMessageReceived` in arrival order.
///
///   auto socket = herald::HeraldSocket::create("ws://127.0.0.1:8080/realtime/?auth=JWT");
///   socket->onMessageReceived = [](std::string text) { std::puts(text.c_str()); };
///   socket->onError = [](const platform::Error& e) { std::puts(e.what()); };
///   co_await socket->connect();   // returns at once; onOpen comes later
///   socket->keepAlive(300);       // {"action": "keepAlive"} every 300 s, from the main queue
///   socket->disconnect();         // close code 1000
///
/// The callbacks run on the web-socket thread (see platform/web_socket.hpp). When the
/// connection closes (either side), the receive loop ends quietly and, if the signed-in
/// client logs, writes "WebSocket closed"; a stream that ends without any close frame also
/// reaches `onEnd`. Any other failure reaches `onError`. A socket never reconnects by itself.

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/web_socket.hpp"

namespace herald {

/// A callback slot that may be set, cleared and called from different threads: a call takes
/// the function set at that moment (one reference count, no copy of the function) and runs it
/// outside the lock, so that it may set or clear the slot itself.
///
///   herald::SocketCallback<void(std::string)> onText;
///   onText = [](std::string t) { use(t); };
///   onText("hello");   // nothing happens while unset
///   onText = nullptr;
template <class Signature>
class SocketCallback;

template <class... Args>
class SocketCallback<void(Args...)> {
 public:
  using Function = std::function<void(Args...)>;

  SocketCallback() = default;
  SocketCallback(const SocketCallback&) = delete;
  SocketCallback& operator=(const SocketCallback&) = delete;

  SocketCallback& operator=(Function function) {
    auto next = function ? std::make_shared<const Function>(std::move(function)) : nullptr;
    std::lock_guard lock(mutex_);
    function_.swap(next);
    return *this;
  }
  SocketCallback& operator=(std::nullptr_t) { return *this = Function(); }

  explicit operator bool() const {
    std::lock_guard lock(mutex_);
    return function_ != nullptr;
  }

  /// Runs the function set now, if any.
  void operator()(Args... args) const {
    std::shared_ptr<const Function> function;
    {
      std::lock_guard lock(mutex_);
      function = function_;
    }
    if (function) (*function)(std::forward<Args>(args)...);
  }

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<const Function> function_;
};

class HeraldSocket : public platform::WebSocketDelegate,
                     public std::enable_shared_from_this<HeraldSocket> {
 public:
  /// A closed socket for `url`; nothing connects until `connect()`.
  static std::shared_ptr<HeraldSocket> create(
      std::string url, platform::WebSocketConfiguration configuration =
                           platform::WebSocketConfiguration::defaultConfiguration());
  ~HeraldSocket() override;
  HeraldSocket(const HeraldSocket&) = delete;
  HeraldSocket& operator=(const HeraldSocket&) = delete;

  /// The current connection, or none.
  std::shared_ptr<platform::WebSocketTask> webSocketTask() const;
  /// Makes this socket's connections; this socket is its delegate.
  const platform::WebSocketSession& urlSession() const { return *urlSession_; }
  /// Each received frame as text (a binary frame that is not UTF-8 is left out).
  SocketCallback<void(std::string)> onMessageReceived;
  SocketCallback<void()> onOpen;
  /// The close code and the reason bytes the peer sent, if any.
  SocketCallback<void(platform::WebSocketCloseCode, std::optional<std::string>)> onClose;
  /// A failure of the connection other than its closing.
  SocketCallback<void(const platform::Error&)> onError;
  /// The current connection's stream simply ended, with no close frame from either side (a
  /// service that went away): the one quiet end that `onClose` does not hear.
  SocketCallback<void()> onEnd;
  const std::string url;
  /// True while a keep-alive timer is set.
  bool hasPingTimer() const;

  /// Disconnects first, then starts a new connection to `url` and arms one receive; returns
  /// without waiting for the connection to open. Throws `platform::Error` `badURL` when
  /// `url` is not a ws or wss URL.
  boost::asio::awaitable<void> connect();
  /// Stops the keep-alive timer and closes the connection with code 1000, no reason.
  void disconnect();
  /// Sends `message` as one JSON text frame; does nothing when there is no connection.
  /// Throws `platform::Error` when the connection fails before the frame is sent.
  boost::asio::awaitable<void> send(const boost::json::object& message);
  /// Sends {"action": "keepAlive"} every `interval` seconds from a timer on the main queue,
  /// replacing any earlier timer. The timer holds the socket weakly.
  void keepAlive(double interval);

  void didOpen(platform::WebSocketTask& task, const std::optional<std::string>& protocol) override;
  void didClose(platform::WebSocketTask& task, platform::WebSocketCloseCode code,
                const std::optional<std::string>& reason) override;

 protected:
  HeraldSocket(std::string url, platform::WebSocketConfiguration configuration);
  /// Finishes construction once a shared pointer owns `socket` (the session needs it).
  static void attach(const std::shared_ptr<HeraldSocket>& socket);
  /// A line about something the socket dropped or could not do; nothing by default.
  virtual void report(std::string_view line) const;

 private:
  class PingTimer;
  void armReceive(const std::shared_ptr<platform::WebSocketTask>& task);
  void received(const std::shared_ptr<platform::WebSocketTask>& task,
                std::optional<platform::WebSocketMessage> message,
                std::optional<platform::Error> error);

  platform::WebSocketConfiguration configuration_;
  std::unique_ptr<platform::WebSocketSession> urlSession_;
  mutable std::mutex mutex_;
  std::shared_ptr<platform::WebSocketTask> webSocketTask_;
  std::shared_ptr<PingTimer> pingTimer_;
};

}  // namespace herald
