// The only translation unit that sees Boost.Beast's WebSocket and SSL headers: they cost about
// half a minute and a gigabyte to compile, so nothing else includes them.
#include "platform/web_socket.hpp"

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/url/parse.hpp>
#include <deque>
#include <mutex>
#include <thread>
#include <type_traits>

#include "platform/text.hpp"
#include "platform/tls.hpp"

namespace platform {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
namespace ssl = asio::ssl;
using tcp = asio::ip::tcp;
using boost::system::error_code;

// The process's web-socket thread: every connection, completion and delegate event runs on
// it. Made on first use and never destroyed, on purpose. A static that stopped and joined it
// at exit would run while other statics are already gone (or wait for a handler that waits
// for them), and destroying the context under a running handler crashes; left alone, the
// thread sleeps in the kernel until the process ends and takes it along.
asio::io_context& socketContext() {
  static asio::io_context* context = [] {
    auto* io = new asio::io_context(1);
    std::thread([io] {
      auto work = asio::make_work_guard(*io);
      for (;;) {
        try {
          io->run();
          return;
        } catch (...) {
          // Completions are called inside try blocks; this keeps the thread whatever else
          // escapes, since every other connection of the process depends on it.
        }
      }
    }).detach();
    return io;
  }();
  return *context;
}

// What a task needs of its URL, taken apart once when the task is made.
struct Endpoint {
  bool secure = false;
  bool isAddress = false;  // an IP literal: checked as an address, and no SNI
  std::string host;        // without brackets, for the resolver and the certificate
  std::string port;
  std::string hostHeader;  // as the URL wrote it
  std::string target;      // path and query as given
  // scheme://host:port/path, for error texts. The query stays out: it may carry a token.
  std::string display;
};

std::optional<Endpoint> parseEndpoint(std::string_view text) {
  auto parsed = boost::urls::parse_uri(text);
  if (!parsed) return std::nullopt;
  const auto& url = *parsed;
  const auto scheme = lowercased(url.scheme());
  if (scheme != "ws" && scheme != "wss") return std::nullopt;
  if (!url.has_authority() || url.has_userinfo() || url.encoded_host().empty()) return std::nullopt;
  Endpoint endpoint;
  endpoint.secure = scheme == "wss";
  endpoint.host = url.host_address();
  const auto type = url.host_type();
  endpoint.isAddress = type == boost::urls::host_type::ipv4 || type == boost::urls::host_type::ipv6;
  if (type == boost::urls::host_type::ipvfuture) return std::nullopt;
  if (url.has_port() && !url.port().empty()) {
    if (url.port_number() == 0) return std::nullopt;
    endpoint.port = std::to_string(url.port_number());
  } else {
    endpoint.port = endpoint.secure ? "443" : "80";
  }
  endpoint.hostHeader = std::string(url.encoded_host_and_port());
  if (endpoint.hostHeader.ends_with(':')) endpoint.hostHeader.pop_back();
  endpoint.target = url.encoded_path().empty() ? "/" : std::string(url.encoded_path());
  if (url.has_query()) endpoint.target += "?" + std::string(url.encoded_query());
  const auto bracketed =
      type == boost::urls::host_type::ipv6 ? "[" + endpoint.host + "]" : endpoint.host;
  endpoint.display =
      scheme + "://" + bracketed + ":" + endpoint.port + std::string(url.encoded_path());
  return endpoint;
}

// The close frame's reason is at most 123 bytes; a longer one is cut at a character boundary.
std::string fitReason(std::string reason) {
  constexpr std::size_t kMost = 123;
  if (reason.size() <= kMost) return reason;
  std::size_t end = kMost;
  while (end > 0 && (static_cast<unsigned char>(reason[end]) & 0xC0) == 0x80) --end;
  reason.resize(end);
  return reason;
}

Error notConnected() {
  return Error(posix_error::domain, posix_error::socketNotConnected, "Socket is not connected");
}

template <class Function, class... Args>
void callOut(Function& function, Args&&... args) {
  if (!function) return;
  try {
    function(std::forward<Args>(args)...);
  } catch (...) {
    // Nothing thrown by a caller's completion leaves the web-socket thread.
  }
}

// One connection over `Next`: beast::tcp_stream for ws, an SSL stream over it for wss.
// Everything below `public:` posts to the web-socket thread; everything else runs there.
template <class Next>
class Socket final : public WebSocketTask, public std::enable_shared_from_this<Socket<Next>> {
  static constexpr bool kSecure = !std::is_same_v<Next, beast::tcp_stream>;

