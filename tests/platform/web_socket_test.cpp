// Web-socket tasks against WebSocket servers written here with Beast, on 127.0.0.1: one that
// runs a script per connection, and a TLS one with certificates made by the openssl command.
// (The only test source with Beast: it is slow to compile.)
#include "platform/web_socket.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

#include "platform/tls.hpp"
#include "platform/url_loading.hpp"
#include "support/certificates.hpp"

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;
using platform::WebSocketCloseCode;
using platform::WebSocketMessage;

// What one thread hands another, taken with a bounded wait.
template <class T>
class Mailbox {
 public:
  void push(T value) {
    std::lock_guard lock(mutex_);
    items_.push_back(std::move(value));
    ready_.notify_all();
  }
  T pop() {
    std::unique_lock lock(mutex_);
    if (!ready_.wait_for(lock, 10s, [&] { return !items_.empty(); }))
      throw std::runtime_error("nothing arrived within 10 s");
    T value = std::move(items_.front());
    items_.pop_front();
    return value;
  }

 private:
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<T> items_;
};

// Runs `script` for every connection it accepts, on a thread of its own.
class ScriptedServer {
 public:
  using Stream = websocket::stream<beast::tcp_stream>;
  using Script = std::function<asio::awaitable<void>(Stream&)>;

  explicit ScriptedServer(Script script) : script_(std::move(script)) {
    acceptor_.open(tcp::v4());
    acceptor_.bind({asio::ip::make_address("127.0.0.1"), 0});
    acceptor_.listen();
    asio::co_spawn(io_, acceptLoop(), asio::detached);
    thread_ = std::thread([this] { io_.run(); });
  }
  ~ScriptedServer() {
    io_.stop();
    thread_.join();
  }
  std::string url(const std::string& path = "/") const {
    return "ws://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()) + path;
  }

 private:
  asio::awaitable<void> acceptLoop() {
    for (;;) {
      auto socket = co_await acceptor_.async_accept(asio::use_awaitable);
      asio::co_spawn(io_, serve(std::move(socket)), asio::detached);
    }
  }
  asio::awaitable<void> serve(tcp::socket socket) {
    Stream ws(std::move(socket));
    try {
      co_await script_(ws);
    } catch (const std::exception&) {
      // The client went away in the middle of the script; its side of the test says how.
    }
  }

  Script script_;
  asio::io_context io_;
  tcp::acceptor acceptor_{io_};
  std::thread thread_;
};

asio::awaitable<std::string> acceptUpgrade(ScriptedServer::Stream& ws) {
  beast::flat_buffer buffer;
  http::request<http::string_body> request;
  co_await http::async_read(ws.next_layer(), buffer, request, asio::use_awaitable);
  co_await ws.async_accept(request, asio::use_awaitable);
  co_return std::string(request.target());
}

asio::awaitable<std::string> readMessage(ScriptedServer::Stream& ws) {
  beast::flat_buffer buffer;
  co_await ws.async_read(buffer, asio::use_awaitable);
  co_return beast::buffers_to_string(buffer.data());
}

// Reads until the client's close frame arrives; gives its code and reason.
asio::awaitable<std::string> readUntilClosed(ScriptedServer::Stream& ws) {
  beast::flat_buffer buffer;
  boost::system::error_code ec;
  while (!ec) co_await ws.async_read(buffer, asio::redirect_error(asio::use_awaitable, ec));
  const auto& reason = ws.reason();
  co_return std::to_string(reason.code) + " " +
      std::string(reason.reason.data(), reason.reason.size());
}

struct Outcome {
  std::optional<WebSocketMessage> message;
  std::optional<platform::Error> error;
};
using Outcomes = std::shared_ptr<Mailbox<Outcome>>;

Outcomes receiveInto(platform::WebSocketTask& task, Outcomes box = nullptr) {
  if (!box) box = std::make_shared<Mailbox<Outcome>>();
  task.receive(
      [box](std::optional<WebSocketMessage> message, std::optional<platform::Error> error) {
        box->push({std::move(message), std::move(error)});
      });
  return box;
}

