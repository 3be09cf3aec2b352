#include "realtime_server.hpp"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <deque>

namespace sandbox {
namespace {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
constexpr auto tuple_awaitable = net::as_tuple(net::use_awaitable);

// Clients send subscribe and keep-alive messages of a few hundred bytes.
constexpr std::size_t kMaxInboundMessage = 1024 * 1024;

// One connection: a reader (this coroutine) and a writer (spawned beside it) on the one
// thread of the server, sharing the stream. The writer alone writes, one order at a time,
// so frames leave in the order the hub gave them.
template <class Stream>
class Session : public RealtimeConnection, public std::enable_shared_from_this<Session<Stream>> {
 public:
  Session(Stream stream, Realtime& realtime)
      : ws_(std::move(stream)), wake_(ws_.get_executor()), realtime_(realtime) {}

  void perform(RealtimeOrder order) override {
    net::post(ws_.get_executor(), [self = this->shared_from_this(), order = std::move(order)] {
      if (self->stalled_ || self->closeSent_ || self->ended_) return;  // nothing more goes out
      self->orders_.push_back(std::move(order));
      self->wake_.cancel();
    });
  }

  void end() override {
    // Closing the socket ends the pending read (and write); the reader then finishes as for
    // a connection the peer dropped, and the writer after it.
    net::post(ws_.get_executor(), [self = this->shared_from_this()] {
      boost::system::error_code ignored;
      beast::get_lowest_layer(self->ws_).socket().close(ignored);
    });
  }

  net::awaitable<void> serve(UpgradeRequest upgrade, RealtimeCredential credential,
                             std::string path) {
    beast::get_lowest_layer(ws_).expires_never();
    ws_.set_option(websocket::stream_base::timeout{std::chrono::seconds(30),
                                                   websocket::stream_base::none(), false});
    ws_.read_message_max(kMaxInboundMessage);
    // One frame per message: a test that asks for one large frame gets one.
    ws_.auto_fragment(false);
    ws_.control_callback([this](websocket::frame_type kind, beast::string_view payload) {
      const auto frameKind = kind == websocket::frame_type::ping   ? FrameKind::ping
                             : kind == websocket::frame_type::pong ? FrameKind::pong
                                                                   : FrameKind::close;
      realtime_.received(id_, frameKind, std::string_view(payload.data(), payload.size()),
                         frameKind == FrameKind::close ? ws_.reason().code : 0);
    });
    auto [ec] = co_await ws_.async_accept(upgrade, tuple_awaitable);
    if (ec) co_return;
    id_ = realtime_.open(this->shared_from_this(), std::move(credential), std::move(path));
    net::co_spawn(ws_.get_executor(), write(this->shared_from_this()), net::detached);

    for (;;) {
      beast::flat_buffer buffer;
      auto [error, n] = co_await ws_.async_read(buffer, tuple_awaitable);
      if (stalled_) break;
      if (error) {
        // The peer began the closing handshake, and the stream answered it with its code.
        if (error == websocket::error::closed && !closeSent_)
          realtime_.sent(id_, FrameKind::close, std::string_view(ws_.reason().reason.data(), ws_.reason().reason.size()),
                         ws_.reason().code);
        break;
      }
      realtime_.received(id_, ws_.got_text() ? FrameKind::text : FrameKind::binary,
                         beast::buffers_to_string(buffer.data()));
    }
    // Stalled: keep the connection, answer nothing (not even a ping), and drop what comes,
    // until the peer gives up.
    while (stalled_) {
      char sink[4096];
      auto [error, n] = co_await beast::get_lowest_layer(ws_).socket().async_read_some(
          net::buffer(sink), tuple_awaitable);
      if (error) break;
    }
    ended_ = true;
    wake_.cancel();
    realtime_.closed(id_);
    boost::system::error_code ignored;
    beast::get_lowest_layer(ws_).socket().close(ignored);
  }

 private:
  // `self` keeps the session alive as long as the writer runs.
  net::awaitable<void> write([[maybe_unused]] std::shared_ptr<Session> self) {
    while (!ended_) {
      if (orders_.empty()) {
        wake_.expires_at(net::steady_timer::time_point::max());
        co_await wake_.async_wait(tuple_awaitable);
        continue;
      }
      auto order = std::move(orders_.front());
      orders_.pop_front();
      if (stalled_ || closeSent_) continue;  // nothing more goes out
      if (!co_await carryOut(order)) break;
    }
  }

  // False when nothing more can be written.
  net::awaitable<bool> carryOut(const RealtimeOrder& order) {
    using Kind = RealtimeOrder::Kind;
    auto& socket = beast::get_lowest_layer(ws_).socket();
    switch (order.kind) {
      case Kind::text:
      case Kind::binary: {
        const bool text = order.kind == Kind::text;
        ws_.text(text);
        for (std::size_t i = 0; i < order.count && !ended_; ++i) {
          realtime_.sent(id_, text ? FrameKind::text : FrameKind::binary, *order.payload);
          auto [ec, n] = co_await ws_.async_write(net::buffer(*order.payload), tuple_awaitable);
          if (ec) co_return false;
        }
        co_return true;
      }
      case Kind::close: {
        closeSent_ = true;
        realtime_.sent(id_, FrameKind::close, *order.payload, order.code);
        co_await ws_.async_close(
            websocket::close_reason(static_cast<websocket::close_code>(order.code),
                                    beast::string_view(*order.payload)),
            tuple_awaitable);
        co_return false;
      }
      case Kind::reset: {
        // No close frame, no FIN: the peer sees its connection reset.
        boost::system::error_code ignored;
        socket.set_option(net::socket_base::linger(true, 0), ignored);
        socket.close(ignored);
        co_return false;
      }
      case Kind::end: {
        // The stream ends (FIN) with no close frame before it, as when the service's process
        // goes away.
        boost::system::error_code ignored;
        socket.shutdown(net::socket_base::shutdown_both, ignored);
        socket.close(ignored);
        co_return false;
      }
      case Kind::stall: {
        // The pending read ends (the reader then only drains the socket), and nothing more is
        // written.
        stalled_ = true;
        orders_.clear();
        boost::system::error_code ignored;
        socket.cancel(ignored);
        co_return false;
      }
    }
    co_return false;
  }

  websocket::stream<Stream> ws_;
  net::steady_timer wake_;
  Realtime& realtime_;
  std::uint64_t id_ = 0;
  std::deque<RealtimeOrder> orders_;
  bool stalled_ = false, closeSent_ = false, ended_ = false;
};

}  // namespace

template <class Stream>
net::awaitable<void> serveRealtime(Stream stream, UpgradeRequest upgrade, Realtime& realtime,
                                   RealtimeCredential credential, std::string path) {
  auto session = std::make_shared<Session<Stream>>(std::move(stream), realtime);
  co_await session->serve(std::move(upgrade), std::move(credential), std::move(path));
}

template net::awaitable<void> serveRealtime(PlainStream, UpgradeRequest, Realtime&,
                                            RealtimeCredential, std::string);
template net::awaitable<void> serveRealtime(SecureStream, UpgradeRequest, Realtime&,
                                            RealtimeCredential, std::string);

}  // namespace sandbox