 public:
  using WebSocketTask::receive;
  using WebSocketTask::send;

  Socket(std::string url, Endpoint endpoint, WebSocketConfiguration configuration,
         std::weak_ptr<WebSocketDelegate> delegate)
      : url_(std::move(url)),
        endpoint_(std::move(endpoint)),
        configuration_(std::move(configuration)),
        delegate_(std::move(delegate)),
        resolver_(socketContext()),
        handshakeTimer_(socketContext()),
        idleTimer_(socketContext()) {}

  const std::string& url() const override { return url_; }

  State state() const override {
    std::lock_guard lock(mutex_);
    return state_;
  }

  WebSocketCloseCode closeCode() const override {
    std::lock_guard lock(mutex_);
    return closeCode_;
  }

  std::optional<std::string> closeReason() const override {
    std::lock_guard lock(mutex_);
    return closeReason_;
  }

  void resume() override {
    {
      std::lock_guard lock(mutex_);
      if (state_ != State::suspended) return;
      state_ = State::running;
    }
    asio::post(socketContext(), [self = this->shared_from_this()] { self->start(); });
  }

  void receive(WebSocketReceiveCompletion completion) override {
    asio::post(socketContext(),
               [self = this->shared_from_this(), completion = std::move(completion)]() mutable {
                 self->enqueueReceive(std::move(completion));
               });
  }

  void send(std::string text, WebSocketSendCompletion completion) override {
    asio::post(socketContext(), [self = this->shared_from_this(), text = std::move(text),
                                 completion = std::move(completion)]() mutable {
      self->enqueueSend(std::move(text), std::move(completion));
    });
  }

  void cancel(WebSocketCloseCode code, std::optional<std::string> reason) override {
    if (reason) reason = fitReason(std::move(*reason));
    if (!noteCancel(code, reason)) return;
    asio::post(socketContext(),
               [self = this->shared_from_this(), code, reason] { self->close(code, reason); });
  }

  // The last reference the caller held is gone (see `WebSocketSession::webSocketTask`).
  void release() {
    if (noteCancel(WebSocketCloseCode::goingAway, std::nullopt))
      close(WebSocketCloseCode::goingAway, std::nullopt);
  }

 private:
  enum class Phase { idle, connecting, open, closing, ended };

  // Records a cancel once; false when the task was cancelled before.
  bool noteCancel(WebSocketCloseCode code, const std::optional<std::string>& reason) {
    std::lock_guard lock(mutex_);
    if (cancelled_) return false;
    cancelled_ = true;
    if (state_ != State::completed) state_ = State::canceling;
    if (closeCode_ == WebSocketCloseCode::invalid) {
      closeCode_ = code;
      closeReason_ = reason;
    }
    return true;
  }

  void setState(State state) {
    std::lock_guard lock(mutex_);
    state_ = state;
  }

  Error failure(long code, const std::string& what) const {
    boost::json::object info;
    info["NSErrorFailingURLStringKey"] = endpoint_.display;
    return Error(url_error::domain, code, endpoint_.display + ": " + what, std::move(info));
  }

  // --- connecting ---------------------------------------------------------------------------