void expectError(const Outcome& outcome, const std::string& domain, long code,
                 const std::string& words = "") {
  ASSERT_TRUE(outcome.error) << "a frame arrived: " << outcome.message->payload;
  EXPECT_EQ(outcome.error->domain(), domain) << outcome.error->what();
  EXPECT_EQ(outcome.error->code(), code) << outcome.error->what();
  EXPECT_NE(std::string(outcome.error->what()).find(words), std::string::npos)
      << outcome.error->what();
}

void expectQuietEnd(const Outcome& outcome) {
  expectError(outcome, platform::posix_error::domain, platform::posix_error::socketNotConnected);
}

struct Recorder : platform::WebSocketDelegate {
  Mailbox<std::string> events;
  void didOpen(platform::WebSocketTask&, const std::optional<std::string>&) override {
    events.push("open");
  }
  void didClose(platform::WebSocketTask&, WebSocketCloseCode code,
                const std::optional<std::string>& reason) override {
    events.push("close " + std::to_string(static_cast<int>(code)) + " " + reason.value_or("-"));
  }
};

platform::WebSocketConfiguration quick() {
  auto configuration = platform::WebSocketConfiguration::defaultConfiguration();
  configuration.handshakeTimeout = 2s;
  return configuration;
}

TEST(WebSocket, FramesGoBothWaysInOrderAndWaitForTheConnection) {
  Mailbox<std::string> seen;
  ScriptedServer server([&](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    seen.push(co_await acceptUpgrade(ws));
    const auto first = co_await readMessage(ws);
    const auto second = co_await readMessage(ws);
    seen.push(first + "|" + second);
    co_await ws.async_write(asio::buffer("echo " + first), asio::use_awaitable);
    ws.binary(true);
    co_await ws.async_write(asio::buffer(std::string("\0\xff", 2)), asio::use_awaitable);
    ws.text(true);
    co_await ws.async_write(asio::buffer(std::string("third")), asio::use_awaitable);
    co_await ws.async_write(asio::buffer(std::string("fourth")), asio::use_awaitable);
    co_await readUntilClosed(ws);
  });
  auto recorder = std::make_shared<Recorder>();
  platform::WebSocketSession session(quick(), recorder);
  auto task = session.webSocketTask(server.url("/realtime/?auth=a.b-c"));
  EXPECT_EQ(task->state(), platform::WebSocketTask::State::suspended);

  // Made before the connection exists: they wait for it and are answered in order. The
  // first makes another from inside its completion, as a receive loop does.
  auto received = std::make_shared<Mailbox<Outcome>>();
  task->receive([received, raw = task.get()](auto message, auto error) {
    received->push({std::move(message), std::move(error)});
    receiveInto(*raw, received);
  });
  receiveInto(*task, received);
  auto sent = std::make_shared<Mailbox<std::optional<platform::Error>>>();
  task->send("one", [sent](auto error) { sent->push(std::move(error)); });
  task->send("two", [sent](auto error) { sent->push(std::move(error)); });
  task->resume();

  EXPECT_EQ(recorder->events.pop(), "open");
  EXPECT_EQ(seen.pop(), "/realtime/?auth=a.b-c");
  EXPECT_EQ(seen.pop(), "one|two");
  EXPECT_FALSE(sent->pop());
  EXPECT_FALSE(sent->pop());
  auto first = received->pop();
  ASSERT_TRUE(first.message);
  EXPECT_EQ(first.message->kind, WebSocketMessage::Kind::string);
  EXPECT_EQ(first.message->payload, "echo one");
  auto second = received->pop();
  ASSERT_TRUE(second.message);
  EXPECT_EQ(second.message->kind, WebSocketMessage::Kind::data);
  EXPECT_EQ(second.message->payload, std::string("\0\xff", 2));
  auto third = received->pop();
  ASSERT_TRUE(third.message);
  EXPECT_EQ(third.message->payload, "third");

  // The awaitable form comes back to the awaiting coroutine's own thread.
  asio::io_context caller;
  std::optional<std::thread::id> resumedOn;
  std::string fourth;
  asio::co_spawn(
      caller,
      [](std::shared_ptr<platform::WebSocketTask> task, std::optional<std::thread::id>& on,
         std::string& text) -> asio::awaitable<void> {
        const auto message = co_await task->receive();
        text = message.payload;
        on = std::this_thread::get_id();
      }(task, resumedOn, fourth),
      asio::detached);
  caller.run_for(10s);
  EXPECT_EQ(fourth, "fourth");
  EXPECT_EQ(resumedOn, std::this_thread::get_id());
  EXPECT_EQ(task->state(), platform::WebSocketTask::State::running);
}

