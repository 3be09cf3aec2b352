#include "herald/inbox_message.hpp"

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <utility>

#include "herald/herald.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"

namespace herald {
namespace {

// A map of JSON values: anything but an object fails (the caller decides whether that
// matters).
boost::json::object decodeMap(const boost::json::value& value, std::string_view path) {
  const auto* object = value.if_object();
  if (object == nullptr) {
    throw core::DecodingError(core::DecodingError::Kind::typeMismatch, std::string(path),
                              "expected an object, found " + platform::describeJSONKind(value));
  }
  return *object;
}

std::optional<boost::json::object> decodeMapIfPresent(const core::KeyedDecoder& decoder,
                                                      std::string_view key) {
  const auto* value = decoder.find(key);
  if (value == nullptr) return std::nullopt;
  return decodeMap(*value, core::appendCodingKey(decoder.codingPath(), key));
}

std::optional<HeraldTrackingIds> decodeTrackingIds(const core::KeyedDecoder& decoder) {
  const auto* value = decoder.find("trackingIds");
  if (value == nullptr) return std::nullopt;
  try {
    return HeraldTrackingIds::fromJSON(*value);
  } catch (const std::invalid_argument& e) {
    throw core::DecodingError(core::DecodingError::Kind::typeMismatch,
                              core::appendCodingKey(decoder.codingPath(), "trackingIds"), e.what());
  }
}

void put(boost::json::object& object, std::string_view key,
         const std::optional<std::string>& value) {
  if (value) object[key] = *value;
}

// The fixed display pattern is read in the process's locale and time zone, as a formatter
// without either set would. One formatter for the process: making one is costly, and calls
// on it are serialised.
const core::DateFormatter& displayPatternFormatter() {
  static const core::DateFormatter formatter("yyyy-MM-dd'T'HH:mm:ss.SSSZZZZZ");
  return formatter;
}

std::int64_t checkedIncrement(std::int64_t value, std::string_view what) {
  if (value == std::numeric_limits<std::int64_t>::max()) {
    fatal(std::string(what) + " would overflow past " + std::to_string(value));
  }
  return value + 1;
}

// `index` must lie in 0..size-1, or 0..size where inserting at the end is allowed.
std::size_t checkedIndex(std::int64_t index, std::size_t size, bool endAllowed,
                         std::string_view operation, InboxMessageFeed which) {
  const bool inRange = index >= 0 && (static_cast<std::uint64_t>(index) < size ||
                                      (endAllowed && static_cast<std::uint64_t>(index) == size));
  if (!inRange) {
    fatal(std::string(operation) + ": index " + std::to_string(index) +
          " is out of range for the " + (which == InboxMessageFeed::feed ? "feed" : "archive") +
          " of " + std::to_string(size) + " messages");
  }
  return static_cast<std::size_t>(index);
}

using MarkOperation = boost::asio::awaitable<void> (InboxMessage::*)() const;

void runWithCallbacks(const InboxMessage& message, MarkOperation operation,
                      InboxMessage::OnSuccess onSuccess, InboxMessage::OnFailure onFailure) {
  // The task keeps its own copy of the message, so the caller's may go away meanwhile.
  platform::spawnDetached([message = message.copy(), operation, onSuccess = std::move(onSuccess),
                           onFailure = std::move(onFailure)]() -> boost::asio::awaitable<void> {
    std::optional<HeraldError> failure;
    try {
      co_await ((*message).*operation)();
    } catch (...) {
      failure = HeraldError::from(std::current_exception());
    }
    if (failure) {
      if (onFailure) onFailure(*failure);
    } else if (onSuccess) {
      onSuccess();
    }
  });
}

}  // namespace

void fatal(std::string_view what) {
  std::fprintf(stderr, "herald: fatal error: %.*s\n", static_cast<int>(what.size()), what.data());
  std::fflush(stderr);
  std::abort();
}

InboxAction InboxAction::from(const core::KeyedDecoder& decoder) {
  return {decoder.decodeIfPresent<std::string>("content"),
          decoder.decodeIfPresent<std::string>("href"), decodeMapIfPresent(decoder, "data")};
}

boost::json::object InboxAction::toJSON() const {
  boost::json::object object;
  put(object, "content", content);
  put(object, "href", href);
  if (data) object["data"] = *data;
  return object;
}

InboxMessage::InboxMessage(std::string messageId, std::optional<std::string> title,
                           std::optional<std::string> body, std::optional<std::string> preview,
                           std::optional<std::vector<InboxAction>> actions,
                           std::optional<boost::json::object> data,
                           std::optional<HeraldTrackingIds> trackingIds,
                           std::optional<std::string> created, std::optional<std::string> archived,
                           std::optional<std::string> read, std::optional<std::string> opened)
    : messageId(std::move(messageId)),
      title(std::move(title)),
      body(std::move(body)),
      preview(std::move(preview)),
      actions(std::move(actions)),
      data(std::move(data)),
      trackingIds(std::move(trackingIds)),
      created(std::move(created)),
      archived(std::move(archived)),
      read(std::move(read)),
      opened(std::move(opened)) {}

InboxMessagePtr InboxMessage::from(const core::KeyedDecoder& decoder) {
  auto messageId = decoder.decode<std::string>("messageId");
  auto title = decoder.decodeIfPresent<std::string>("title");
  auto body = decoder.decodeIfPresent<std::string>("body");
  auto preview = decoder.decodeIfPresent<std::string>("preview");
  auto actions = decoder.decodeIfPresent<std::vector<InboxAction>>("actions");
  auto trackingIds = decodeTrackingIds(decoder);
  auto created = decoder.decodeIfPresent<std::string>("created");
  auto archived = decoder.decodeIfPresent<std::string>("archived");
  auto read = decoder.decodeIfPresent<std::string>("read");
  auto opened = decoder.decodeIfPresent<std::string>("opened");
  // "data" is free-form and the service has sent odd shapes there; a bad one costs only the
  // map, not the message (and not the page it came in).
  std::optional<boost::json::object> data;
  try {
    data = decodeMapIfPresent(decoder, "data");
  } catch (const core::DecodingError&) {
    data.reset();
  }
  return std::make_shared<InboxMessage>(std::move(messageId), std::move(title), std::move(body),
                                        std::move(preview), std::move(actions), std::move(data),
                                        std::move(trackingIds), std::move(created),
                                        std::move(archived), std::move(read), std::move(opened));
}

InboxMessagePtr InboxMessage::fromJSON(std::string_view text) {
  return core::decodeJSON<InboxMessagePtr>(text);
}

boost::json::object InboxMessage::toJSON() const {
  boost::json::object object;
  object["messageId"] = messageId;
  put(object, "title", title);
  put(object, "body", body);
  put(object, "preview", preview);
  if (actions) {
    boost::json::array list;
    list.reserve(actions->size());
    for (const auto& action : *actions) list.emplace_back(action.toJSON());
    object["actions"] = std::move(list);
  }
  if (data) object["data"] = *data;
  if (trackingIds) object["trackingIds"] = trackingIds->toJSON();
  put(object, "created", created);
  put(object, "archived", archived);
  put(object, "read", read);
  put(object, "opened", opened);
  return object;
}

InboxMessagePtr InboxMessage::copy() const {
  return std::make_shared<InboxMessage>(*this);
}

std::optional<std::string> InboxMessage::subtitle() const {
  return body ? body : preview;
}

InboxMessage::Date InboxMessage::createdAt(Date now) const {
  if (!created) return now;
  return core::ISO8601DateServerFormatter{}.date(*created).value_or(now);
}

InboxMessage::Date InboxMessage::createdAt() const {
  return createdAt(std::chrono::system_clock::now());
}

std::int64_t InboxMessage::timestamp(Date now) const {
  const double seconds = std::chrono::duration<double>(createdAt(now).time_since_epoch()).count();
  const double milliseconds = std::trunc(seconds * 1000.0);
  // 2^63 is exactly representable; anything at or past it does not fit.
  constexpr double limit = 9223372036854775808.0;
  if (!std::isfinite(milliseconds) || milliseconds >= limit || milliseconds < -limit) {
    fatal("the timestamp of message " + messageId + " is not a 64-bit number of milliseconds");
  }
  return static_cast<std::int64_t>(milliseconds);
}

std::int64_t InboxMessage::timestamp() const {
  return timestamp(std::chrono::system_clock::now());
}

std::string InboxMessage::time(Date now) const {
  if (!created) return "now";
  const auto when = displayPatternFormatter().date(*created);
  if (!when) return "now";
  // In microseconds, not the clock's nanoseconds: a difference of over 292 years (a date the
  // service may well send) would overflow those. Integer division truncates toward zero, so
  // a time in the future gives a negative count.
  const auto micros = [](Date date) {
    return std::chrono::duration_cast<std::chrono::microseconds>(date.time_since_epoch()).count();
  };
  const std::int64_t s = (micros(now) - micros(*when)) / 1'000'000;
  constexpr std::int64_t minute = 60, hour = 3'600, day = 86'400, week = 604'800;
  constexpr std::int64_t year = 29'030'400;  // 48 weeks, as the service's clients count
  if (s < minute) return std::to_string(s) + "s";
  if (s < hour) return std::to_string(s / minute) + "m";
  if (s < day) return std::to_string(s / hour) + "h";
  if (s < week) return std::to_string(s / day) + "d";
  if (s < year) return std::to_string(s / week) + "w";
  return std::to_string(s / year) + "y";
}

std::string InboxMessage::time() const {
  return time(std::chrono::system_clock::now());
}

// Each of these is the shared facade's operation for this message's id.
boost::asio::awaitable<void> InboxMessage::markAsRead() const {
  return Herald::shared().readMessage(messageId);
}
boost::asio::awaitable<void> InboxMessage::markAsUnread() const {
  return Herald::shared().unreadMessage(messageId);
}
boost::asio::awaitable<void> InboxMessage::markAsOpened() const {
  return Herald::shared().openMessage(messageId);
}
boost::asio::awaitable<void> InboxMessage::markAsClicked() const {
  return Herald::shared().clickMessage(messageId);
}
boost::asio::awaitable<void> InboxMessage::markAsArchived() const {
  return Herald::shared().archiveMessage(messageId);
}

void InboxMessage::markAsRead(OnSuccess onSuccess, OnFailure onFailure) const {
  runWithCallbacks(*this, &InboxMessage::markAsRead, std::move(onSuccess), std::move(onFailure));
}
void InboxMessage::markAsUnread(OnSuccess onSuccess, OnFailure onFailure) const {
  runWithCallbacks(*this, &InboxMessage::markAsUnread, std::move(onSuccess), std::move(onFailure));
}
void InboxMessage::markAsOpened(OnSuccess onSuccess, OnFailure onFailure) const {
  runWithCallbacks(*this, &InboxMessage::markAsOpened, std::move(onSuccess), std::move(onFailure));
}
void InboxMessage::markAsClicked(OnSuccess onSuccess, OnFailure onFailure) const {
  runWithCallbacks(*this, &InboxMessage::markAsClicked, std::move(onSuccess), std::move(onFailure));
}
void InboxMessage::markAsArchived(OnSuccess onSuccess, OnFailure onFailure) const {
  runWithCallbacks(*this, &InboxMessage::markAsArchived, std::move(onSuccess),
                   std::move(onFailure));
}

InboxPageInfo InboxPageInfo::from(const core::KeyedDecoder& decoder) {
  return {decoder.decodeIfPresent<std::string>("startCursor"),
          decoder.decodeIfPresent<bool>("hasNextPage")};
}

InboxNodes InboxNodes::from(const core::KeyedDecoder& decoder) {
  return {decoder.decodeIfPresent<InboxPageInfo>("pageInfo"),
          decoder.decodeIfPresent<std::vector<InboxMessagePtr>>("nodes")};
}

InboxData InboxData::from(const core::KeyedDecoder& decoder) {
  return {decoder.decodeIfPresent<std::int64_t>("count"),
          decoder.decodeIfPresent<InboxNodes>("messages")};
}

void InboxData::incrementCount() {
  count = checkedIncrement(count.value_or(0), "the inbox count");
}

InboxResponse InboxResponse::from(const core::KeyedDecoder& decoder) {
  return {decoder.decodeIfPresent<InboxData>("data")};
}

GetInboxMessageData GetInboxMessageData::from(const core::KeyedDecoder& decoder) {
  return {decoder.decodeIfPresent<InboxMessagePtr>("message")};
}

HeraldGetInboxMessageResponse HeraldGetInboxMessageResponse::from(
    const core::KeyedDecoder& decoder) {
  return {decoder.decodeIfPresent<GetInboxMessageData>("data")};
}

InboxMessageSet InboxMessageSet::fromData(const InboxData& data) {
  InboxMessageSet set;
  if (data.messages) {
    if (data.messages->nodes) set.messages = *data.messages->nodes;
    if (data.messages->pageInfo) {
      set.canPaginate = data.messages->pageInfo->hasNextPage.value_or(false);
      set.paginationCursor = data.messages->pageInfo->startCursor;
    }
  }
  set.totalCount = data.count.value_or(0);
  return set;
}

InboxMessageSet InboxMessageSet::from(const core::KeyedDecoder& decoder) {
  return {decoder.decode<std::vector<InboxMessagePtr>>("messages"),
          decoder.decode<std::int64_t>("totalCount"), decoder.decode<bool>("canPaginate"),
          decoder.decodeIfPresent<std::string>("paginationCursor")};
}

boost::json::object InboxMessageSet::toJSON() const {
  boost::json::array list;
  list.reserve(messages.size());
  for (const auto& message : messages) list.emplace_back(message->toJSON());
  boost::json::object object{
      {"messages", std::move(list)}, {"totalCount", totalCount}, {"canPaginate", canPaginate}};
  put(object, "paginationCursor", paginationCursor);
  return object;
}

namespace {
constexpr std::array<std::pair<InboxEventType, std::string_view>, 9> kEventTypes{{
    {InboxEventType::markAllRead, "mark-all-read"},
    {InboxEventType::read, "read"},
    {InboxEventType::unread, "unread"},
    {InboxEventType::opened, "opened"},
    {InboxEventType::unopened, "unopened"},
    {InboxEventType::archive, "archive"},
    {InboxEventType::unarchive, "unarchive"},
    {InboxEventType::click, "click"},
    {InboxEventType::unclick, "unclick"},
}};
}  // namespace

std::string_view toString(InboxEventType type) {
  for (const auto& [value, text] : kEventTypes) {
    if (value == type) return text;
  }
  return {};
}

std::optional<InboxEventType> inboxEventTypeFromString(std::string_view text) {
  for (const auto& [value, name] : kEventTypes) {
    if (name == text) return value;
  }
  return std::nullopt;
}

std::shared_ptr<HeraldInboxData> HeraldInboxData::copy() const {
  return std::make_shared<HeraldInboxData>(*this);
}

InboxMessageSet& HeraldInboxData::messageSet(InboxMessageFeed which) {
  return which == InboxMessageFeed::feed ? feed : archived;
}

void HeraldInboxData::updateMessage(InboxMessagePtr message, std::int64_t index,
                                    InboxMessageFeed which) {
  auto& messages = messageSet(which).messages;
  const auto at = checkedIndex(index, messages.size(), false, "update message", which);
  messages[at] = std::move(message);
}

void HeraldInboxData::addMessage(InboxMessagePtr message, std::int64_t index,
                                 InboxMessageFeed which) {
  auto& messages = messageSet(which).messages;
  const auto at = checkedIndex(index, messages.size(), true, "add message", which);
  messages.insert(messages.begin() + static_cast<std::ptrdiff_t>(at), std::move(message));
  if (which == InboxMessageFeed::feed) {
    unreadCount = checkedIncrement(unreadCount, "the unread count");
  }
}

void HeraldInboxData::addPage(const InboxMessageSet& page, InboxMessageFeed which) {
  auto& target = messageSet(which);
  target.messages.insert(target.messages.end(), page.messages.begin(), page.messages.end());
  target.paginationCursor = page.paginationCursor;
  target.canPaginate = page.canPaginate;
}

}  // namespace herald
