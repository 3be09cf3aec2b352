#include "herald/preference_client.hpp"

#include <utility>

#include "herald/endpoints.hpp"
#include "platform/json.hpp"

namespace herald {
namespace {

using Status = HeraldUserPreferencesStatus;
using Channel = HeraldUserPreferencesChannel;

constexpr std::array<std::pair<Status, std::string_view>, 4> kStatuses{{
    {Status::optedIn, "OPTED_IN"},
    {Status::optedOut, "OPTED_OUT"},
    {Status::required, "REQUIRED"},
    {Status::unknown, "UNKNOWN"},
}};

constexpr std::array<std::pair<Channel, std::string_view>, 6> kChannels{{
    {Channel::directMessage, "direct_message"},
    {Channel::email, "email"},
    {Channel::push, "push"},
    {Channel::sms, "sms"},
    {Channel::webhook, "webhook"},
    {Channel::unknown, "unknown"},
}};

template <class Enum, std::size_t N>
std::string_view wireValue(const std::array<std::pair<Enum, std::string_view>, N>& table,
                           Enum value) {
  for (const auto& [candidate, text] : table)
    if (candidate == value) return text;
  return "";
}

template <class Enum, std::size_t N>
Enum fromWireValue(const std::array<std::pair<Enum, std::string_view>, N>& table,
                   std::string_view text) {
  for (const auto& [candidate, wire] : table)
    if (wire == text) return candidate;
  return Enum::unknown;
}

boost::json::array channelsJSON(const std::vector<Channel>& channels) {
  boost::json::array array;
  for (const auto channel : channels) array.emplace_back(toString(channel));
  return array;
}

// Only status 200 counts, for reads and updates alike.
const std::vector<int> kAccepted{200};

}  // namespace

std::string_view toString(HeraldUserPreferencesStatus status) {
  return wireValue(kStatuses, status);
}
std::string_view toString(HeraldUserPreferencesChannel channel) {
  return wireValue(kChannels, channel);
}
HeraldUserPreferencesStatus preferencesStatusFromString(std::string_view text) {
  return fromWireValue(kStatuses, text);
}
HeraldUserPreferencesChannel preferencesChannelFromString(std::string_view text) {
  return fromWireValue(kChannels, text);
}

HeraldUserPreferencesTopic::HeraldUserPreferencesTopic(
    HeraldUserPreferencesStatus defaultStatus, bool hasCustomRouting,
    std::vector<HeraldUserPreferencesChannel> customRouting, HeraldUserPreferencesStatus status,
    std::string topicId, std::string topicName, std::string sectionName, std::string sectionId)
    : defaultStatus(defaultStatus),
      hasCustomRouting(hasCustomRouting),
      customRouting(std::move(customRouting)),
      status(status),
      topicId(std::move(topicId)),
      topicName(std::move(topicName)),
      sectionName(std::move(sectionName)),
      sectionId(std::move(sectionId)) {}

std::shared_ptr<HeraldUserPreferencesTopic> HeraldUserPreferencesTopic::from(
    const core::KeyedDecoder& decoder) {
  // Decoded in key order, so that the first missing key is the one named.
  auto defaultStatus = decoder.decode<Status>("default_status");
  auto hasCustomRouting = decoder.decode<bool>("has_custom_routing");
  auto customRouting = decoder.decode<std::vector<Channel>>("custom_routing");
  auto status = decoder.decode<Status>("status");
  auto topicId = decoder.decode<std::string>("topic_id");
  auto topicName = decoder.decode<std::string>("topic_name");
  auto sectionName = decoder.decode<std::string>("section_name");
  auto sectionId = decoder.decode<std::string>("section_id");
  return std::make_shared<HeraldUserPreferencesTopic>(
      defaultStatus, hasCustomRouting, std::move(customRouting), status, std::move(topicId),
      std::move(topicName), std::move(sectionName), std::move(sectionId));
}

boost::json::object HeraldUserPreferencesTopic::toJSON() const {
  return {{"default_status", toString(defaultStatus)},
          {"has_custom_routing", hasCustomRouting},
          {"custom_routing", channelsJSON(customRouting)},
          {"status", toString(status)},
          {"topic_id", topicId},
          {"topic_name", topicName},
          {"section_name", sectionName},
          {"section_id", sectionId}};
}

std::shared_ptr<HeraldUserPreferencesPaging> HeraldUserPreferencesPaging::from(
    const core::KeyedDecoder& decoder) {
  auto cursor = decoder.decodeIfPresent<std::string>("cursor");
  return std::make_shared<HeraldUserPreferencesPaging>(std::move(cursor),
                                                       decoder.decode<bool>("more"));
}

boost::json::object HeraldUserPreferencesPaging::toJSON() const {
  boost::json::object object;
  if (cursor) object["cursor"] = *cursor;
  object["more"] = more;
  return object;
}

std::shared_ptr<HeraldUserPreferences> HeraldUserPreferences::from(
    const core::KeyedDecoder& decoder) {
  auto items = decoder.decode<std::vector<std::shared_ptr<HeraldUserPreferencesTopic>>>("items");
  auto paging = decoder.decode<std::shared_ptr<HeraldUserPreferencesPaging>>("paging");
  return std::make_shared<HeraldUserPreferences>(std::move(items), std::move(paging));
}

boost::json::object HeraldUserPreferences::toJSON() const {
  boost::json::array array;
  for (const auto& item : items) array.emplace_back(item->toJSON());
  return {{"items", std::move(array)}, {"paging", paging->toJSON()}};
}

HeraldUserPreferencesTopicResponse HeraldUserPreferencesTopicResponse::from(
    const core::KeyedDecoder& decoder) {
  return {decoder.decode<std::shared_ptr<HeraldUserPreferencesTopic>>("topic")};
}

boost::json::object HeraldUserPreferencesTopicResponse::toJSON() const {
  return {{"topic", topic->toJSON()}};
}

boost::json::object TopicDetails::toJSON() const {
  return {{"status", toString(status)},
          {"has_custom_routing", hasCustomRouting},
          {"custom_routing", channelsJSON(customRouting)}};
}

boost::json::object TopicUpdate::toJSON() const {
  return {{"topic", topic.toJSON()}};
}

std::string PreferenceClient::preferencesURL() const {
  return Endpoints::current().usersURL() + options().userId + "/preferences";
}

boost::asio::awaitable<std::shared_ptr<HeraldUserPreferences>> PreferenceClient::getUserPreferences(
    std::optional<std::string> paginationCursor) const {
  auto url = preferencesURL();
  if (paginationCursor) url += "?cursor=" + *paginationCursor;
  auto request = makeRequest(url, "GET");
  const auto body = co_await sendRequest(std::move(request), kAccepted);
  co_return core::decodeJSON<std::shared_ptr<HeraldUserPreferences>>(body);
}

boost::asio::awaitable<HeraldUserPreferencesTopicResponse>
PreferenceClient::getUserPreferenceTopic(std::string topicId) const {
  auto request = makeRequest(preferencesURL() + "/" + topicId, "GET");
  const auto body = co_await sendRequest(std::move(request), kAccepted);
  co_return core::decodeJSON<HeraldUserPreferencesTopicResponse>(body);
}

boost::asio::awaitable<void> PreferenceClient::putUserPreferenceTopic(
    std::string topicId, HeraldUserPreferencesStatus status, bool hasCustomRouting,
    std::vector<HeraldUserPreferencesChannel> customRouting) const {
  const TopicUpdate update{{status, hasCustomRouting, std::move(customRouting)}};
  auto request = makeBodyRequest(preferencesURL() + "/" + topicId, update.toJSON());
  co_await sendRequest(std::move(request), kAccepted);
}

}  // namespace herald

herald::HeraldUserPreferencesStatus core::Decodable<herald::HeraldUserPreferencesStatus>::decode(
    const boost::json::value& value, std::string_view path) {
  return herald::preferencesStatusFromString(core::Decodable<std::string>::decode(value, path));
}

herald::HeraldUserPreferencesChannel
core::Decodable<herald::HeraldUserPreferencesChannel>::decode(const boost::json::value& value,
                                                              std::string_view path) {
  return herald::preferencesChannelFromString(core::Decodable<std::string>::decode(value, path));
}
