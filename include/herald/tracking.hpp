#pragma once
/// Message tracking: a push from the service carries a ready-made tracking URL under
/// "trackingUrl"; reporting what happened to the message is one POST of {"event": "…"} there.
///
///   // On the notification path (never throws, never logs with the default client):
///   co_await herald::trackMessage(content.userInfo, herald::HeraldTrackingEvent::delivered);
///
///   // From a plain thread, with a completion:
///   herald::trackMessage(userInfo, herald::HeraldTrackingEvent::clicked,
///                        [](std::optional<herald::HeraldError> error) { ... });

#include <boost/asio/awaitable.hpp>
#include <boost/json/fwd.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "herald/herald_api_client.hpp"
#include "herald/herald_error.hpp"

namespace herald {

enum class HeraldTrackingEvent { clicked, delivered, opened, read, unread };

/// "CLICKED", "DELIVERED", "OPENED", "READ", "UNREAD".
std::string_view toString(HeraldTrackingEvent event);
/// Exactly the upper-case wire values; anything else (including "delivered") gives none.
std::optional<HeraldTrackingEvent> trackingEventFromString(std::string_view text);

/// The tracking ids an inbox message carries. Each field is encoded under its own name;
/// absent (or null) keys decode as none, absent fields are not encoded.
struct HeraldTrackingIds {
  std::optional<std::string> archiveTrackingId;
  std::optional<std::string> openTrackingId;
  std::optional<std::string> clickTrackingId;
  std::optional<std::string> deliverTrackingId;
  std::optional<std::string> unreadTrackingId;
  std::optional<std::string> readTrackingId;

  /// Throws `std::invalid_argument` naming the key when `json` is not an object or a field
  /// holds something other than a string or null.
  static HeraldTrackingIds fromJSON(const boost::json::value& json);
  boost::json::object toJSON() const;

  friend bool operator==(const HeraldTrackingIds&, const HeraldTrackingIds&) = default;
};

/// boost::json::value_from / value_to support.
void tag_invoke(boost::json::value_from_tag, boost::json::value& json,
                const HeraldTrackingIds& ids);
HeraldTrackingIds tag_invoke(boost::json::value_to_tag<HeraldTrackingIds>,
                             const boost::json::value& json);

class TrackingClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;

  /// POSTs {"event": "<wire value>"} to `url` with "User-Agent" and "Content-Type" only (the
  /// URL itself names message and recipient). Only 200 is accepted; throws `HeraldError`
  /// for any other status and `platform::Error` for an invalid URL or a transport failure.
  /// The report is sent at most once: a connection lost after the server may have read it
  /// is a failure, not a reason to send it again. A 307 or 308 is followed with the body;
  /// a 301, 302 or 303 fails.
  boost::asio::awaitable<void> postTrackingUrl(std::string url, HeraldTrackingEvent event) const;
};

/// The string under "trackingUrl", or none when it is missing or not a string.
std::optional<std::string> trackingUrl(const boost::json::object& userInfo);

/// Posts `event` to `url` through a fresh default client. Never throws: a failure is logged
/// only when that client's showLogs is on, which it never is, so tracking stays silent.
boost::asio::awaitable<void> track(std::string url, HeraldTrackingEvent event);

/// Reports `event` to the payload's tracking URL; does nothing without one. Never throws.
boost::asio::awaitable<void> trackMessage(boost::json::object userInfo, HeraldTrackingEvent event);

using TrackingCompletion = std::function<void(std::optional<HeraldError>)>;

/// Returns at once. Without a tracking URL `completion` runs at once with no error; otherwise
/// a detached task (counted by `platform::runningTasks`) posts the event and then calls
/// `completion` on a thread of the shared executor, with the failure wrapped as `HeraldError`.
void trackMessage(const boost::json::object& userInfo, HeraldTrackingEvent event,
                  TrackingCompletion completion);

}  // namespace herald
