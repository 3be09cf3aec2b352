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

/// Hears of the inbox's changes as they happen (the realtime socket's hub).
class InboxObserver {
 public:
  virtual ~InboxObserver() = default;
  /// `message` was added, with its id and tracking ids.
  virtual void messageAdded(const InboxMessage& message) = 0;
  /// A client changed `user`'s inbox: `event` is "click", "read", "unread", "opened",
  /// "archive" or "mark-all-read"; `message` is the message as changed (none for
  /// "mark-all-read"); `source` is the client source id the request named, if any.
  virtual void messageEvent(const std::string& user, std::string_view event,
                            const InboxMessage* message,
                            const std::optional<std::string>& source) = 0;
};

class Inbox {
 public:
  /// Tells `observer` (none: nobody) of every message added from now on and of the events
  /// given to announce(). The observer must outlive the inbox's use.
  void setObserver(InboxObserver* observer);
  /// Hands a client's change to the observer (see InboxObserver::messageEvent).
  void announce(const std::string& user, std::string_view event, const InboxMessage* message,
                const std::optional<std::string>& source);

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
  InboxObserver* observer_ = nullptr;
  std::vector<InboxMessage> messages_;
  std::uint64_t lastId_ = 0;
};

}  // namespace sandbox