  void start() {
    if (phase_ != Phase::idle) return;  // cancelled before it started
    phase_ = Phase::connecting;
    if (configuration_.handshakeTimeout.count() > 0) {
      handshakeTimer_.expires_after(configuration_.handshakeTimeout);
      handshakeTimer_.async_wait([self = this->shared_from_this()](error_code ec) {
        if (ec || self->phase_ != Phase::connecting) return;
        self->handshakeTimedOut_ = true;
        self->dropTransport();
      });
    }
    if constexpr (kSecure) {
      if (auto problem = prepareTLS()) return fail(std::move(*problem));
    } else {
      ws_.emplace(socketContext());
    }
    resolver_.async_resolve(
        endpoint_.host, endpoint_.port,
        [self = this->shared_from_this()](error_code ec, tcp::resolver::results_type results) {
          self->onResolved(ec, std::move(results));
        });
  }

  // The trust anchors are read now, so a change of `setTrustedCertificates` counts from the
  // next connection on.
  std::optional<Error> prepareTLS() {
    tls_.emplace(ssl::context::tls_client);
    error_code ec;
    const auto anchors = configuration_.caFile ? configuration_.caFile : trustedCertificates();
    if (anchors)
      tls_->load_verify_file(anchors->string(), ec);
    else
      tls_->set_default_verify_paths(ec);
    if (ec)
      return failure(url_error::secureConnectionFailed,
                     "cannot load the trusted certificates" +
                         (anchors ? " from " + anchors->string() : std::string()) + " (" +
                         ec.message() + ")");
    tls_->set_verify_mode(ssl::verify_peer);
    ws_.emplace(socketContext(), *tls_);
    SSL* native = ws_->next_layer().native_handle();
    // OpenSSL checks the name (or address) as part of verifying the chain, so a mismatch
    // reaches the verify result with its own words ("hostname mismatch").
    if (endpoint_.isAddress) {
      X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(native), endpoint_.host.c_str());
    } else {
      SSL_set_tlsext_host_name(native, endpoint_.host.c_str());
      SSL_set1_host(native, endpoint_.host.c_str());
    }
    return std::nullopt;
  }

  // True when a step of the connection should go no further: the task was cancelled (its
  // waiting calls are answered already) or the handshake time-out cut the transport.
  bool interrupted() {
    if (phase_ != Phase::connecting) return true;
    if (!handshakeTimedOut_) return false;
    fail(failure(url_error::timedOut, "the connection was not open within " +
                                          std::to_string(configuration_.handshakeTimeout.count()) +
                                          " ms (connect, TLS and upgrade)"));
    return true;
  }

  void onResolved(error_code ec, tcp::resolver::results_type results) {
    if (interrupted()) return;
    if (ec)
      return fail(failure(url_error::cannotFindHost,
                          "the host name could not be resolved (" + ec.message() + ")"));
    beast::get_lowest_layer(*ws_).async_connect(
        results, [self = this->shared_from_this()](error_code ec, const tcp::endpoint&) {
          self->onConnected(ec);
        });
  }

  void onConnected(error_code ec) {
    if (interrupted()) return;
    if (ec)
      return fail(
          failure(url_error::cannotConnectToHost, "could not connect (" + ec.message() + ")"));
    if constexpr (kSecure) {
      ws_->next_layer().async_handshake(
          ssl::stream_base::client,
          [self = this->shared_from_this()](error_code ec) { self->onSecured(ec); });
    } else {
      upgrade();
    }
  }

  void onSecured(error_code ec) {
    if (interrupted()) return;
    if (!ec) return upgrade();
    if constexpr (kSecure) {
      const long verify = SSL_get_verify_result(ws_->next_layer().native_handle());
      if (verify != X509_V_OK)
        return fail(failure(url_error::secureConnectionFailed,
                            std::string("certificate verify failed (") +
                                X509_verify_cert_error_string(verify) + ")"));
    }
    fail(failure(url_error::secureConnectionFailed, "TLS handshake failed (" + ec.message() + ")"));
  }

  void upgrade() {
    ws_->read_message_max(configuration_.maximumMessageSize);
    ws_->async_handshake(
        upgradeResponse_, endpoint_.hostHeader, endpoint_.target,
        [self = this->shared_from_this()](error_code ec) { self->onUpgraded(ec); });
  }

