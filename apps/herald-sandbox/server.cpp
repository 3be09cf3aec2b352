#include "server.hpp"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/detect_ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket/rfc6455.hpp>
#include <atomic>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "realtime.hpp"
#include "realtime_server.hpp"
#include "trouble.hpp"

namespace sandbox {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace ssl = net::ssl;
using tcp = net::ip::tcp;
constexpr auto tuple_awaitable = net::as_tuple(net::use_awaitable);

// An idle keep-alive connection is closed after this long.
constexpr auto kReadTimeout = std::chrono::seconds(120);
// A TLS client has this long to say hello and finish the handshake.
constexpr auto kHandshakeTimeout = std::chrono::seconds(30);
constexpr std::size_t kMaxRequestBody = 64u * 1024 * 1024;
// On SIGINT or SIGTERM the realtime sessions have this long to finish once their sockets are
// closed; it takes a few turns of the loop, so the limit is only for a loop gone wrong.
constexpr auto kShutdownLimit = std::chrono::seconds(5);
// Routes that run on workers (GraphQL): two threads, and at most this many requests queued
// for them before the next is turned away with 503 and Retry-After.
constexpr std::size_t kWorkers = 2;
constexpr std::size_t kMaxWorkerJobs = 32;

bool bodyless(int status) {
  return status < 200 || status == 204 || status == 304;
}

std::string statusLine(int status) {
  auto reason = http::obsolete_reason(static_cast<http::status>(status));
  std::string line = "HTTP/1.1 " + std::to_string(status) + " ";
  line +=
      reason.empty() ? std::string_view("Status") : std::string_view(reason.data(), reason.size());
  return line + "\r\n";
}

net::awaitable<void> pause(std::chrono::milliseconds duration) {
  if (duration.count() <= 0) co_return;
  net::steady_timer timer(co_await net::this_coro::executor, duration);
  co_await timer.async_wait(tuple_awaitable);
}

// Why `path` cannot be read, or nothing when it can.
std::optional<std::string> unreadable(const std::filesystem::path& path) {
  std::ifstream file(path);
  if (file) return std::nullopt;
  return std::strerror(errno);
}

// A server context with the certificate chain and its key, or TLSSetupError saying which
// file is wrong and how.
ssl::context tlsContext(const std::filesystem::path& certificate, const std::filesystem::path& key) {
  for (const auto& [option, path] : {std::pair{"--tls-cert", &certificate}, {"--tls-key", &key}})
    if (const auto why = unreadable(*path))
      throw TLSSetupError("cannot read " + std::string(option) + " " + path->string() + ": " + *why);
  ssl::context context(ssl::context::tls_server);
  context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                      ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
  boost::system::error_code ec;
  context.use_certificate_chain_file(certificate.string(), ec);
  if (ec)
    throw TLSSetupError("--tls-cert " + certificate.string() +
                        " holds no certificate in PEM form (" + ec.message() + ")");
  // The key alone first, so that a file that holds none is told apart from a key of another
  // certificate.
  ssl::context alone(ssl::context::tls_server);
  alone.use_private_key_file(key.string(), ssl::context::pem, ec);
  if (ec)
    throw TLSSetupError("--tls-key " + key.string() + " holds no private key in PEM form (" +
                        ec.message() + ")");
  context.use_private_key_file(key.string(), ssl::context::pem, ec);
  if (ec)
    throw TLSSetupError("--tls-key " + key.string() + " is not the key of the certificate in " +
                        certificate.string());
  return context;
}

}  // namespace

struct Server::Impl {
  const Router& router;
  Journal& journal;
  ServerOptions options;
  net::io_context io{1};
  tcp::acceptor acceptor{io};
  // Taken over at construction, before the caller prints the URL: a SIGTERM sent as soon as
  // the URL is read must find the handler in place (asio keeps it until run() waits).
  net::signal_set signals{io, SIGINT, SIGTERM};
  std::optional<ssl::context> tls;
  net::thread_pool workers{kWorkers};
  std::atomic<std::size_t> workerJobs{0};

  Impl(const Router& r, Journal& j, ServerOptions o) : router(r), journal(j), options(o) {
    if (options.tlsCertificate.has_value() != options.tlsKey.has_value())
      throw std::invalid_argument("--tls-cert and --tls-key go together");
    if (options.tlsCertificate) tls.emplace(tlsContext(*options.tlsCertificate, *options.tlsKey));
  }

  // Before `io` goes (members go after this body): the hub holds its sessions, whose streams
  // must be gone before the services of `io` are.
  ~Impl() {
    workers.join();
    if (options.realtime) options.realtime->forgetAll();
  }

