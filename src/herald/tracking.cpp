#include "herald/tracking.hpp"

#include <array>
#include <boost/json/value_from.hpp>
#include <boost/json/value_to.hpp>
#include <stdexcept>
#include <utility>

#include "core/constants.hpp"
#include "herald/herald_client.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"

namespace herald {
namespace {

constexpr std::array<std::pair<HeraldTrackingEvent, std::string_view>, 5> kWireValues{{
    {HeraldTrackingEvent::clicked, "CLICKED"},
    {HeraldTrackingEvent::delivered, "DELIVERED"},
    {HeraldTrackingEvent::opened, "OPENED"},
    {HeraldTrackingEvent::read, "READ"},
    {HeraldTrackingEvent::unread, "UNREAD"},
}};

using IdField = std::optional<std::string> HeraldTrackingIds::*;
constexpr std::array<std::pair<const char*, IdField>, 6> kIdFields{{
    {"archiveTrackingId", &HeraldTrackingIds::archiveTrackingId},
    {"openTrackingId", &HeraldTrackingIds::openTrackingId},
    {"clickTrackingId", &HeraldTrackingIds::clickTrackingId},
    {"deliverTrackingId", &HeraldTrackingIds::deliverTrackingId},
    {"unreadTrackingId", &HeraldTrackingIds::unreadTrackingId},
    {"readTrackingId", &HeraldTrackingIds::readTrackingId},
}};

}  // namespace

std::string_view toString(HeraldTrackingEvent event) {
  for (const auto& [e, wire] : kWireValues) {
    if (e == event) return wire;
  }
  return "";
}

std::optional<HeraldTrackingEvent> trackingEventFromString(std::string_view text) {
  for (const auto& [e, wire] : kWireValues) {
    if (wire == text) return e;
  }
  return std::nullopt;
}

HeraldTrackingIds HeraldTrackingIds::fromJSON(const boost::json::value& json) {
  if (!json.is_object()) throw std::invalid_argument("HeraldTrackingIds: expected a JSON object");
  HeraldTrackingIds ids;
  const auto& object = json.get_object();
  for (const auto& [key, field] : kIdFields) {
    const auto* value = object.if_contains(key);
    if (value == nullptr || value->is_null()) continue;
    if (!value->is_string()) {
      throw std::invalid_argument(std::string("HeraldTrackingIds: \"") + key +
                                  "\" must be a string, not " + platform::toJSON(*value));
    }
    ids.*field = std::string(value->get_string());
  }
  return ids;
}

boost::json::object HeraldTrackingIds::toJSON() const {
  boost::json::object object;
  for (const auto& [key, field] : kIdFields) {
    if (this->*field) object[key] = *(this->*field);
  }
  return object;
}

void tag_invoke(boost::json::value_from_tag, boost::json::value& json,
                const HeraldTrackingIds& ids) {
  json = ids.toJSON();
}

HeraldTrackingIds tag_invoke(boost::json::value_to_tag<HeraldTrackingIds>,
                             const boost::json::value& json) {
  return HeraldTrackingIds::fromJSON(json);
}

boost::asio::awaitable<void> TrackingClient::postTrackingUrl(std::string url,
                                                             HeraldTrackingEvent event) const {
  // No credentials and no user: the tracking URL itself names the message and recipient.
  auto request = makeRequest(url, [&](platform::URLRequest& r) {
    r.method = "POST";
    r.body = platform::toJSON(boost::json::object{{"event", toString(event)}});
  });
  // Only the status counts; the start of the body is kept for the log, the rest is not read.
  request.maxResponseBytes = K::Limits::trackingResponseBytes;
  request.responseOverflow = platform::ResponseOverflow::truncate;
  const std::vector<int> accepted{200};
  co_await sendRequest(std::move(request), accepted);
}

std::optional<std::string> trackingUrl(const boost::json::object& userInfo) {
  const auto* value = userInfo.if_contains("trackingUrl");
  if (value == nullptr || !value->is_string()) return std::nullopt;
  return std::string(value->get_string());
}

boost::asio::awaitable<void> track(std::string url, HeraldTrackingEvent event) {
  auto client = HeraldClient::defaultClient();
  std::optional<std::string> failure;
  try {
    co_await client->tracking()->postTrackingUrl(std::move(url), event);
  } catch (...) {
    failure = HeraldError::from(std::current_exception()).message;
  }
  // Tracking must never disturb the notification path: failures stay in the log, if that.
  if (failure) client->error(*failure);
}

boost::asio::awaitable<void> trackMessage(boost::json::object userInfo, HeraldTrackingEvent event) {
  if (auto url = trackingUrl(userInfo)) co_await track(std::move(*url), event);
}

void trackMessage(const boost::json::object& userInfo, HeraldTrackingEvent event,
                  TrackingCompletion completion) {
  auto url = trackingUrl(userInfo);
  if (!url) {
    if (completion) completion(std::nullopt);
    return;
  }
  platform::spawnDetached([url = std::move(*url), event,
                           completion = std::move(completion)]() -> boost::asio::awaitable<void> {
    std::optional<HeraldError> error;
    try {
      auto client = HeraldClient::defaultClient();
      co_await client->tracking()->postTrackingUrl(url, event);
    } catch (...) {
      error = HeraldError::from(std::current_exception());
    }
    if (completion) completion(std::move(error));
  });
}

}  // namespace herald