TEST(WebSocket, APeerCloseEndsWaitingReceivesQuietlyAndGivesItsCodeAndReason) {
  ScriptedServer server([](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    co_await acceptUpgrade(ws);
    const websocket::close_reason reason(websocket::close_code{4001}, "bye \xc3\xa9");
    co_await ws.async_close(reason, asio::use_awaitable);
  });
  auto recorder = std::make_shared<Recorder>();
  platform::WebSocketSession session(quick(), recorder);
  auto task = session.webSocketTask(server.url());
  auto received = receiveInto(*task);
  receiveInto(*task, received);
  task->resume();

  EXPECT_EQ(recorder->events.pop(), "open");
  expectQuietEnd(received->pop());
  expectQuietEnd(received->pop());
  EXPECT_EQ(recorder->events.pop(), "close 4001 bye \xc3\xa9");
  EXPECT_EQ(static_cast<int>(task->closeCode()), 4001);
  EXPECT_EQ(task->closeReason(), "bye \xc3\xa9");
  EXPECT_EQ(task->state(), platform::WebSocketTask::State::completed);
  expectQuietEnd(receiveInto(*task)->pop());  // and so does any later one
}

TEST(WebSocket, CancelAndLettingGoCloseWithTheirCodes) {
  Mailbox<std::string> closes;
  ScriptedServer server([&](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    co_await acceptUpgrade(ws);
    closes.push(co_await readUntilClosed(ws));
  });
  auto recorder = std::make_shared<Recorder>();
  platform::WebSocketSession session(quick(), recorder);

  auto task = session.webSocketTask(server.url());
  task->resume();
  EXPECT_EQ(recorder->events.pop(), "open");
  auto received = receiveInto(*task);
  task->cancel(WebSocketCloseCode::normalClosure, "done");
  EXPECT_EQ(task->closeCode(), WebSocketCloseCode::normalClosure);
  expectQuietEnd(received->pop());
  EXPECT_EQ(closes.pop(), "1000 done");
  EXPECT_EQ(recorder->events.pop(), "close 1000 -");  // the server's answer, without a reason

  // The last reference dropped: going away, and the waiting receive still hears of it.
  auto dropped = session.webSocketTask(server.url());
  dropped->resume();
  EXPECT_EQ(recorder->events.pop(), "open");
  received = receiveInto(*dropped);
  dropped.reset();
  expectQuietEnd(received->pop());
  EXPECT_EQ(closes.pop(), "1001 ");
}

TEST(WebSocket, AResetOrASilentPeerIsAFailureNotAQuietEnd) {
  ScriptedServer resetting([](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    co_await acceptUpgrade(ws);
    auto& socket = ws.next_layer().socket();
    socket.set_option(asio::socket_base::linger(true, 0));
    socket.close();
  });
  platform::WebSocketSession session(quick());
  auto task = session.webSocketTask(resetting.url());
  auto received = receiveInto(*task);
  task->resume();
  expectError(received->pop(), platform::url_error::domain,
              platform::url_error::networkConnectionLost, "reset");

  // A peer that stops reading answers no ping.
  ScriptedServer silent([](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    co_await acceptUpgrade(ws);
    asio::steady_timer wait(ws.get_executor(), 10s);
    co_await wait.async_wait(asio::use_awaitable);
  });
  auto configuration = quick();
  configuration.idleTimeout = 300ms;
  platform::WebSocketSession idle(configuration);
  task = idle.webSocketTask(silent.url());
  received = receiveInto(*task);
  task->resume();
  expectError(received->pop(), platform::url_error::domain, platform::url_error::timedOut,
              "nothing was received for 300 ms");
}

