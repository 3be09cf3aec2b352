#pragma once
// The realtime socket's hub: who is connected and subscribed to which user, what each
// connection receives and sends, and the frames that new inbox messages and clients' changes
// become. Plain values only; the WebSocket sessions (realtime_server.cpp) feed it what they
// read and send what it gives them.

#include <boost/json/object.hpp>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "accounts.hpp"
#include "http.hpp"
#include "inbox.hpp"
#include "journal.hpp"

namespace sandbox {

/// Frame kinds as the journal names them.
enum class FrameKind { text, binary, close, ping, pong };

/// Something for one connection to do, in the order given: send a frame (`count` times:
/// the payload is made once and shared), close, drop the TCP connection (a reset, or an end
/// of the stream without a close frame), or stall.
struct RealtimeOrder {
  enum class Kind { text, binary, close, reset, end, stall };
  Kind kind = Kind::text;
  /// The text or bytes of a frame, the reason of a close.
  std::shared_ptr<const std::string> payload;
  std::uint16_t code = 0;  ///< of a close
  std::size_t count = 1;   ///< copies of a text or binary frame
};

/// One open connection as the hub sees it; the server's WebSocket session implements it.
class RealtimeConnection {
 public:
  virtual ~RealtimeConnection() = default;
  /// Queues `order` behind every order before it. Any thread; never blocks.
  virtual void perform(RealtimeOrder order) = 0;
  /// Ends the connection now, whatever it is doing: the TCP connection closes, with no close
  /// frame, as when the service goes away. Any thread; never blocks.
  virtual void end() = 0;
};

/// Who opened a connection: the user of its access token ("auth"), or none when it came
/// with the client key, which may subscribe to any user.
struct RealtimeCredential {
  std::optional<std::string> tokenUser;
};

class Realtime : public InboxObserver {
 public:
  Realtime(const Accounts& accounts, Journal& journal);

  /// Whether `path` is the socket's ("/realtime" or "/realtime/").
  static bool isSocketPath(std::string_view path);

  /// The credential of an upgrade request: "auth" (an access token of this account: the
  /// token, when present, decides) or else "clientKey" (the account's client key). The
  /// refusal is the service's 401 body saying why.
  std::variant<RealtimeCredential, Response> admit(const Request& upgrade) const;

  /// A connection opened on `path` with `credential`; returns its number (1, 2, …).
  std::uint64_t open(std::shared_ptr<RealtimeConnection> connection,
                     RealtimeCredential credential, std::string path);
  /// A frame read from connection `id`: journaled, counted and acted on. A text frame must
  /// be {"action": "subscribe", "data": {...}} or {"action": "keepAlive"}; anything else (a
  /// binary frame: 1003; not JSON, another action, a subscribe without a channel or for a
  /// user the access token is not for: 1008) is answered with a close saying why.
  void received(std::uint64_t id, FrameKind kind, std::string_view payload,
                std::uint16_t closeCode = 0);
  /// A frame about to be written to connection `id`: journaled and counted.
  void sent(std::uint64_t id, FrameKind kind, std::string_view payload,
            std::uint16_t closeCode = 0);
  /// Connection `id` has ended; it hears nothing more.
  void closed(std::uint64_t id);

  /// Gives `order` to every connection subscribed to `user`; returns how many there are.
  /// A stall also marks them stalled in connections().
  std::size_t perform(const std::string& user, const RealtimeOrder& order);
  /// {"connections": [{"connection", "user", "tokenUser", "clientSourceId", "accountId",
  /// "userAgent", "version", "subscribed", "framesIn", "framesOut", "keepAlives",
  /// "stalled"}, ...]} in the order opened.
  boost::json::object connections() const;

  /// Ends every open connection (RealtimeConnection::end); returns how many there were. Each
  /// leaves the hub, through closed(), once its session has finished.
  std::size_t endAll();
  /// How many connections are open: opened and not closed().
  std::size_t openConnections() const;
  /// Lets go of every connection, which hears nothing more. The server calls it before its
  /// I/O goes: a session the hub held on to must not outlive the I/O its stream belongs to.
  void forgetAll();

  void messageAdded(const InboxMessage& message) override;
  void messageEvent(const std::string& user, std::string_view event, const InboxMessage* message,
                    const std::optional<std::string>& source) override;

 private:
  struct Connection {
    std::shared_ptr<RealtimeConnection> peer;
    RealtimeCredential credential;
    std::string path;
    bool subscribed = false;
    std::string user;
    std::optional<std::string> clientSourceId, accountId, userAgent;
    std::optional<std::int64_t> version;
    std::uint64_t framesIn = 0, framesOut = 0, keepAlives = 0;
    bool stalled = false;
  };

  void journal(const Connection& connection, std::uint64_t id, std::string_view direction,
               FrameKind kind, std::string_view payload, std::uint16_t closeCode);
  /// Why a text frame is refused (with its close code), or none when it was taken.
  std::optional<std::pair<std::uint16_t, std::string>> take(Connection& connection,
                                                            std::string_view text);
  /// Every subscribed connection of `user` whose account id, if it named one, is `tenant`.
  template <class Visit>
  void forEachReaching(const std::string& user, const std::optional<std::string>& tenant,
                       Visit visit);

  const Accounts& accounts_;
  Journal& journal_;
  mutable std::mutex mutex_;
  std::uint64_t lastId_ = 0;
  std::map<std::uint64_t, Connection> connections_;
};

}  // namespace sandbox
