#pragma once
/// WebSocket connections (`ws://` and `wss://`), the stand-in for the phone platform's
/// WebSocket tasks. A session makes tasks; a task is created suspended, `resume` connects
/// it, and every completion and delegate event runs on the process's web-socket thread, one
/// at a time.
///
///   struct Printer : platform::WebSocketDelegate {
///     void didOpen(platform::WebSocketTask&) override { std::puts("open"); }
///   };
///   auto printer = std::make_shared<Printer>();
///   platform::WebSocketSession session(platform::WebSocketConfiguration::defaultConfiguration(),
///                                      printer);
///   auto task = session.webSocketTask("ws://127.0.0.1:8080/realtime/?auth=JWT");
///   task->resume();
///   co_await task->send(R"({"action":"keepAlive"})");
///   auto frame = co_await task->receive();  // one text or binary frame
///   task->cancel(platform::WebSocketCloseCode::normalClosure, std::nullopt);
///
/// Failures are `platform::Error` values:
/// - a receive (or send) pending when the connection closes (a close frame from either side,
///   `cancel`, or the peer ending the TCP stream) fails with `posix_error::socketNotConnected`
///   in `posix_error::domain`: the quiet end of a connection;
/// - everything else is in `url_error::domain` with a description that says what happened:
///   `cannotConnectToHost` (refused, unreachable), `cannotFindHost`, `timedOut` (handshake or
///   idle time-out), `secureConnectionFailed` (TLS, e.g. "certificate verify failed"),
///   `badServerResponse` (the upgrade answered with another status than 101, named),
///   `networkConnectionLost` (reset, a protocol error), `dataLengthExceedsMaximum` (a frame
///   over `maximumMessageSize`; the connection is closed with 1009).

#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/error.hpp"

namespace platform {

/// The POSIX error domain as the phone platform names it, and its number for "socket is not
/// connected" (the phone's ENOTCONN).
namespace posix_error {
inline constexpr const char* domain = "NSPOSIXErrorDomain";
inline constexpr long socketNotConnected = 57;
}  // namespace posix_error

/// A close code; values outside the named ones (4000–4999 of an application) pass through.
enum class WebSocketCloseCode : std::uint16_t {
  invalid = 0,
  normalClosure = 1000,
  goingAway = 1001,
  protocolError = 1002,
  unsupportedData = 1003,
  noStatusReceived = 1005,
  abnormalClosure = 1006,
  invalidFramePayloadData = 1007,
  policyViolation = 1008,
  messageTooBig = 1009,
  mandatoryExtensionMissing = 1010,
  internalServerError = 1011,
  tlsHandshakeFailure = 1015,
};

/// One received frame.
struct WebSocketMessage {
  enum class Kind { string, data };
  Kind kind = Kind::string;
  /// The text (as received; a text frame's UTF-8 is checked by the connection) or the bytes.
  std::string payload;
};

class WebSocketTask;

/// Connection events of a session's tasks, on the web-socket thread. The session holds its
/// delegate weakly: once the delegate is gone, events are dropped.
class WebSocketDelegate {
 public:
  virtual ~WebSocketDelegate() = default;
  /// The upgrade succeeded; `protocol` is the subprotocol the server chose, if any.
  virtual void didOpen(WebSocketTask& task, const std::optional<std::string>& protocol);
  /// The closing handshake finished (begun by either side): the code and reason the peer
  /// sent (`noStatusReceived` and no reason when its close frame had none).
  virtual void didClose(WebSocketTask& task, WebSocketCloseCode code,
                        const std::optional<std::string>& reason);
};

struct WebSocketConfiguration {
  /// TCP connect, TLS and the upgrade together.
  std::chrono::milliseconds handshakeTimeout{std::chrono::seconds(15)};
  /// With nothing received for half of this, a ping is sent; with nothing for all of it, the
  /// connection fails with `timedOut`.
  std::chrono::milliseconds idleTimeout{std::chrono::seconds(120)};
  /// Larger frames fail the receive with `dataLengthExceedsMaximum`.
  std::size_t maximumMessageSize = 16u * 1024 * 1024;
  /// The trust anchors for `wss`; none: `trustedCertificates()` (tls.hpp) when the
  /// connection starts.
  std::optional<std::filesystem::path> caFile;

  static WebSocketConfiguration defaultConfiguration() { return {}; }
};

using WebSocketReceiveCompletion =
    std::function<void(std::optional<WebSocketMessage>, std::optional<Error>)>;
using WebSocketSendCompletion = std::function<void(std::optional<Error>)>;

class WebSocketTask {
 public:
  enum class State { suspended, running, canceling, completed };

  virtual ~WebSocketTask() = default;

  virtual const std::string& url() const = 0;
  virtual State state() const = 0;

  /// Connects. Nothing waits for the connection: receives and sends made before it is open
  /// wait for it, in order.
  virtual void resume() = 0;

  /// Receives the next frame; frames are handed out one per call in arrival order (calls
  /// waiting at once are answered in the order made). `completion` runs once, on the
  /// web-socket thread, with the frame or the error.
  virtual void receive(WebSocketReceiveCompletion completion) = 0;
  /// Sends `text` as one text frame; `completion` runs once, on the web-socket thread.
  virtual void send(std::string text, WebSocketSendCompletion completion) = 0;

  /// Starts the closing handshake with `code` and `reason` (at most 123 bytes), or drops the
  /// connection if it is not open yet. Waiting receives and sends end with
  /// `socketNotConnected`. Calling it again does nothing.
  virtual void cancel(WebSocketCloseCode code, std::optional<std::string> reason) = 0;

  /// The code this side sent or the peer sent first; `invalid` while none was.
  virtual WebSocketCloseCode closeCode() const = 0;
  virtual std::optional<std::string> closeReason() const = 0;

  /// `receive` and `send` as awaitables; they resume on the awaiting coroutine's executor
  /// and throw `platform::Error`.
  boost::asio::awaitable<WebSocketMessage> receive();
  boost::asio::awaitable<void> send(std::string text);
};

/// Makes web-socket tasks that share a configuration and a delegate.
class WebSocketSession {
 public:
  explicit WebSocketSession(
      WebSocketConfiguration configuration = WebSocketConfiguration::defaultConfiguration(),
      std::weak_ptr<WebSocketDelegate> delegate = {});

  const WebSocketConfiguration& configuration() const { return configuration_; }

  /// A suspended task for `url` ("ws://host[:port]/path?query" or "wss://…"). Throws
  /// `platform::Error` `badURL` for any other text. Dropping the last reference to a task
  /// whose connection is open closes it with `goingAway`; completions still waiting then run
  /// with `socketNotConnected`.
  std::shared_ptr<WebSocketTask> webSocketTask(std::string_view url) const;

 private:
  WebSocketConfiguration configuration_;
  std::weak_ptr<WebSocketDelegate> delegate_;
};

}  // namespace platform
