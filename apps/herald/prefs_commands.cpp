// `herald brand` and `herald prefs`: the account's brand settings and the signed-in user's
// notification preferences. Each command takes the session up again from the stored
// credentials and asks the brand or preference client.

#include <algorithm>
#include <string>
#include <string_view>

#include "commands.hpp"
#include "core/decoding.hpp"
#include "herald/brand_client.hpp"
#include "herald/preference_client.hpp"

namespace cli {
namespace {

using boost::asio::awaitable;
using herald::HeraldUserPreferencesChannel;
using herald::HeraldUserPreferencesTopic;
using Kind = PreferencesRequest::Kind;

std::string channelList(const std::vector<HeraldUserPreferencesChannel>& channels) {
  std::string text;
  for (const auto channel : channels)
    text += (text.empty() ? "" : ", ") + std::string(toString(channel));
  return text.empty() ? "none" : text;
}

// "OPTED_IN   Comments on your photos  [comments]  Activity; push, email" (the channels only
// when the user chose them).
std::string describe(const HeraldUserPreferencesTopic& topic) {
  std::string status(toString(topic.status));
  status.resize(std::max<std::size_t>(status.size(), 10), ' ');
  std::string text = status + " " + oneLine(topic.topicName) + "  [" + oneLine(topic.topicId) +
                     "]  " + oneLine(topic.sectionName);
  if (topic.hasCustomRouting) text += "; " + channelList(topic.customRouting);
  return text;
}

awaitable<int> list(bool all, herald::PreferenceClient& client, Context& context) {
  std::vector<std::shared_ptr<HeraldUserPreferencesTopic>> items;
  std::shared_ptr<herald::HeraldUserPreferencesPaging> paging;
  std::optional<std::string> cursor;
  std::size_t pages = 0;
  do {
    const auto page = co_await client.getUserPreferences(cursor);
    ++pages;
    items.insert(items.end(), page->items.begin(), page->items.end());
    paging = page->paging;
    // A service that says "more" without a cursor would have us read the first page forever.
    cursor = paging->more ? paging->cursor : std::nullopt;
    if (all && paging->more && !cursor)
      throw herald::HeraldError(0, "the service said there are more topics but gave no cursor",
                                "paging_error");
  } while (all && cursor);

  std::string text;
  for (const auto& topic : items) text += describe(*topic) + "\n";
  text += std::to_string(items.size()) + (items.size() == 1 ? " topic" : " topics");
  if (all && pages > 1) text += " in " + std::to_string(pages) + " pages";
  if (!all && paging->more) text += "; more with --all";
  context.report.result(text, herald::HeraldUserPreferences(items, paging).toJSON());
  co_return ExitStatus::success;
}

awaitable<int> get(const std::string& topicId, herald::PreferenceClient& client,
                   Context& context) {
  const auto response = co_await client.getUserPreferenceTopic(topicId);
  const auto& topic = *response.topic;
  std::string text = describe(topic);
  text += "\n  section: " + oneLine(topic.sectionName) + " [" + oneLine(topic.sectionId) + "]";
  text += "\n  default: " + std::string(toString(topic.defaultStatus));
  text += "\n  channels: " +
          (topic.hasCustomRouting ? channelList(topic.customRouting) : "the account's choice");
  context.report.result(text, response.toJSON());
  co_return ExitStatus::success;
}

awaitable<int> set(const PreferencesRequest& request, herald::PreferenceClient& client,
                   Context& context) {
  // Channels go out in the order the service's clients show them, whatever the order given.
  std::vector<HeraldUserPreferencesChannel> channels;
  for (const auto channel : herald::kPreferencesChannelAllCases)
    if (std::find(request.channels.begin(), request.channels.end(), channel) !=
        request.channels.end())
      channels.push_back(channel);
  const bool custom = request.channelsGiven;
  co_await client.putUserPreferenceTopic(request.topicId, request.status, custom, channels);
  const herald::TopicDetails details{request.status, custom, channels};
  context.report.result("set " + request.topicId + " to " +
                            std::string(toString(request.status)) + "; channels: " +
                            (custom ? channelList(channels) : "the account's choice"),
                        {{"topicId", request.topicId}, {"topic", details.toJSON()}});
  co_return ExitStatus::success;
}

}  // namespace

awaitable<int> brand(std::string brandId, Context& context) {
  const auto session = co_await resumeSession(context);
  if (!session.client) co_return session.status;
  const auto client = session.client->brands();
  herald::HeraldBrandResponse response;
  try {
    response = co_await client->getBrand(brandId);
  } catch (const core::DecodingError& e) {
    // The service answers an unknown brand with an error beside a null brand.
    if (e.codingPath() != "data.brand" && e.codingPath() != "data") throw;
    context.report.failure(Failure{std::nullopt, "no brand " + brandId + " on the service",
                                   "not_found", ExitStatus::refused},
                           {}, {{"brandId", brandId}});
    co_return ExitStatus::refused;
  }
  const auto& settings = response.data.brand->settings;
  const auto colors = settings ? settings->colors : nullptr;
  const auto inapp = settings ? settings->inapp : nullptr;
  const bool footer = !inapp || inapp->showHeraldFooter();
  std::string text = "brand " + brandId;
  text += "\n  primary colour: " +
          (colors && colors->primary ? oneLine(*colors->primary) : std::string("(none)"));
  text += std::string("\n  footer: ") + (footer ? "shown" : "hidden");
  context.report.result(text, {{"brandId", brandId},
                               {"brand", response.data.brand->toJSON()},
                               {"showHeraldFooter", footer}});
  co_return ExitStatus::success;
}

awaitable<int> preferences(PreferencesRequest request, Context& context) {
  const auto session = co_await resumeSession(context);
  if (!session.client) co_return session.status;
  const auto client = session.client->preferences();
  switch (request.kind) {
    case Kind::list:
      co_return co_await list(request.all, *client, context);
    case Kind::get:
      co_return co_await get(request.topicId, *client, context);
    case Kind::set:
      co_return co_await set(request, *client, context);
  }
  throw UsageError("not a preferences command");
}

}  // namespace cli