TEST(WebSocket, FailedOpeningsSayWhatWentWrong) {
  ScriptedServer mute([](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    char byte;
    for (;;) co_await ws.next_layer().async_read_some(asio::buffer(&byte, 1), asio::use_awaitable);
  });
  ScriptedServer refusing([](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    beast::flat_buffer buffer;
    http::request<http::string_body> request;
    co_await http::async_read(ws.next_layer(), buffer, request, asio::use_awaitable);
    http::response<http::string_body> response(http::status::not_found, 11);
    response.prepare_payload();
    co_await http::async_write(ws.next_layer(), response, asio::use_awaitable);
  });
  auto configuration = quick();
  configuration.handshakeTimeout = 300ms;
  platform::WebSocketSession session(configuration);
  const auto outcomeOf = [&](const std::string& url) {
    auto task = session.webSocketTask(url);
    auto received = receiveInto(*task);
    task->resume();
    return received->pop();
  };
  const auto timedOut = outcomeOf(mute.url("/realtime?auth=secret"));
  expectError(timedOut, platform::url_error::domain, platform::url_error::timedOut,
              "/realtime: the connection was not open within 300 ms");
  EXPECT_EQ(std::string(timedOut.error->what()).find("secret"), std::string::npos);
  expectError(outcomeOf(refusing.url()), platform::url_error::domain,
              platform::url_error::badServerResponse, "with 404 Not Found instead of 101");

  // A port nobody listens on: the one of a server that has gone.
  std::string gone;
  {
    ScriptedServer server([](ScriptedServer::Stream&) -> asio::awaitable<void> { co_return; });
    gone = server.url();
  }
  expectError(outcomeOf(gone), platform::url_error::domain,
              platform::url_error::cannotConnectToHost, "could not connect");

  for (const char* bad : {"http://127.0.0.1/", "ws://", "ws://user@host/", "not a url"}) {
    try {
      session.webSocketTask(bad);
      ADD_FAILURE() << bad << " was taken";
    } catch (const platform::Error& e) {
      EXPECT_EQ(e.code(), platform::url_error::badURL) << bad;
    }
  }
}

TEST(WebSocket, AMessageOverTheLimitFailsAndClosesWith1009) {
  Mailbox<std::string> closes;
  ScriptedServer server([&](ScriptedServer::Stream& ws) -> asio::awaitable<void> {
    co_await acceptUpgrade(ws);
    co_await ws.async_write(asio::buffer(std::string(4096, 'x')), asio::use_awaitable);
    closes.push(co_await readUntilClosed(ws));
  });
  auto configuration = quick();
  configuration.maximumMessageSize = 1024;
  platform::WebSocketSession session(configuration);
  auto task = session.webSocketTask(server.url());
  auto received = receiveInto(*task);
  task->resume();
  expectError(received->pop(), platform::url_error::domain,
              platform::url_error::dataLengthExceedsMaximum, "larger than 1024 bytes");
  EXPECT_EQ(closes.pop().substr(0, 4), "1009");
  EXPECT_EQ(task->closeCode(), WebSocketCloseCode::messageTooBig);
}

// --- TLS ---------------------------------------------------------------------------------------

// Over TLS: a WebSocket upgrade is answered by echoing every message; any other request by
// "secure hello".
class SecureServer {
 public:
  SecureServer(const testing_support::Certificates& certificates, const std::string& name) {
    tls_.use_certificate_chain_file(certificates.path(name + ".pem").string());
    tls_.use_private_key_file(certificates.path(name + ".key").string(), asio::ssl::context::pem);
    acceptor_.open(tcp::v4());
    acceptor_.bind({asio::ip::make_address("127.0.0.1"), 0});
    acceptor_.listen();
    asio::co_spawn(io_, acceptLoop(), asio::detached);
    thread_ = std::thread([this] { io_.run(); });
  }
  ~SecureServer() {
    io_.stop();
    thread_.join();
  }
  std::string url(const std::string& scheme, const std::string& host = "127.0.0.1") const {
    return scheme + "://" + host + ":" + std::to_string(acceptor_.local_endpoint().port()) + "/s";
  }

