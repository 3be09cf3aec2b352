#pragma once
// The sandbox's one account: the secret its access tokens are signed with, its public client
// key, and its users with their registered push tokens. Every service route asks it who may
// call; only accounts.cpp knows how access tokens are made and read.

#include <boost/json/object.hpp>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "http.hpp"

namespace sandbox {

/// Whether a route takes the account's client key in place of an access token. Only the
/// GraphQL routes do, and only when the client sends no token; REST routes never do.
enum class ClientKey { refused, accepted };

/// One push token as registered with PUT /users/{id}/tokens/{token}.
struct RegisteredToken {
  std::string token;
  std::string providerKey;
  boost::json::object device;
};

class Accounts {
 public:
  /// `jwtSecret` signs and checks access tokens (HS256, its bytes as the key); `clientKey` is
  /// the value "x-herald-client-key" must hold where a client key is accepted. Neither may
  /// be empty (std::invalid_argument).
  Accounts(std::string jwtSecret, std::string clientKey);

  /// An access token for `userId`: HS256 with "sub", "iat" and "exp" = now + ttl (a ttl of 0
  /// or less gives a token that has already expired, for tests). The user is seen from now
  /// on.
  ///
  ///   auto jwt = accounts.mintToken("ada", std::chrono::hours(1));
  std::string mintToken(const std::string& userId, std::chrono::seconds ttl);

  /// The refusal for a request that may not act for `userId`, or none when it may:
  /// - "Authorization: Bearer <jwt>" with a token signed under the secret, not expired, whose
  ///   "sub" is `userId`;
  /// - or, only with ClientKey::accepted and no Authorization header, "x-herald-client-key"
  ///   equal to the account's client key.
  /// Missing, malformed, badly signed or expired credentials and a wrong or refused client
  /// key give 401 "authentication_error"; a valid token of another user gives 403
  /// "authorization_error". Every refusal has the service's error body and says why.
  ///
  ///   if (auto refusal = accounts.authorize(request, userId, ClientKey::refused))
  ///     return *refusal;
  std::optional<Response> authorize(const Request& request, std::string_view userId,
                                    ClientKey allowed) const;

  /// The user an access token of this account is for (signed with the secret, HS256, not
  /// expired), or the 401 "authentication_error" refusal saying what is wrong with it.
  ///
  ///   auto user = accounts.tokenUser(jwt);
  ///   if (auto* refusal = std::get_if<Response>(&user)) return *refusal;
  std::variant<std::string, Response> tokenUser(const std::string& token) const;
  /// Whether `key` is the account's client key.
  bool isClientKey(std::string_view key) const { return key == clientKey_; }

  /// Registers `token` for `userId`, replacing the provider and device of the same token.
  /// A token belongs to one user: registering it for another moves it there.
  void putToken(const std::string& userId, RegisteredToken token);
  /// Forgets `token` of `userId`; false when the user had no such token.
  bool deleteToken(const std::string& userId, std::string_view token);
  /// The user's tokens in the order first registered; none for a user never seen (no access
  /// token made for it, no push token registered).
  std::optional<std::vector<RegisteredToken>> tokens(const std::string& userId) const;

 private:
  std::string secret_;
  std::string clientKey_;
  mutable std::mutex mutex_;
  std::map<std::string, std::vector<RegisteredToken>, std::less<>> users_;
};

}  // namespace sandbox