  void onUpgraded(error_code ec) {
    if (interrupted()) return;
    if (ec == websocket::error::upgrade_declined) {
      const auto reason = std::string(upgradeResponse_.reason());
      return fail(failure(
          url_error::badServerResponse,
          "the server answered the upgrade with " + std::to_string(upgradeResponse_.result_int()) +
              (reason.empty() ? "" : " " + reason) + " instead of 101 Switching Protocols"));
    }
    if (ec == asio::error::eof || ec == beast::http::error::end_of_stream ||
        ec == asio::error::connection_reset || ec == ssl::error::stream_truncated)
      return fail(failure(
          url_error::networkConnectionLost,
          "the server closed the connection before answering the upgrade (" + ec.message() + ")"));
    if (ec == websocket::condition::handshake_failed)
      return fail(failure(url_error::badServerResponse,
                          "the server's answer to the upgrade is not a WebSocket handshake (" +
                              ec.message() + ")"));
    if (ec)
      return fail(
          failure(url_error::badServerResponse,
                  "the server's answer to the upgrade could not be read (" + ec.message() + ")"));

    handshakeTimer_.cancel();
    phase_ = Phase::open;
    websocket::stream_base::timeout timeouts{};
    // Beast times the closing handshake with the same limit as the opening one. Idleness is
    // watched here instead (watchIdle): Beast would set its timer again at every read, two
    // system calls a frame.
    timeouts.handshake_timeout = configuration_.handshakeTimeout.count() > 0
                                     ? configuration_.handshakeTimeout
                                     : websocket::stream_base::none();
    timeouts.idle_timeout = websocket::stream_base::none();
    ws_->set_option(timeouts);
    ws_->control_callback(
        [this](websocket::frame_type, beast::string_view) { heard_ = true; });
    watchIdle();

    std::optional<std::string> protocol;
    if (auto field = upgradeResponse_.find(beast::http::field::sec_websocket_protocol);
        field != upgradeResponse_.end())
      protocol = std::string(field->value());
    if (auto delegate = delegate_.lock()) {
      try {
        delegate->didOpen(*this, protocol);
      } catch (...) {
      }
    }
    pumpReceive();
    pumpSend();
  }

  // --- frames -------------------------------------------------------------------------------

  void enqueueReceive(WebSocketReceiveCompletion completion) {
    if (phase_ == Phase::closing || phase_ == Phase::ended)
      return callOut(completion, std::nullopt, endError_.value_or(notConnected()));
    receives_.push_back(std::move(completion));
    pumpReceive();
  }

  void enqueueSend(std::string text, WebSocketSendCompletion completion) {
    if (phase_ == Phase::closing || phase_ == Phase::ended)
      return callOut(completion, endError_.value_or(notConnected()));
    sends_.push_back({std::move(text), std::move(completion)});
    pumpSend();
  }

  // Frames are read only while a receive waits: an unread connection holds no frames here,
  // and the peer feels it as back-pressure.
  void pumpReceive() {
    if (phase_ != Phase::open || reading_ || receives_.empty()) return;
    reading_ = true;
    ws_->async_read(readBuffer_, [self = this->shared_from_this()](error_code ec, std::size_t) {
      self->onReceived(ec);
    });
  }

  void onReceived(error_code ec) {
    reading_ = false;
    if (phase_ != Phase::open) return;  // a closing handshake of ours answers everything
    if (ec) return connectionEnded(ec);
    heard_ = true;
    WebSocketMessage message{
        ws_->got_text() ? WebSocketMessage::Kind::string : WebSocketMessage::Kind::data,
        beast::buffers_to_string(readBuffer_.data())};
    readBuffer_.consume(readBuffer_.size());
    auto completion = std::move(receives_.front());
    receives_.pop_front();
    callOut(completion, std::move(message), std::nullopt);
    pumpReceive();
  }

  void pumpSend() {
    if (phase_ != Phase::open || writing_ || sends_.empty()) return;
    writing_ = true;
    // The text stays here, untouched, until the write completes, whatever happens to the queue.
    sendingText_ = std::move(sends_.front().text);
    sendingCompletion_ = std::move(sends_.front().completion);
    sends_.pop_front();
    ws_->text(true);
    ws_->async_write(
        asio::buffer(sendingText_),
        [self = this->shared_from_this()](error_code ec, std::size_t) { self->onSent(ec); });
  }

