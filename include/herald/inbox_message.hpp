#pragma once
/// The inbox model: a message as the service returns it, the wire records of the inbox's
/// GraphQL answers, the paged lists kept in memory and the whole client-side inbox state.
///
///   auto response = core::decodeJSON<herald::InboxResponse>(body);
///   auto page = herald::InboxMessageSet::fromData(response.data.value_or(herald::InboxData{}));
///   auto state = std::make_shared<herald::HeraldInboxData>();
///   state->addPage(page, herald::InboxMessageFeed::feed);
///   for (const auto& message : state->feed.messages) show(message->title, message->time());
///
/// Messages are shared by identity (`InboxMessagePtr`) between the state, listeners and views;
/// `copy()` makes an independent one.

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/dates.hpp"
#include "core/decoding.hpp"
#include "herald/herald_error.hpp"
#include "herald/tracking.hpp"

namespace herald {

/// Stops the program: writes "herald: fatal error: <what>" as one line to standard error and
/// aborts. For broken invariants of the inbox state (an index outside a list, a counter that
/// would overflow), which no caller can recover from.
[[noreturn]] void fatal(std::string_view what);

/// A button of a message.
struct InboxAction {
  /// The button's label.
  std::optional<std::string> content;
  /// The link it opens.
  std::optional<std::string> href;
  std::optional<boost::json::object> data;

  /// Every key optional; a present value of the wrong type fails (`core::DecodingError`).
  static InboxAction from(const core::KeyedDecoder& decoder);
  /// Absent fields are left out.
  boost::json::object toJSON() const;

  friend bool operator==(const InboxAction&, const InboxAction&) = default;
};

class InboxMessage;
using InboxMessagePtr = std::shared_ptr<InboxMessage>;

/// One inbox message. Only the three state fields (`archived`, `read`, `opened`) change after
/// decoding; they hold the service's timestamp text and count only as present or absent.
class InboxMessage {
 public:
  using Date = core::Date;

  InboxMessage(std::string messageId, std::optional<std::string> title = std::nullopt,
               std::optional<std::string> body = std::nullopt,
               std::optional<std::string> preview = std::nullopt,
               std::optional<std::vector<InboxAction>> actions = std::nullopt,
               std::optional<boost::json::object> data = std::nullopt,
               std::optional<HeraldTrackingIds> trackingIds = std::nullopt,
               std::optional<std::string> created = std::nullopt,
               std::optional<std::string> archived = std::nullopt,
               std::optional<std::string> read = std::nullopt,
               std::optional<std::string> opened = std::nullopt);

  const std::string messageId;
  const std::optional<std::string> title;
  const std::optional<std::string> body;
  const std::optional<std::string> preview;
  const std::optional<std::vector<InboxAction>> actions;
  const std::optional<boost::json::object> data;
  const std::optional<HeraldTrackingIds> trackingIds;
  /// Creation time, ISO 8601 text.
  const std::optional<std::string> created;
  std::optional<std::string> archived;
  std::optional<std::string> read;
  std::optional<std::string> opened;

  /// "messageId" is required; "data" that is not an object is dropped (the message stands),
  /// every other field of the wrong type fails the decode with a `core::DecodingError`
  /// naming the key.
  static InboxMessagePtr from(const core::KeyedDecoder& decoder);
  /// Parses and decodes one message (`core::DecodingError` when it is not one).
  static InboxMessagePtr fromJSON(std::string_view text);
  /// Every present field under its own key.
  boost::json::object toJSON() const;

  /// A new message with every field copied (lists and maps by value).
  InboxMessagePtr copy() const;

  /// `body`, else `preview`, else none.
  std::optional<std::string> subtitle() const;
  /// Presence only: an empty "read" text counts as read.
  bool isRead() const { return read.has_value(); }
  bool isOpened() const { return opened.has_value(); }
  bool isArchived() const { return archived.has_value(); }

  /// `created` as an internet date-time (with or without fractional seconds); `now` when it
  /// is absent or does not parse.
  Date createdAt(Date now) const;
  Date createdAt() const;
  /// `createdAt` in milliseconds since 1970, truncated toward zero.
  std::int64_t timestamp(Date now) const;
  std::int64_t timestamp() const;

  /// How long ago the message was made, for display: "-30s", "59s", "5m", "3h", "6d", "1w",
  /// "47w", "1y". A year here is 48 weeks (29,030,400 s), on purpose. `created` must have the
  /// shape "yyyy-MM-dd'T'HH:mm:ss.SSSZZZZZ" (read in the process's locale and time zone);
  /// any other text, or none, gives "now".
  std::string time(Date now) const;
  std::string time() const;

