#pragma once
// The realtime socket's WebSocket sessions, for server.cpp only: the two files that see
// Boost.Beast. The same template serves plain TCP (ws) and TLS (wss) streams.

#include <boost/asio/awaitable.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <string>

#include "realtime.hpp"

namespace sandbox {

using UpgradeRequest = boost::beast::http::request<boost::beast::http::string_body>;
using PlainStream = boost::beast::tcp_stream;
using SecureStream = boost::beast::ssl_stream<boost::beast::tcp_stream>;

/// Answers `upgrade` with 101 on `stream` and serves the connection until it ends: what it
/// reads goes to `realtime`, and what `realtime` orders goes out, in order.
template <class Stream>
boost::asio::awaitable<void> serveRealtime(Stream stream, UpgradeRequest upgrade,
                                           Realtime& realtime, RealtimeCredential credential,
                                           std::string path);

extern template boost::asio::awaitable<void> serveRealtime(PlainStream, UpgradeRequest, Realtime&,
                                                           RealtimeCredential, std::string);
extern template boost::asio::awaitable<void> serveRealtime(SecureStream, UpgradeRequest,
                                                           Realtime&, RealtimeCredential,
                                                           std::string);

}  // namespace sandbox
