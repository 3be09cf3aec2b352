#pragma once
/// The user's notification preferences: per topic of the account, whether the user is opted
/// in or out (or the topic is required) and on which channels it may reach them. Read page by
/// page, read one topic, write one topic's choice, over the service's REST API.
///
///   auto preferences = client->preferences();  // must outlive the calls
///   std::optional<std::string> cursor;
///   do {
///     const auto page = co_await preferences->getUserPreferences(cursor);
///     for (const auto& topic : page->items) show(topic->topicName, topic->status);
///     cursor = page->paging->more ? page->paging->cursor : std::nullopt;
///   } while (cursor);
///   co_await preferences->putUserPreferenceTopic(
///       "weekly", herald::HeraldUserPreferencesStatus::optedIn, true,
///       {herald::HeraldUserPreferencesChannel::push, herald::HeraldUserPreferencesChannel::email});

#include <array>
#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/decoding.hpp"
#include "herald/herald_api_client.hpp"
#include "herald/shared_record.hpp"

namespace herald {

/// A user's standing on a topic; wire values "OPTED_IN", "OPTED_OUT", "REQUIRED", "UNKNOWN".
enum class HeraldUserPreferencesStatus { optedIn, optedOut, required, unknown };

/// A way a topic can reach the user; wire values "direct_message", "email", "push", "sms",
/// "webhook", "unknown".
enum class HeraldUserPreferencesChannel { directMessage, email, push, sms, webhook, unknown };

std::string_view toString(HeraldUserPreferencesStatus status);
std::string_view toString(HeraldUserPreferencesChannel channel);
/// The case of a wire value; any other text gives `unknown`, so that a value the service adds
/// later never fails a read.
HeraldUserPreferencesStatus preferencesStatusFromString(std::string_view text);
HeraldUserPreferencesChannel preferencesChannelFromString(std::string_view text);

/// The channels offered to a user (the enumeration's all-cases list), in the order they are
/// shown and written: push, sms, email, direct message, webhook. `unknown` is not one.
inline constexpr std::array<HeraldUserPreferencesChannel, 5> kPreferencesChannelAllCases{
    HeraldUserPreferencesChannel::push, HeraldUserPreferencesChannel::sms,
    HeraldUserPreferencesChannel::email, HeraldUserPreferencesChannel::directMessage,
    HeraldUserPreferencesChannel::webhook};

/// One topic of the account with the user's choice. Every key is required; an unfamiliar
/// status or channel decodes as `unknown`.
class HeraldUserPreferencesTopic {
 public:
  HeraldUserPreferencesTopic(HeraldUserPreferencesStatus defaultStatus, bool hasCustomRouting,
                             std::vector<HeraldUserPreferencesChannel> customRouting,
                             HeraldUserPreferencesStatus status, std::string topicId,
                             std::string topicName, std::string sectionName,
                             std::string sectionId);

  HeraldUserPreferencesStatus defaultStatus;                ///< "default_status"
  bool hasCustomRouting;                                    ///< "has_custom_routing"
  std::vector<HeraldUserPreferencesChannel> customRouting;  ///< "custom_routing"
  HeraldUserPreferencesStatus status;                       ///< "status"
  std::string topicId;                                      ///< "topic_id"
  std::string topicName;                                    ///< "topic_name"
  std::string sectionName;                                  ///< "section_name"
  std::string sectionId;                                    ///< "section_id"

  static std::shared_ptr<HeraldUserPreferencesTopic> from(const core::KeyedDecoder& decoder);
  /// The eight keys in the order above.
  boost::json::object toJSON() const;
};

/// Where a page of topics ends: "more" (required) and the "cursor" of the next page.
class HeraldUserPreferencesPaging {
 public:
  HeraldUserPreferencesPaging(std::optional<std::string> cursor, bool more)
      : cursor(std::move(cursor)), more(more) {}

  std::optional<std::string> cursor;  ///< "cursor"
  bool more;                          ///< "more"

  static std::shared_ptr<HeraldUserPreferencesPaging> from(const core::KeyedDecoder& decoder);
  /// "cursor" is left out when absent.
  boost::json::object toJSON() const;
};

/// One page of topics: "items" and "paging", both required.
class HeraldUserPreferences {
 public:
  HeraldUserPreferences(std::vector<std::shared_ptr<HeraldUserPreferencesTopic>> items,
                        std::shared_ptr<HeraldUserPreferencesPaging> paging)
      : items(std::move(items)), paging(std::move(paging)) {}

  std::vector<std::shared_ptr<HeraldUserPreferencesTopic>> items;  ///< "items"
  std::shared_ptr<HeraldUserPreferencesPaging> paging;             ///< "paging"

  static std::shared_ptr<HeraldUserPreferences> from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

/// The answer for one topic: {"topic": {...}}.
struct HeraldUserPreferencesTopicResponse {
  std::shared_ptr<HeraldUserPreferencesTopic> topic;

  static HeraldUserPreferencesTopicResponse from(const core::KeyedDecoder& decoder);
  boost::json::object toJSON() const;
};

/// The choice written for a topic: "status", "has_custom_routing", "custom_routing", in that
/// order.
struct TopicDetails {
  HeraldUserPreferencesStatus status = HeraldUserPreferencesStatus::unknown;
  bool hasCustomRouting = false;
  std::vector<HeraldUserPreferencesChannel> customRouting;

  boost::json::object toJSON() const;
};

/// The body of a topic update: {"topic": {...}}.
struct TopicUpdate {
  TopicDetails topic;

  boost::json::object toJSON() const;
};

class PreferenceClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;

  /// Endpoints::current().usersURL() + userId + "/preferences"; the user id goes in as it is.
  std::string preferencesURL() const;

  /// GET one page of topics: the first without a cursor, the next ones with the cursor of
  /// the page before, appended as "?cursor=" and the text as it is (not escaped). The page
  /// size is the service's.
  boost::asio::awaitable<std::shared_ptr<HeraldUserPreferences>> getUserPreferences(
      std::optional<std::string> paginationCursor) const;
  /// GET <preferences>/<topicId>.
  boost::asio::awaitable<HeraldUserPreferencesTopicResponse> getUserPreferenceTopic(
      std::string topicId) const;
  /// PUT <preferences>/<topicId> with the `TopicUpdate` body; the answer's body is not read.
  boost::asio::awaitable<void> putUserPreferenceTopic(
      std::string topicId, HeraldUserPreferencesStatus status, bool hasCustomRouting,
      std::vector<HeraldUserPreferencesChannel> customRouting) const;

  // Every operation takes only 200, carries the bearer token when there is a jwt (never the
  // client key), and throws `HeraldError` for a refusal, `platform::Error` for an invalid URL
  // or a transport failure, and `core::DecodingError` for a read that cannot be decoded.
};

}  // namespace herald

/// Statuses and channels decode from a string, tolerantly (see above); anything but a string
/// fails.
template <>
struct core::Decodable<herald::HeraldUserPreferencesStatus> {
  static constexpr std::string_view expected = "a string";
  static herald::HeraldUserPreferencesStatus decode(const boost::json::value& value,
                                                    std::string_view path);
};
template <>
struct core::Decodable<herald::HeraldUserPreferencesChannel> {
  static constexpr std::string_view expected = "a string";
  static herald::HeraldUserPreferencesChannel decode(const boost::json::value& value,
                                                     std::string_view path);
};