  /// Marks the message through the shared facade's inbox (`Herald::readMessage` and its
  /// siblings): changed there at once, then told to the service.
  boost::asio::awaitable<void> markAsRead() const;
  boost::asio::awaitable<void> markAsUnread() const;
  boost::asio::awaitable<void> markAsOpened() const;
  boost::asio::awaitable<void> markAsClicked() const;
  boost::asio::awaitable<void> markAsArchived() const;

  using OnSuccess = std::function<void()>;
  using OnFailure = std::function<void(const HeraldError&)>;
  /// The same operations as detached tasks; the callbacks (either may be empty) run on a
  /// thread of the shared executor.
  void markAsRead(OnSuccess onSuccess, OnFailure onFailure) const;
  void markAsUnread(OnSuccess onSuccess, OnFailure onFailure) const;
  void markAsOpened(OnSuccess onSuccess, OnFailure onFailure) const;
  void markAsClicked(OnSuccess onSuccess, OnFailure onFailure) const;
  void markAsArchived(OnSuccess onSuccess, OnFailure onFailure) const;
};

// The wire records of the inbox's GraphQL answers: every field optional, absent or null
// keys give none, a present value of the wrong type fails with a `core::DecodingError`.

struct InboxPageInfo {
  std::optional<std::string> startCursor;
  std::optional<bool> hasNextPage;
  static InboxPageInfo from(const core::KeyedDecoder& decoder);
};

struct InboxNodes {
  std::optional<InboxPageInfo> pageInfo;
  /// One message that cannot be decoded fails the whole list.
  std::optional<std::vector<InboxMessagePtr>> nodes;
  static InboxNodes from(const core::KeyedDecoder& decoder);
};

struct InboxData {
  std::optional<std::int64_t> count;
  std::optional<InboxNodes> messages;
  static InboxData from(const core::KeyedDecoder& decoder);

  /// `count` (none counts as 0) plus one; stops the program rather than overflow.
  void incrementCount();
};

struct InboxResponse {
  std::optional<InboxData> data;
  static InboxResponse from(const core::KeyedDecoder& decoder);
};

struct GetInboxMessageData {
  std::optional<InboxMessagePtr> message;
  static GetInboxMessageData from(const core::KeyedDecoder& decoder);
};

struct HeraldGetInboxMessageResponse {
  std::optional<GetInboxMessageData> data;
  static HeraldGetInboxMessageResponse from(const core::KeyedDecoder& decoder);
};

/// One list of the inbox as it accumulates pages.
struct InboxMessageSet {
  std::vector<InboxMessagePtr> messages;
  std::int64_t totalCount = 0;
  bool canPaginate = false;
  std::optional<std::string> paginationCursor;

  /// A page as the service sent it: no messages, count, page info or cursor give an empty
  /// list, 0, false and none.
  static InboxMessageSet fromData(const InboxData& data);
  /// The four keys of `toJSON`; all but "paginationCursor" required.
  static InboxMessageSet from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

/// The two lists of the inbox.
enum class InboxMessageFeed { feed, archived };

/// What can befall a message, as the realtime socket names it.
enum class InboxEventType {
  markAllRead,
  read,
  unread,
  opened,
  unopened,
  archive,
  unarchive,
  click,
  unclick
};

/// "mark-all-read", "read", "unread", "opened", "unopened", "archive", "unarchive", "click",
/// "unclick".
std::string_view toString(InboxEventType type);
/// Exact, case-sensitive match of the texts above; anything else gives none.
std::optional<InboxEventType> inboxEventTypeFromString(std::string_view text);

/// The whole client-side inbox state. Not synchronised: the inbox changes it from one serial
/// context only. An index outside a list stops the program.
class HeraldInboxData {
 public:
  InboxMessageSet feed;
  InboxMessageSet archived;
  std::int64_t unreadCount = 0;

  /// Both sets and the count copied; the messages in them are shared, not cloned.
  std::shared_ptr<HeraldInboxData> copy() const;

  /// The named list.
  InboxMessageSet& messageSet(InboxMessageFeed which);

  /// Replaces the message at `index` (0 ≤ index < size) of the named list.
  void updateMessage(InboxMessagePtr message, std::int64_t index, InboxMessageFeed which);
  /// Inserts at `index` (0 ≤ index ≤ size). Into the feed, `unreadCount` rises by one whatever
  /// the message's read state: a message that arrives is new. The archive leaves it alone.
  void addMessage(InboxMessagePtr message, std::int64_t index, InboxMessageFeed which);
  /// Appends the page's messages and takes over its cursor and `canPaginate`; the list's
  /// `totalCount` stays.
  void addPage(const InboxMessageSet& page, InboxMessageFeed which);
};

}  // namespace herald

/// Messages decode into shared objects.
template <>
struct core::Decodable<herald::InboxMessagePtr> {
  static constexpr std::string_view expected = "an object";
  static herald::InboxMessagePtr decode(const boost::json::value& value, std::string_view path) {
    return herald::InboxMessage::from(core::KeyedDecoder(value, path));
  }
};