  void onSent(error_code ec) {
    writing_ = false;
    if (phase_ != Phase::open) return;
    if (ec) return connectionEnded(ec);  // answers `sendingCompletion_` with the rest
    auto completion = std::move(sendingCompletion_);
    sendingCompletion_ = nullptr;
    callOut(completion, std::nullopt);
    pumpSend();
  }

  // Every half idle time-out: after a half with nothing received while a receive waited, a
  // ping; after a second one, the connection has timed out. Nothing counts as idle while no
  // receive waits, since nothing is read then.
  void watchIdle() {
    if (configuration_.idleTimeout.count() <= 0) return;
    idleTimer_.expires_after(configuration_.idleTimeout / 2);
    idleTimer_.async_wait([self = this->shared_from_this()](error_code ec) {
      if (!ec && self->phase_ == Phase::open) self->lookForLife();
    });
  }

  void lookForLife() {
    if (heard_ || !reading_) {
      heard_ = pinged_ = false;
    } else if (!pinged_) {
      pinged_ = true;
      ws_->async_ping({}, [self = this->shared_from_this()](error_code) {});
    } else {
      idleTimedOut_ = true;
      return dropTransport();  // the waiting read ends, and connectionEnded says why
    }
    watchIdle();
  }

  // A read or write of the open connection failed: the peer's close frame, the end of the
  // stream, or a real failure.
  void connectionEnded(error_code ec) {
    if (idleTimedOut_) ec = beast::error::timeout;
    if (ec == websocket::error::closed) {
      // Beast has answered the peer's close frame: the closing handshake is done.
      const auto peer = ws_->reason();
      const auto code = peer.code == websocket::close_code::none
                            ? WebSocketCloseCode::noStatusReceived
                            : static_cast<WebSocketCloseCode>(peer.code);
      std::optional<std::string> reason;
      if (!peer.reason.empty()) reason = std::string(peer.reason.data(), peer.reason.size());
      {
        std::lock_guard lock(mutex_);
        if (closeCode_ == WebSocketCloseCode::invalid) {
          closeCode_ = code;
          closeReason_ = reason;
        }
      }
      end(std::nullopt);
      return announceClose(code, reason);
    }
    if (ec == asio::error::eof || ec == ssl::error::stream_truncated ||
        ec == beast::http::error::end_of_stream || ec == asio::error::operation_aborted)
      return end(std::nullopt);
    if (ec == asio::error::connection_reset || ec == asio::error::broken_pipe)
      return end(failure(url_error::networkConnectionLost,
                         "the connection was reset by the peer (" + ec.message() + ")"));
    if (ec == beast::error::timeout)
      return end(
          failure(url_error::timedOut, "nothing was received for " +
                                           std::to_string(configuration_.idleTimeout.count()) +
                                           " ms, not even the answer to a ping"));
    if (ec == websocket::error::message_too_big) {
      noteSentClose(WebSocketCloseCode::messageTooBig);
      return end(failure(url_error::dataLengthExceedsMaximum,
                         "a message larger than " +
                             std::to_string(configuration_.maximumMessageSize) +
                             " bytes arrived; the connection was closed with 1009"));
    }
    if (ec == websocket::error::bad_frame_payload) {
      noteSentClose(WebSocketCloseCode::invalidFramePayloadData);
      return end(
          failure(url_error::networkConnectionLost,
                  "a text message was not valid UTF-8; the connection was closed with 1007"));
    }
    end(failure(url_error::networkConnectionLost, "the connection failed (" + ec.message() + ")"));
  }

  void noteSentClose(WebSocketCloseCode code) {
    std::lock_guard lock(mutex_);
    if (closeCode_ == WebSocketCloseCode::invalid) closeCode_ = code;
  }

  void announceClose(WebSocketCloseCode code, const std::optional<std::string>& reason) {
    if (auto delegate = delegate_.lock()) {
      try {
        delegate->didClose(*this, code, reason);
      } catch (...) {
      }
    }
  }

