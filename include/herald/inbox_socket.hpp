#pragma once
/// The inbox's realtime socket: subscribes to the signed-in user's channel and turns each
/// inbound frame into a new message or a message event.
///
///   auto socket = herald::InboxSocket::create(client->options);
///   socket->receivedMessage = [](herald::InboxMessagePtr m) { show(m); };
///   socket->receivedMessageEvent = [](const herald::MessageEvent& e) { apply(e); };
///   co_await socket->connect();
///   co_await socket->sendSubscribe(5);
///   socket->keepAlive(300);
///
/// A frame that cannot be decoded is dropped with an error line in the SDK's log (when the
/// options log); the connection stays open.

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "core/decoding.hpp"
#include "herald/herald_client.hpp"
#include "herald/herald_socket.hpp"
#include "herald/inbox_message.hpp"
#include "platform/actor.hpp"

namespace herald {

/// The kind of an inbound frame, its "type".
enum class PayloadType { event, message };
/// "event", "message".
std::string_view toString(PayloadType type);

struct SocketPayload {
  PayloadType type;
  static SocketPayload from(const core::KeyedDecoder& decoder);
};

/// A change made elsewhere (another device, the service) to one message, or to all of them.
struct MessageEvent {
  InboxEventType event;
  /// Absent for "mark-all-read".
  std::optional<std::string> messageId;
  /// The frame's "type" text ("event").
  std::string type;

  static MessageEvent from(const core::KeyedDecoder& decoder);
  /// {"event", "messageId" (when present), "type"}.
  boost::json::object toJSON() const;

  friend bool operator==(const MessageEvent&, const MessageEvent&) = default;
};

/// What one inbound frame holds.
using SocketFrame = std::variant<InboxMessagePtr, MessageEvent>;

/// Decodes one inbound frame: its "type" first, then the same object as a `MessageEvent`
/// ("event") or as an `InboxMessage` whose fields stand beside "type" ("message"). Throws
/// `core::DecodingError` naming the key for text that is not such a frame.
SocketFrame decodeSocketFrame(std::string_view text);

class InboxSocket : public HeraldSocket {
 public:
  /// A closed socket for `options` at `Endpoints::current().realtimeSocketURL`, whose received
  /// texts go to `handleMessage` (the socket is held weakly by that handler).
  static std::shared_ptr<InboxSocket> create(
      HeraldClient::Options options, platform::WebSocketConfiguration configuration =
                                         platform::WebSocketConfiguration::defaultConfiguration());

  /// `endpoint` + "/?auth=" + jwt, else + "/?clientKey=" + client key, else `endpoint`;
  /// the values as they are, without percent-encoding.
  static std::string socketURL(std::string_view endpoint, const HeraldClient::Options& options);
  /// {"action": "subscribe", "data": {"userAgent", "channel", "event": "*", "version",
  /// then "clientKey", "clientSourceId", "accountId" when the options have them}}.
  static boost::json::object subscribeMessage(const HeraldClient::Options& options,
                                              std::int64_t version);

  const HeraldClient::Options options;
  SocketCallback<void(InboxMessagePtr)> receivedMessage;
  SocketCallback<void(const MessageEvent&)> receivedMessageEvent;

  /// Subscribes to the user's channel (the inbox always asks for version 5).
  boost::asio::awaitable<void> sendSubscribe(std::int64_t version);
  /// Decodes `text` and hands it to `receivedMessage` or `receivedMessageEvent`; a frame
  /// that cannot be decoded is logged and dropped.
  void handleMessage(std::string_view text);

 protected:
  InboxSocket(HeraldClient::Options options, platform::WebSocketConfiguration configuration);
  void report(std::string_view line) const override;
};

/// Owns the process's one live inbox socket. An actor: its operations run one at a time.
///
///   herald::InboxSocketManager manager;
///   auto socket = co_await manager.updateInstance(client->options);  // the old one closed
///   co_await manager.closeSocket();
class InboxSocketManager {
 public:
  explicit InboxSocketManager(platform::WebSocketConfiguration configuration =
                                  platform::WebSocketConfiguration::defaultConfiguration());

  /// Disconnects the current socket, clears its two inbox callbacks and forgets it.
  boost::asio::awaitable<void> closeSocket();
  /// Closes the current socket and makes a new, unconnected one for `options`.
  boost::asio::awaitable<std::shared_ptr<InboxSocket>> updateInstance(
      HeraldClient::Options options);
  /// The current socket, or none.
  boost::asio::awaitable<std::shared_ptr<InboxSocket>> shared();
  /// The limits of the sockets made from now on.
  boost::asio::awaitable<void> setConfiguration(platform::WebSocketConfiguration configuration);

 private:
  void closeSocketHere();

  platform::Actor actor_;
  platform::WebSocketConfiguration configuration_;
  std::shared_ptr<InboxSocket> shared_;  // on actor_'s strand only
};

}  // namespace herald
