#include "server.hpp"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/status.hpp>
#include <boost/beast/http/string_body.hpp>
#include <iostream>
#include <stdexcept>

#include "trouble.hpp"

namespace sandbox {
namespace {

namespace net = boost::asio;
namespace http = boost::beast::http;
using tcp = net::ip::tcp;
constexpr auto tuple_awaitable = net::as_tuple(net::use_awaitable);

// An idle keep-alive connection is closed after this long.
constexpr auto kReadTimeout = std::chrono::seconds(120);
constexpr std::size_t kMaxRequestBody = 64u * 1024 * 1024;

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

  Impl(const Router& r, Journal& j, ServerOptions o) : router(r), journal(j), options(o) {}

  net::awaitable<void> accept() {
    for (;;) {
      auto [ec, socket] = co_await acceptor.async_accept(tuple_awaitable);
      if (ec) {
        if (ec == net::error::operation_aborted) co_return;
        continue;
      }
      net::co_spawn(io, session(std::move(socket)), [this](std::exception_ptr error) {
        if (!error || !options.verbose) return;
        try {
          std::rethrow_exception(error);
        } catch (const std::exception& e) {
          std::cerr << "herald-sandbox: connection failed: " << e.what() << "\n";
        }
      });
    }
  }

  // Returns false when the connection must close (a cut-short answer).
  net::awaitable<bool> write(boost::beast::tcp_stream& stream, const Response& response,
                             const Trouble& trouble, bool keepAlive, bool head) {
    std::string header = statusLine(response.status);
    for (const auto& [name, value] : response.headers) header += name + ": " + value + "\r\n";
    const bool noBody = bodyless(response.status);
    if (!noBody) header += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    const bool cut =
        !noBody && !head && trouble.truncate && *trouble.truncate < response.body.size();
    if (!keepAlive || cut) header += "Connection: close\r\n";
    header += "\r\n";

    auto [ec, n] = co_await net::async_write(stream.socket(), net::buffer(header), tuple_awaitable);
    if (ec) co_return false;
    if (noBody || head) co_return true;
    co_await pause(trouble.stall);
    const auto length = cut ? *trouble.truncate : response.body.size();
    std::tie(ec, n) = co_await net::async_write(
        stream.socket(), net::buffer(response.body.data(), length), tuple_awaitable);
    co_return !ec && !cut;
  }

  net::awaitable<void> session(tcp::socket socket) {
    boost::beast::tcp_stream stream(std::move(socket));
    boost::beast::flat_buffer buffer;
    for (;;) {
      http::request_parser<http::string_body> parser;
      parser.body_limit(kMaxRequestBody);
      stream.expires_after(kReadTimeout);
      auto [ec, n] = co_await http::async_read(stream, buffer, parser, tuple_awaitable);
      if (ec) break;
      stream.expires_never();
      auto& message = parser.get();
      const bool keepAlive = message.keep_alive();
      const bool head = message.method() == http::verb::head;

      HeaderFields headers;
      for (const auto& field : message)
        headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
      Response response;
      Trouble trouble;
      try {
        auto request =
            Request::make(std::string(message.method_string()), std::string(message.target()),
                          std::move(headers), std::move(message.body()));
        if (!request.path.starts_with("/_sandbox/")) journal.record(request);
        trouble = troubleFrom(request);
        co_await pause(trouble.delay);
        if (head) request.method = "GET";
        response = router.handle(request);
        if (trouble.status) response.status = *trouble.status;
        if (options.verbose)
          std::cerr << "herald-sandbox: " << message.method_string() << " " << message.target()
                    << " -> " << response.status << "\n";
      } catch (const BadRequest& e) {
        response = Response::error(400, e.what());
        trouble = {};
      }
      if (!co_await write(stream, response, trouble, keepAlive, head) || !keepAlive) break;
    }
    boost::system::error_code ignored;
    stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
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
  return "http://127.0.0.1:" + std::to_string(impl_->acceptor.local_endpoint().port());
}

void Server::run() {
  impl_->signals.async_wait([this](const boost::system::error_code&, int) { impl_->io.stop(); });
  net::co_spawn(impl_->io, impl_->accept(), net::detached);
  impl_->io.run();
}

}  // namespace sandbox