  // --- ending -------------------------------------------------------------------------------

  void close(WebSocketCloseCode code, std::optional<std::string> reason) {
    switch (phase_) {
      case Phase::idle:
      case Phase::connecting:
        return end(std::nullopt);
      case Phase::open: {
        phase_ = Phase::closing;
        answerWaiting(notConnected());
        websocket::close_reason frame(static_cast<websocket::close_code>(code));
        if (reason) frame.reason.assign(reason->data(), reason->size());
        ws_->async_close(frame,
                         [self = this->shared_from_this()](error_code ec) { self->onClosed(ec); });
        return;
      }
      case Phase::closing:
      case Phase::ended:
        return;
    }
  }

  void onClosed(error_code ec) {
    if (phase_ != Phase::closing) return;
    end(std::nullopt);
    // A peer that never answered our close frame (time-out, reset) finished no handshake.
    if (ec) return;
    const auto peer = ws_->reason();
    std::optional<std::string> reason;
    if (!peer.reason.empty()) reason = std::string(peer.reason.data(), peer.reason.size());
    announceClose(peer.code == websocket::close_code::none
                      ? WebSocketCloseCode::noStatusReceived
                      : static_cast<WebSocketCloseCode>(peer.code),
                  reason);
  }

  // Ends the connection for good: `error`, or none for a quiet end (socketNotConnected).
  void fail(Error error) { end(std::move(error)); }

  void end(std::optional<Error> error) {
    const bool wasClosing = phase_ == Phase::closing;
    phase_ = Phase::ended;
    endError_ = std::move(error);
    handshakeTimer_.cancel();
    idleTimer_.cancel();
    if (!wasClosing) dropTransport();
    setState(State::completed);
    answerWaiting(endError_.value_or(notConnected()));
  }

  void dropTransport() {
    resolver_.cancel();
    if (ws_) beast::get_lowest_layer(*ws_).close();
  }

  // Answers every waiting receive and send with `error`; the queues are emptied before any
  // completion runs, so that one calling in again finds them consistent.
  void answerWaiting(const Error& error) {
    auto receives = std::move(receives_);
    receives_.clear();
    auto sends = std::move(sends_);
    sends_.clear();
    auto sending = std::move(sendingCompletion_);
    sendingCompletion_ = nullptr;
    for (auto& completion : receives) callOut(completion, std::nullopt, error);
    callOut(sending, error);
    for (auto& pending : sends) callOut(pending.completion, error);
  }

  struct PendingSend {
    std::string text;
    WebSocketSendCompletion completion;
  };

  const std::string url_;
  const Endpoint endpoint_;
  const WebSocketConfiguration configuration_;
  const std::weak_ptr<WebSocketDelegate> delegate_;

  // Read from any thread.
  mutable std::mutex mutex_;
  State state_ = State::suspended;
  bool cancelled_ = false;
  WebSocketCloseCode closeCode_ = WebSocketCloseCode::invalid;
  std::optional<std::string> closeReason_;

  // The web-socket thread's alone.
  tcp::resolver resolver_;
  asio::steady_timer handshakeTimer_;
  asio::steady_timer idleTimer_;
  std::optional<ssl::context> tls_;  // before the stream, which refers to it
  std::optional<websocket::stream<Next>> ws_;
  websocket::response_type upgradeResponse_;
  beast::flat_buffer readBuffer_;
  Phase phase_ = Phase::idle;
  bool handshakeTimedOut_ = false;
  bool idleTimedOut_ = false;
  bool heard_ = false;   // something arrived since the idle watch last looked
  bool pinged_ = false;  // the idle watch has pinged and waits for an answer
  bool reading_ = false;
  bool writing_ = false;
  std::optional<Error> endError_;
  std::deque<WebSocketReceiveCompletion> receives_;
  std::deque<PendingSend> sends_;
  std::string sendingText_;
  WebSocketSendCompletion sendingCompletion_;
};

