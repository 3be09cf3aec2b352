#include <cctype>
#include <optional>
#include <string>

#include "accounts.hpp"
#include "outbox.hpp"
#include "platform/json.hpp"
#include "routes.hpp"

namespace sandbox {

// The tracking URL is built from the Host the caller used, so that it leads back here the
// same way; anything but a host name or address with a port is refused rather than echoed
// into every payload.
std::string trackingBase(const Request& request) {
  const auto host = request.header("Host");
  if (!host || host->empty())
    throw BadRequest("the request has no Host header, which the tracking URL is built from");
  for (const unsigned char c : *host)
    if (!std::isalnum(c) &&
        std::string_view(".-_:[]").find(static_cast<char>(c)) == std::string_view::npos)
      throw BadRequest("the Host header '" + *host + "' is not a host name with a port");
  return "http://" + *host + "/track/";
}

namespace {

// The payload the phone receives: the caller's keys, "aps" with "mutable-content": 1 so that
// the notification service runs, and the tracking URL of this message.
boost::json::object payloadFor(const boost::json::object& push, const std::string& trackingURL) {
  auto payload = push;
  auto& aps = payload["aps"];
  if (!aps.is_object()) aps = boost::json::object{};
  aps.as_object()["mutable-content"] = 1;
  payload["trackingUrl"] = trackingURL;
  return payload;
}

// The inbox's copy of a push, as the service keeps one for a message sent to both channels:
// the alert's title and body, and the payload's own keys as its data.
InboxMessage inboxCopy(const std::string& user, const boost::json::object& push,
                       std::optional<std::string> tenant) {
  InboxMessage message;
  message.user = user;
  message.tenant = std::move(tenant);
  if (const auto* aps = push.if_contains("aps"); aps && aps->is_object())
    if (const auto* alert = aps->as_object().if_contains("alert")) {
      if (alert->is_string()) message.body = std::string(alert->as_string());
      if (const auto* fields = alert->if_object()) {
        if (const auto* title = fields->if_contains("title"); title && title->is_string())
          message.title = std::string(title->as_string());
        if (const auto* body = fields->if_contains("body"); body && body->is_string())
          message.body = std::string(body->as_string());
      }
    }
  boost::json::object data;
  for (const auto& [key, value] : push)
    if (key != "aps") data[key] = value;
  if (!data.empty()) message.data = std::move(data);
  return message;
}

Response send(Accounts& accounts, Outbox& outbox, Inbox& inbox, const Request& request) {
  const auto body = request.jsonObject();
  const auto* user = body.if_contains("user");
  if (!user || !user->is_string() || user->as_string().empty())
    throw BadRequest("\"user\" must be a non-empty string, not " +
                     (user ? platform::describeJSONKind(*user) : std::string("missing")));
  boost::json::object push;
  if (const auto* given = body.if_contains("push")) {
    if (!given->is_object())
      throw BadRequest("\"push\" must be an object, not " + platform::describeJSONKind(*given));
    push = given->as_object();
  }
  if (const auto* aps = push.if_contains("aps"); aps && !aps->is_object())
    throw BadRequest("\"push\".\"aps\" must be an object, not " + platform::describeJSONKind(*aps));
  std::optional<std::string> tenant;
  if (const auto* given = body.if_contains("tenant"); given && !given->is_null()) {
    if (!given->is_string() || given->as_string().empty())
      throw BadRequest("\"tenant\" must be a non-empty string, not " +
                       platform::describeJSONKind(*given));
    tenant = std::string(given->as_string());
  }
  const auto base = trackingBase(request);

  const std::string userId(user->as_string());
  const auto tokens = accounts.tokens(userId);
  if (!tokens) return Response::error(404, "no user \"" + userId + "\"");
  if (tokens->empty())
    return Response::error(
        409, "user \"" + userId + "\" has no push token registered: nothing was sent");
  boost::json::array messages;
  for (const auto& token : *tokens) {
    const auto message =
        outbox.add(userId, token.token, token.providerKey,
                   [&](const std::string& id) { return payloadFor(push, base + id); });
    messages.push_back(toJSON(message));
  }
  const auto copy = addInboxMessage(inbox, inboxCopy(userId, push, std::move(tenant)), base);
  return Response::json(200, boost::json::object{{"messages", std::move(messages)},
                                                 {"inboxMessage", toJSON(copy)}});
}

Response list(const Outbox& outbox, const Request& request) {
  const auto token = request.queryValue("token");
  const auto user = request.queryValue("user");
  boost::json::array messages;
  for (const auto& message : outbox.messages())
    if ((!token || message.token == *token) && (!user || message.user == *user))
      messages.push_back(toJSON(message));
  return Response::json(200, boost::json::object{{"messages", std::move(messages)}});
}

}  // namespace

void addOutboxRoutes(Router& router, Accounts& accounts, Outbox& outbox, Inbox& inbox) {
  router.add("POST", "/_sandbox/send", [&](const Request& request, std::string_view) {
    return send(accounts, outbox, inbox, request);
  });
  router.add("GET", "/_sandbox/outbox",
             [&outbox](const Request& request, std::string_view) { return list(outbox, request); });
  router.add("DELETE", "/_sandbox/outbox", [&outbox](const Request&, std::string_view) {
    return Response::json(200, boost::json::object{{"deleted", outbox.clear()}});
  });
}

}  // namespace sandbox