  // The route's answer, from a worker when the route runs on one; the connection resumes on
  // the I/O thread with it.
  net::awaitable<Response> handle(const Request& request) {
    if (!router.runsOnWorker(request)) co_return router.handle(request);
    if (workerJobs.fetch_add(1) >= kMaxWorkerJobs) {
      --workerJobs;
      auto busy = Response::error(503, "the sandbox has " + std::to_string(kMaxWorkerJobs) +
                                           " GraphQL requests waiting already; try again",
                                  "api_error");
      busy.headers.emplace_back("Retry-After", "1");
      co_return busy;
    }
    auto response = co_await net::co_spawn(
        workers, [&]() -> net::awaitable<Response> { co_return router.handle(request); },
        net::use_awaitable);
    --workerJobs;
    co_return response;
  }

  // After the loop stopped: no new connection, and every realtime session ended and let
  // finish (its coroutines end and it leaves the hub). HTTP connections are not waited for:
  // their coroutines go with `io`.
  void shutDown() {
    boost::system::error_code ignored;
    acceptor.close(ignored);
    if (!options.realtime || options.realtime->endAll() == 0) return;
    io.restart();
    const auto deadline = std::chrono::steady_clock::now() + kShutdownLimit;
    while (options.realtime->openConnections() > 0 && io.run_one_until(deadline) > 0) {
    }
  }

  net::awaitable<void> accept() {
    for (;;) {
      auto [ec, socket] = co_await acceptor.async_accept(tuple_awaitable);
      if (ec) {
        if (ec == net::error::operation_aborted) co_return;
        continue;
      }
      // An answer goes out in more than one write (head, then body, for the trouble that
      // stalls between them): without this, Nagle holds the body back until the client's
      // delayed acknowledgement, 40 ms on every request.
      boost::system::error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      net::co_spawn(io, connection(std::move(socket)), [this](std::exception_ptr error) {
        if (!error || !options.verbose) return;
        try {
          std::rethrow_exception(error);
        } catch (const std::exception& e) {
          std::cerr << "herald-sandbox: connection failed: " << e.what() << "\n";
        }
      });
    }
  }

  net::awaitable<void> connection(tcp::socket socket) {
    beast::tcp_stream stream(std::move(socket));
    beast::flat_buffer buffer;
    if (!tls) {
      co_await session(std::move(stream), std::move(buffer));
      co_return;
    }
    stream.expires_after(kHandshakeTimeout);
    auto [ec, isTLS] = co_await beast::async_detect_ssl(stream, buffer, tuple_awaitable);
    if (ec) co_return;
    if (!isTLS) {
      // Plain HTTP to a TLS server: one clear answer instead of a handshake failure.
      const auto port = std::to_string(acceptor.local_endpoint().port());
      co_await write(stream,
                     Response::error(400, "this service speaks HTTPS only: use https://127.0.0.1:" +
                                              port),
                     {}, false, false);
      boost::system::error_code ignored;
      stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
      co_return;
    }
    beast::ssl_stream<beast::tcp_stream> secure(std::move(stream), *tls);
    auto [handshakeError, used] = co_await secure.async_handshake(
        ssl::stream_base::server, buffer.data(), tuple_awaitable);
    if (handshakeError) co_return;
    buffer.consume(used);
    co_await session(std::move(secure), std::move(buffer));
  }

  // Returns false when the connection must close (a cut-short answer).
  template <class Stream>
  net::awaitable<bool> write(Stream& stream, const Response& response, const Trouble& trouble,
                             bool keepAlive, bool head) {
    std::string header = statusLine(response.status);
    for (const auto& [name, value] : response.headers) header += name + ": " + value + "\r\n";
    const bool noBody = bodyless(response.status);
    if (!noBody) header += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    const bool cut =
        !noBody && !head && trouble.truncate && *trouble.truncate < response.body.size();
    if (!keepAlive || cut) header += "Connection: close\r\n";
    header += "\r\n";

    auto [ec, n] = co_await net::async_write(stream, net::buffer(header), tuple_awaitable);
    if (ec) co_return false;
    if (noBody || head) co_return true;
    co_await pause(trouble.stall);
    const auto length = cut ? *trouble.truncate : response.body.size();
    std::tie(ec, n) = co_await net::async_write(
        stream, net::buffer(response.body.data(), length), tuple_awaitable);
    co_return !ec && !cut;
  }