// The caller's reference: its own control block, whose end tells the connection to go away.
// The connection itself lives on as long as an operation of its own is under way, so that a
// delegate's `WebSocketTask&` stays valid to the last event.
template <class Next>
std::shared_ptr<WebSocketTask> makeTask(std::string url, Endpoint endpoint,
                                        const WebSocketConfiguration& configuration,
                                        std::weak_ptr<WebSocketDelegate> delegate) {
  auto socket = std::make_shared<Socket<Next>>(std::move(url), std::move(endpoint), configuration,
                                               std::move(delegate));
  auto* task = socket.get();
  return std::shared_ptr<WebSocketTask>(task, [socket](WebSocketTask*) mutable {
    // The socket is released on its own thread, which is then also where it is destroyed.
    asio::post(socketContext(), [socket = std::move(socket)] { socket->release(); });
  });
}

}  // namespace

void WebSocketDelegate::didOpen(WebSocketTask&, const std::optional<std::string>&) {}

void WebSocketDelegate::didClose(WebSocketTask&, WebSocketCloseCode,
                                 const std::optional<std::string>&) {}

namespace {

// The awaiting coroutine's executor, counting as work of its context until the completion that
// holds it is gone. Without that, a context run until it runs out of work could return, and be
// destroyed, while this thread is still inside the post that hands it the result.
template <class Handler>
auto trackedExecutor(const Handler& handler) {
  return asio::prefer(asio::get_associated_executor(handler),
                      asio::execution::outstanding_work.tracked);
}

}  // namespace

boost::asio::awaitable<WebSocketMessage> WebSocketTask::receive() {
  auto initiation = [this](auto handler) {
    auto executor = trackedExecutor(handler);
    auto shared = std::make_shared<decltype(handler)>(std::move(handler));
    receive(WebSocketReceiveCompletion(
        [shared, executor](std::optional<WebSocketMessage> message, std::optional<Error> error) {
          asio::dispatch(
              executor, [shared, message = std::move(message), error = std::move(error)]() mutable {
                if (error)
                  (*shared)(std::make_exception_ptr(std::move(*error)), WebSocketMessage{});
                else
                  (*shared)(nullptr, std::move(*message));
              });
        }));
  };
  co_return co_await asio::async_initiate<decltype(asio::use_awaitable),
                                          void(std::exception_ptr, WebSocketMessage)>(
      initiation, asio::use_awaitable);
}

boost::asio::awaitable<void> WebSocketTask::send(std::string text) {
  auto initiation = [this](auto handler, std::string text) {
    auto executor = trackedExecutor(handler);
    auto shared = std::make_shared<decltype(handler)>(std::move(handler));
    send(std::move(text), WebSocketSendCompletion([shared, executor](std::optional<Error> error) {
           asio::dispatch(executor, [shared, error = std::move(error)]() mutable {
             (*shared)(error ? std::make_exception_ptr(std::move(*error)) : nullptr);
           });
         }));
  };
  co_await asio::async_initiate<decltype(asio::use_awaitable), void(std::exception_ptr)>(
      initiation, asio::use_awaitable, std::move(text));
}

WebSocketSession::WebSocketSession(WebSocketConfiguration configuration,
                                   std::weak_ptr<WebSocketDelegate> delegate)
    : configuration_(std::move(configuration)), delegate_(std::move(delegate)) {}

std::shared_ptr<WebSocketTask> WebSocketSession::webSocketTask(std::string_view url) const {
  auto endpoint = parseEndpoint(url);
  if (!endpoint) {
    // The query may hold a token, and error texts end up in logs.
    const auto shown = url.substr(0, url.find('?'));
    throw Error(url_error::domain, url_error::badURL,
                "\"" + std::string(shown) + "\" is not a ws:// or wss:// URL with a host");
  }
  if (endpoint->secure)
    return makeTask<beast::ssl_stream<beast::tcp_stream>>(std::string(url), std::move(*endpoint),
                                                          configuration_, delegate_);
  return makeTask<beast::tcp_stream>(std::string(url), std::move(*endpoint), configuration_,
                                     delegate_);
}

}  // namespace platform
