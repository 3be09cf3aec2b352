#include "inbox.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>

namespace sandbox {
namespace {

boost::json::value optional(const std::optional<std::string>& text) {
  return text ? boost::json::value(*text) : boost::json::value(nullptr);
}

bool readNumber(std::string_view text, std::size_t at, std::size_t digits, int& out) {
  if (at + digits > text.size()) return false;
  const auto* first = text.data() + at;
  const auto [end, error] = std::from_chars(first, first + digits, out);
  return error == std::errc() && end == first + digits;
}

}  // namespace

boost::json::object toJSON(const InboxMessage& message) {
  boost::json::object trackingIds;
  for (const auto& [name, id] : message.trackingIds) trackingIds[name] = id;
  return {{"messageId", message.messageId},
          {"user", message.user},
          {"tenant", optional(message.tenant)},
          {"title", optional(message.title)},
          {"body", optional(message.body)},
          {"preview", optional(message.preview)},
          {"actions", message.actions},
          {"data", message.data ? boost::json::value(*message.data) : nullptr},
          {"created", message.created},
          {"read", optional(message.read)},
          {"opened", optional(message.opened)},
          {"archived", optional(message.archived)},
          {"clicked", optional(message.clicked)},
          {"trackingIds", std::move(trackingIds)}};
}

std::optional<std::int64_t> parseTimestamp(std::string_view text) {
  int year, month, day, hour, minute, second, millis = 0;
  if (text.size() < 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || !readNumber(text, 0, 4, year) || !readNumber(text, 5, 2, month) ||
      !readNumber(text, 8, 2, day) || !readNumber(text, 11, 2, hour) ||
      !readNumber(text, 14, 2, minute) || !readNumber(text, 17, 2, second))
    return std::nullopt;
  std::size_t at = 19;
  if (text[at] == '.') {
    std::size_t digits = 0;
    while (at + 1 + digits < text.size() &&
           std::isdigit(static_cast<unsigned char>(text[at + 1 + digits])))
      ++digits;
    if (digits == 0 || digits > 9) return std::nullopt;
    int fraction = 0;
    readNumber(text, at + 1, std::min<std::size_t>(digits, 3), fraction);
    for (auto d = digits; d < 3; ++d) fraction *= 10;
    millis = fraction;
    at += 1 + digits;
  }
  int offsetMinutes = 0;
  if (text.substr(at) != "Z") {
    int offsetHours = 0, offsetRest = 0;
    if (text.size() != at + 6 || (text[at] != '+' && text[at] != '-') || text[at + 3] != ':' ||
        !readNumber(text, at + 1, 2, offsetHours) || !readNumber(text, at + 4, 2, offsetRest) ||
        offsetHours > 23 || offsetRest > 59)
      return std::nullopt;
    offsetMinutes = (text[at] == '-' ? -1 : 1) * (offsetHours * 60 + offsetRest);
  }
  const std::chrono::year_month_day date{std::chrono::year(year),
                                         std::chrono::month(static_cast<unsigned>(month)),
                                         std::chrono::day(static_cast<unsigned>(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 60) return std::nullopt;
  const auto days = std::chrono::sys_days(date).time_since_epoch();
  const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(days) +
                    std::chrono::hours(hour) + std::chrono::minutes(minute - offsetMinutes) +
                    std::chrono::seconds(second) + std::chrono::milliseconds(millis);
  return time.count();
}

std::string timestampNow() {
  const auto now = std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
  const auto days = std::chrono::floor<std::chrono::days>(now);
  const std::chrono::year_month_day date(days);
  const std::chrono::hh_mm_ss time(now - days);
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ",
                static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
                static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
                static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
                static_cast<int>(time.subseconds().count()));
  return text;
}

InboxMessage Inbox::add(
    InboxMessage message,
    const std::function<std::map<std::string, std::string>(const std::string& id)>& trackingFor) {
  if (message.created.empty()) message.created = timestampNow();
  message.createdMillis = parseTimestamp(message.created).value_or(0);
  std::lock_guard lock(mutex_);
  message.sequence = ++lastId_;
  message.messageId = "i" + std::to_string(message.sequence);
  message.trackingIds = trackingFor(message.messageId);
  messages_.push_back(message);
  // Told under the lock, so that observers hear of messages in the order of their ids.
  if (observer_) observer_->messageAdded(message);
  return message;
}

void Inbox::setObserver(InboxObserver* observer) {
  std::lock_guard lock(mutex_);
  observer_ = observer;
}

void Inbox::announce(const std::string& user, std::string_view event, const InboxMessage* message,
                     const std::optional<std::string>& source) {
  std::lock_guard lock(mutex_);
  if (observer_) observer_->messageEvent(user, event, message, source);
}

std::vector<InboxMessage> Inbox::messages(std::string_view user) const {
  std::vector<InboxMessage> result;
  {
    std::lock_guard lock(mutex_);
    for (const auto& message : messages_)
      if (message.user == user) result.push_back(message);
  }
  std::sort(result.begin(), result.end(), [](const InboxMessage& a, const InboxMessage& b) {
    return a.createdMillis != b.createdMillis ? a.createdMillis > b.createdMillis
                                              : a.sequence > b.sequence;
  });
  return result;
}

std::optional<InboxMessage> Inbox::change(std::string_view user, std::string_view messageId,
                                          const std::function<void(InboxMessage&)>& change) {
  std::lock_guard lock(mutex_);
  for (auto& message : messages_)
    if (message.user == user && message.messageId == messageId) {
      change(message);
      return message;
    }
  return std::nullopt;
}

std::size_t Inbox::changeAll(std::string_view user,
                             const std::function<void(InboxMessage&)>& change) {
  std::lock_guard lock(mutex_);
  std::size_t count = 0;
  for (auto& message : messages_)
    if (message.user == user) {
      change(message);
      ++count;
    }
  return count;
}

}  // namespace sandbox
