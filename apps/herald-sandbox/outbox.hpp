#pragma once
// The pushes the sandbox "sent": one message per registered push token, with the payload the
// phone would receive and the tracking events reported for it since.

#include <boost/json/object.hpp>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

struct OutboxMessage {
  std::string id;  ///< "m1", "m2", …; never reused while the sandbox runs
  std::string user;
  std::string token;
  std::string providerKey;
  boost::json::object payload;
  std::vector<std::string> events;  ///< tracking events in the order reported
};

/// {"id", "user", "token", "provider_key", "payload", "events": [...]}
boost::json::object toJSON(const OutboxMessage& message);

class Outbox {
 public:
  /// Keeps a new message under the next id; its payload is `payloadFor(id)`, so that the
  /// payload can point back at the message.
  OutboxMessage add(std::string user, std::string token, std::string providerKey,
                    const std::function<boost::json::object(const std::string& id)>& payloadFor);
  /// Records `event` against message `id`; false when there is no such message.
  bool track(std::string_view id, std::string event);
  /// Every message kept, oldest first.
  std::vector<OutboxMessage> messages() const;
  /// Forgets every message; returns how many there were.
  std::size_t clear();

 private:
  mutable std::mutex mutex_;
  std::vector<OutboxMessage> messages_;
  std::uint64_t lastId_ = 0;
};

}  // namespace sandbox
