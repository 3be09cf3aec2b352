// The service's preference routes, GET /users/<id>/preferences[?cursor=…] (a page of topics
// with the user's choices), GET and PUT /users/<id>/preferences/<topic>, with the user's
// access token as every REST route; and the sandbox's PUT and GET /_sandbox/topics.

#include <string>
#include <vector>

#include "platform/json.hpp"
#include "preferences.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;

Response noRoute(const Request& request) {
  return Response::error(404, "no route for " + request.method + " " + request.path +
                                  " (expected /users/<user id>/preferences[/<topic id>])");
}

Response unknownTopic(const std::string& topicId) {
  return Response::error(404, "\"" + topicId + "\" is not a topic of this account");
}

// GET /users/<id>/preferences[?cursor=…]
Response listPage(const Accounts& accounts, const Preferences& preferences,
                  const Request& request) {
  const auto segments = request.segments();
  if (segments.size() != 3 || segments[1].empty()) return noRoute(request);
  if (auto refusal = accounts.authorize(request, segments[1], ClientKey::refused)) return *refusal;
  const auto cursor = request.queryValue("cursor");
  const auto page = preferences.page(segments[1], cursor);
  if (!page)
    return Response::error(400, "cursor \"" + *cursor +
                                    "\" is not one this service gave for the current topics; "
                                    "start again without a cursor");
  json::array items;
  for (const auto& item : page->items) items.push_back(item);
  json::object paging{{"more", page->cursor.has_value()}};
  if (page->cursor) paging["cursor"] = *page->cursor;
  return Response::json(200, json::object{{"items", std::move(items)}, {"paging", paging}});
}

TopicChoice readChoice(const json::object& body) {
  const auto* topic = body.if_contains("topic");
  if (!topic || !topic->is_object())
    throw BadRequest("the body must be {\"topic\": {\"status\", \"has_custom_routing\", "
                     "\"custom_routing\"}}");
  const auto& fields = topic->as_object();
  TopicChoice choice;
  const auto* status = fields.if_contains("status");
  if (!status || !status->is_string() ||
      (status->as_string() != "OPTED_IN" && status->as_string() != "OPTED_OUT" &&
       status->as_string() != "REQUIRED"))
    throw BadRequest("\"status\" must be OPTED_IN or OPTED_OUT (REQUIRED for a required topic), "
                     "not " + (status ? platform::toJSON(*status) : std::string("missing")));
  choice.status = std::string(status->as_string());
  const auto* custom = fields.if_contains("has_custom_routing");
  if (!custom || !custom->is_bool()) throw BadRequest("\"has_custom_routing\" must be a boolean");
  choice.hasCustomRouting = custom->as_bool();
  const auto* routing = fields.if_contains("custom_routing");
  if (!routing || !routing->is_array())
    throw BadRequest("\"custom_routing\" must be an array of channels");
  for (const auto& channel : routing->as_array()) {
    if (!channel.is_string() || !isChannel(channel.as_string()))
      throw BadRequest("\"custom_routing\" takes direct_message, email, push, sms and webhook, "
                       "not " + platform::toJSON(channel));
    choice.customRouting.emplace_back(channel.as_string());
  }
  return choice;
}

// GET and PUT /users/<id>/preferences/<topic>
Response oneTopic(const Accounts& accounts, Preferences& preferences, const Request& request) {
  const auto segments = request.segments();
  if (segments.size() != 4 || segments[1].empty() || segments[3].empty()) return noRoute(request);
  const auto& user = segments[1];
  const auto& topicId = segments[3];
  if (auto refusal = accounts.authorize(request, user, ClientKey::refused)) return *refusal;
  if (request.method == "PUT") {
    const auto choice = readChoice(request.jsonObject());
    switch (preferences.choose(user, topicId, choice)) {
      case Preferences::Outcome::unknownTopic:
        return unknownTopic(topicId);
      case Preferences::Outcome::required:
        return Response::error(400, "topic \"" + topicId +
                                        "\" is required: it cannot be opted out of");
      case Preferences::Outcome::notRequired:
        return Response::error(400, "topic \"" + topicId +
                                        "\" is not required: its status is OPTED_IN or OPTED_OUT");
      case Preferences::Outcome::stored:
        break;
    }
  }
  const auto topic = preferences.topic(user, topicId);
  if (!topic) return unknownTopic(topicId);
  return Response::json(200, json::object{{"topic", *topic}});
}

}  // namespace

void addPreferenceRoutes(Router& router, Accounts& accounts, Preferences& preferences) {
  router.add("GET", "/users/*/preferences", [&](const Request& request, std::string_view) {
    return listPage(accounts, preferences, request);
  });
  for (const auto* method : {"GET", "PUT"})
    router.add(method, "/users/*/preferences/*", [&](const Request& request, std::string_view) {
      return oneTopic(accounts, preferences, request);
    });
  router.add("PUT", "/_sandbox/topics", [&](const Request& request, std::string_view) {
    preferences.setTopics(parseTopics(request.jsonObject()));
    return Response::json(200, json::object{{"topics", preferences.topicCount()}});
  });
}

}  // namespace sandbox
