#include <charconv>
#include <string>
#include <vector>

#include "accounts.hpp"
#include "platform/json.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

constexpr std::chrono::seconds kDefaultTokenLifetime{3600};
// Ten years either way: past any test's need, and far from overflowing "exp".
constexpr long long kMaxTokenLifetime = 10LL * 366 * 24 * 3600;

Response noRoute(const Request& request, std::string_view expected) {
  return Response::error(404, "no route for " + request.method + " " + request.path +
                                  " (expected " + std::string(expected) + ")");
}

// PUT and DELETE /users/{id}/tokens/{token}
Response pushToken(Accounts& accounts, const Request& request) {
  const auto segments = request.segments();
  if (segments.size() != 4 || segments[2] != "tokens" || segments[1].empty() || segments[3].empty())
    return noRoute(request, "/users/<user id>/tokens/<token>");
  const auto& userId = segments[1];
  const auto& token = segments[3];
  if (auto refusal = accounts.authorize(request, userId, ClientKey::refused)) return *refusal;

  if (request.method == "DELETE") {
    // Deleting a token that is not there is not an error: the client's aim is reached.
    accounts.deleteToken(userId, token);
    return Response{204, {}, {}};
  }
  auto body = request.jsonObject();
  const auto* provider = body.if_contains("provider_key");
  if (!provider) throw BadRequest("the body has no \"provider_key\"");
  if (!provider->is_string() || provider->as_string().empty())
    throw BadRequest("\"provider_key\" must be a non-empty string, not " +
                     platform::describeJSONKind(*provider));
  boost::json::object device;
  if (const auto* given = body.if_contains("device")) {
    if (!given->is_object())
      throw BadRequest("\"device\" must be an object, not " + platform::describeJSONKind(*given));
    device = given->as_object();
  }
  accounts.putToken(userId, {token, std::string(provider->as_string()), std::move(device)});
  return Response{204, {}, {}};
}

std::chrono::seconds lifetime(const Request& request) {
  long long seconds = kDefaultTokenLifetime.count();
  bool valid = true;
  std::string given;
  if (const auto text = request.queryValue("ttl")) {
    given = "'" + *text + "'";
    const auto* end = text->data() + text->size();
    auto [ptr, ec] = std::from_chars(text->data(), end, seconds);
    valid = !text->empty() && ec == std::errc() && ptr == end;
  } else if (!request.body.empty()) {
    const auto body = request.jsonObject();
    if (const auto* ttl = body.if_contains("ttl")) {
      given = platform::describeJSONKind(*ttl);
      valid = ttl->is_int64();
      if (valid) seconds = ttl->as_int64();
    }
  }
  if (!valid || seconds < -kMaxTokenLifetime || seconds > kMaxTokenLifetime)
    throw BadRequest("ttl must be a whole number of seconds from " +
                     std::to_string(-kMaxTokenLifetime) + " to " +
                     std::to_string(kMaxTokenLifetime) + ", not " + given);
  return std::chrono::seconds(seconds);
}

boost::json::object describeUser(const std::string& userId,
                                 const std::vector<RegisteredToken>& tokens) {
  boost::json::array list;
  for (const auto& token : tokens)
    list.push_back(boost::json::object{
        {"token", token.token}, {"provider_key", token.providerKey}, {"device", token.device}});
  return {{"id", userId}, {"tokens", std::move(list)}};
}

}  // namespace

void addUserRoutes(Router& router, Accounts& accounts) {
  for (const char* method : {"PUT", "DELETE"})
    router.add(method, "/users/*/tokens/*", [&accounts](const Request& request, std::string_view) {
      return pushToken(accounts, request);
    });

  router.add("GET", "/_sandbox/users/*", [&accounts](const Request& request, std::string_view) {
    const auto segments = request.segments();
    if (segments.size() != 3 || segments[2].empty())
      return noRoute(request, "/_sandbox/users/<user id>");
    const auto tokens = accounts.tokens(segments[2]);
    if (!tokens)
      return Response::error(404, "no user \"" + segments[2] +
                                      "\": a user is known once an access token was made for "
                                      "it or a push token registered");
    return Response::json(200, describeUser(segments[2], *tokens));
  });

  router.add("POST", "/_sandbox/users/*/token",
             [&accounts](const Request& request, std::string_view) {
               const auto segments = request.segments();
               if (segments.size() != 4 || segments[3] != "token" || segments[2].empty())
                 return noRoute(request, "/_sandbox/users/<user id>/token");
               const auto jwt = accounts.mintToken(segments[2], lifetime(request));
               return Response::json(200, boost::json::object{{"jwt", jwt}});
             });
}

}  // namespace sandbox