 private:
  asio::awaitable<void> acceptLoop() {
    for (;;) {
      auto socket = co_await acceptor_.async_accept(asio::use_awaitable);
      asio::co_spawn(io_, serve(std::move(socket)), [](std::exception_ptr) {});
    }
  }
  asio::awaitable<void> serve(tcp::socket socket) {
    websocket::stream<beast::ssl_stream<beast::tcp_stream>> ws(std::move(socket), tls_);
    co_await ws.next_layer().async_handshake(asio::ssl::stream_base::server, asio::use_awaitable);
    beast::flat_buffer buffer;
    http::request<http::string_body> request;
    co_await http::async_read(ws.next_layer(), buffer, request, asio::use_awaitable);
    if (!websocket::is_upgrade(request)) {
      http::response<http::string_body> response(http::status::ok, 11, "secure hello");
      response.prepare_payload();
      co_await http::async_write(ws.next_layer(), response, asio::use_awaitable);
      co_return;
    }
    co_await ws.async_accept(request, asio::use_awaitable);
    for (;;) {
      beast::flat_buffer message;
      co_await ws.async_read(message, asio::use_awaitable);
      co_await ws.async_write(message.data(), asio::use_awaitable);
    }
  }

  asio::ssl::context tls_{asio::ssl::context::tls_server};
  asio::io_context io_;
  tcp::acceptor acceptor_{io_};
  std::thread thread_;
};

class SecureWebSocket : public testing::Test {
 protected:
  static void SetUpTestSuite() { certificates_ = new testing_support::Certificates(); }
  static void TearDownTestSuite() { delete certificates_; }
  void TearDown() override { platform::setTrustedCertificates(std::nullopt); }

  // Sends "ping" and gives what comes back, or the failure.
  static Outcome echo(const std::string& url, platform::WebSocketConfiguration configuration) {
    platform::WebSocketSession session(std::move(configuration));
    auto task = session.webSocketTask(url);
    task->send("ping", [](auto) {});
    auto received = receiveInto(*task);
    task->resume();
    return received->pop();
  }
  static const std::filesystem::path& ca() {
    static const auto path = certificates_->path("ca.pem");
    return path;
  }
  static testing_support::Certificates* certificates_;
};
testing_support::Certificates* SecureWebSocket::certificates_ = nullptr;

TEST_F(SecureWebSocket, TheCertificateMustChainToATrustedAnchorAndNameTheHost) {
  SecureServer server(*certificates_, "server");
  expectError(echo(server.url("wss"), quick()), platform::url_error::domain,
              platform::url_error::secureConnectionFailed,
              "/s: certificate verify failed (unable to get local issuer certificate)");

  auto trusting = quick();
  trusting.caFile = ca();
  for (const char* host : {"127.0.0.1", "localhost"}) {
    auto outcome = echo(server.url("wss", host), trusting);
    ASSERT_TRUE(outcome.message) << host << ": " << outcome.error->what();
    EXPECT_EQ(outcome.message->payload, "ping");
  }

  platform::setTrustedCertificates(ca());
  auto outcome = echo(server.url("wss"), quick());
  ASSERT_TRUE(outcome.message) << outcome.error->what();

  SecureServer other(*certificates_, "other");
  expectError(echo(other.url("wss"), quick()), platform::url_error::domain,
              platform::url_error::secureConnectionFailed, "(IP address mismatch)");
  expectError(echo(other.url("wss", "localhost"), quick()), platform::url_error::domain,
              platform::url_error::secureConnectionFailed, "(hostname mismatch)");
}

TEST_F(SecureWebSocket, HttpsLoadsTrustTheSameAnchors) {
  SecureServer server(*certificates_, "server");
  const auto request = platform::URLRequest::make(server.url("https"));
  try {
    platform::URLSession::shared().dataSync(request);
    ADD_FAILURE() << "an unknown CA was trusted";
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::secureConnectionFailed) << e.what();
  }
  platform::setTrustedCertificates(ca());
  EXPECT_EQ(platform::URLSession::shared().dataSync(request).data, "secure hello");
}

}  // namespace
