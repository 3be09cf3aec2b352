#include <cctype>
#include <string>

#include "accounts.hpp"
#include "outbox.hpp"
#include "platform/json.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

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

Response send(Accounts& accounts, Outbox& outbox, const Request& request) {
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
  return Response::json(200, boost::json::object{{"messages", std::move(messages)}});
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

void addOutboxRoutes(Router& router, Accounts& accounts, Outbox& outbox) {
  router.add("POST", "/_sandbox/send", [&](const Request& request, std::string_view) {
    return send(accounts, outbox, request);
  });
  router.add("GET", "/_sandbox/outbox",
             [&outbox](const Request& request, std::string_view) { return list(outbox, request); });
  router.add("DELETE", "/_sandbox/outbox", [&outbox](const Request&, std::string_view) {
    return Response::json(200, boost::json::object{{"deleted", outbox.clear()}});
  });
}

}  // namespace sandbox
