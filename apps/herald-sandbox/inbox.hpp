#pragma once
// Each user's inbox messages, in memory: added by the sandbox's own routes (and by every push
// it sends), read and changed through the inbox GraphQL route.

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox {

struct InboxMessage {
  std::string messageId;  ///< "i1", "i2", …; never reused while the sandbox runs
  std::string user;
  std::optional<std::string> tenant;  ///< the account id the message was sent under
  std::optional<std::string> title;
  std::optional<std::string> body;
  std::optional<std::string> preview;
  boost::json::array
      actions;  ///< objects with "content", "href", "data", "background_color", "style"
  std::optional<boost::json::object> data;
  std::string created;             ///< "2026-11-23T13:41:44.123Z"
  std::int64_t createdMillis = 0;  ///< the same instant, for ordering
  std::optional<std::string> read, opened, archived, clicked;
  /// "clickTrackingId", "deliverTrackingId", …: URLs of this service's /track/ route.
  std::map<std::string, std::string> trackingIds;
  std::uint64_t sequence = 0;  ///< order of arrival, which breaks ties of `created`
};

/// The message as the sandbox's own routes show it: every field, absent ones as null.
boost::json::object toJSON(const InboxMessage& message);

/// Milliseconds since 1970 of "YYYY-MM-DDTHH:MM:SS[.fff](Z|+HH:MM|-HH:MM)"; none for any other
/// text.
std::optional<std::int64_t> parseTimestamp(std::string_view text);
/// The current time as "YYYY-MM-DDTHH:MM:SS.fffZ".
std::string timestampNow();

class Inbox {
 public:
  /// Keeps `message` under the next id. An empty `created` becomes now; `trackingFor(id)`
  /// gives the tracking ids, so that they can name the message.
  InboxMessage add(
      InboxMessage message,
      const std::function<std::map<std::string, std::string>(const std::string& id)>& trackingFor);
  /// The user's messages, newest first (by "created", then by arrival).
  std::vector<InboxMessage> messages(std::string_view user) const;
  /// Applies `change` to the user's message `messageId` and returns the result; none when the
  /// user has no such message.
  std::optional<InboxMessage> change(std::string_view user, std::string_view messageId,
                                     const std::function<void(InboxMessage&)>& change);
  /// Applies `change` to every message of the user; returns how many there are.
  std::size_t changeAll(std::string_view user, const std::function<void(InboxMessage&)>& change);

 private:
  mutable std::mutex mutex_;
  std::vector<InboxMessage> messages_;
  std::uint64_t lastId_ = 0;
};

}  // namespace sandbox