  template <class Stream>
  net::awaitable<void> session(Stream stream, beast::flat_buffer buffer) {
    for (;;) {
      http::request_parser<http::string_body> parser;
      parser.body_limit(kMaxRequestBody);
      beast::get_lowest_layer(stream).expires_after(kReadTimeout);
      auto [ec, n] = co_await http::async_read(stream, buffer, parser, tuple_awaitable);
      if (ec) break;
      const auto received = Journal::Clock::now();
      beast::get_lowest_layer(stream).expires_never();
      auto& message = parser.get();
      const bool keepAlive = message.keep_alive();
      const bool head = message.method() == http::verb::head;

      HeaderFields headers;
      for (const auto& field : message)
        headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
      Response response;
      Trouble trouble;
      std::optional<Journal::EntryId> entry;
      try {
        auto request =
            Request::make(std::string(message.method_string()), std::string(message.target()),
                          std::move(headers), std::move(message.body()));
        if (!request.path.starts_with("/_sandbox/")) entry = journal.record(request, received);
        if (options.realtime && Realtime::isSocketPath(request.path) &&
            beast::websocket::is_upgrade(message)) {
          // A trouble rule for the socket's path holds the upgrade unanswered ("delay") or
          // refuses it ("status"), so that a client's reconnecting can be tested.
          Trouble upgradeTrouble;
          if (options.troubleRules)
            upgradeTrouble = options.troubleRules->apply(request, upgradeTrouble);
          co_await pause(upgradeTrouble.delay);
          auto admission = upgradeTrouble.status
                               ? std::variant<RealtimeCredential, Response>(Response::error(
                                     *upgradeTrouble.status,
                                     "the realtime socket refuses this upgrade (trouble rule)",
                                     *upgradeTrouble.status == 401 ? "authentication_error"
                                                                   : "api_error"))
                               : options.realtime->admit(request);
          if (auto* credential = std::get_if<RealtimeCredential>(&admission)) {
            if (options.verbose)
              std::cerr << "herald-sandbox: " << message.target() << " -> 101\n";
            co_await serveRealtime(std::move(stream), parser.release(), *options.realtime,
                                   std::move(*credential), request.path);
            co_return;
          }
          response = std::get<Response>(std::move(admission));
          if (options.verbose)
            std::cerr << "herald-sandbox: " << message.target() << " -> " << response.status
                      << "\n";
          // The client gave up on this connection with its upgrade.
          co_await write(stream, response, trouble, false, false);
          if (entry) journal.answered(*entry, response.status, Journal::Clock::now());
          break;
        }
        trouble = troubleFrom(request);
        if (options.troubleRules) trouble = options.troubleRules->apply(request, trouble);
        co_await pause(trouble.delay);
        if (head) request.method = "GET";
        response = co_await handle(request);
        if (trouble.status) response.status = *trouble.status;
        if (options.verbose)
          std::cerr << "herald-sandbox: " << message.method_string() << " " << message.target()
                    << " -> " << response.status << "\n";
      } catch (const BadRequest& e) {
        response = Response::error(400, e.what());
        trouble = {};
      }
      const bool whole = co_await write(stream, response, trouble, keepAlive, head);
      if (entry) journal.answered(*entry, response.status, Journal::Clock::now());
      if (!whole || !keepAlive) break;
    }
    co_await finish(stream);
  }

  static net::awaitable<void> finish(beast::tcp_stream& stream) {
    boost::system::error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
    co_return;
  }

  static net::awaitable<void> finish(beast::ssl_stream<beast::tcp_stream>& stream) {
    // close_notify, then the TCP end; a peer that does not answer is not waited for long.
    beast::get_lowest_layer(stream).expires_after(std::chrono::seconds(5));
    co_await stream.async_shutdown(tuple_awaitable);
    boost::system::error_code ignored;
    beast::get_lowest_layer(stream).socket().shutdown(tcp::socket::shutdown_send, ignored);
  }
};

Server::Server(const Router& router, Journal& journal, ServerOptions options)
    : impl_(std::make_unique<Impl>(router, journal, options)) {
  // Loopback only: the sandbox is a test double, never a service for other machines.
  const tcp::endpoint endpoint(net::ip::address_v4::loopback(), options.port);
  boost::system::error_code ec;
  impl_->acceptor.open(endpoint.protocol(), ec);
  if (!ec) impl_->acceptor.set_option(net::socket_base::reuse_address(true), ec);
  if (!ec) impl_->acceptor.bind(endpoint, ec);
  if (!ec) impl_->acceptor.listen(net::socket_base::max_listen_connections, ec);
  if (ec)
    throw std::runtime_error("cannot listen on 127.0.0.1:" + std::to_string(options.port) + ": " +
                             ec.message());
}

Server::~Server() = default;

std::string Server::baseURL() const {
  return std::string(impl_->tls ? "https" : "http") +
         "://127.0.0.1:" + std::to_string(impl_->acceptor.local_endpoint().port());
}

void Server::run() {
  impl_->signals.async_wait([this](const boost::system::error_code&, int) { impl_->io.stop(); });
  net::co_spawn(impl_->io, impl_->accept(), net::detached);
  impl_->io.run();
  impl_->shutDown();
}

}  // namespace sandbox
