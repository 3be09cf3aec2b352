#pragma once
/// The device's push tokens for this process: the raw token of the platform's push service
/// and one token per provider key. Owned by the `Herald` facade, which registers every token
/// with the service at sign-in; not persisted.
///
///   co_await tokens.setToken("firebase-fcm", "f00d", client);  // cached, then uploaded
///   co_await tokens.token("firebase-fcm");                     // "f00d"

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "herald/herald_client.hpp"
#include "herald/herald_error.hpp"
#include "herald/user_manager.hpp"
#include "platform/actor.hpp"

namespace herald {

/// Each byte as two lower-case hexadecimal digits, in order, with no separator.
std::string hexString(std::string_view bytes);

/// What uploading one cached token at sign-in gave.
struct TokenUpload {
  std::string providerKey;
  std::string token;
  /// None when the service took it (or nothing was sent: no client).
  std::optional<HeraldError> error;
};

class TokenModule {
 public:
  explicit TokenModule(UserManager& users);

  /// The cached raw token of the platform's push service.
  boost::asio::awaitable<std::optional<std::string>> apnsToken();
  /// The cached token of a provider key.
  boost::asio::awaitable<std::optional<std::string>> token(std::string providerKey);
  /// Every cached token, as (provider key, token), in the order the keys were first set.
  boost::asio::awaitable<std::vector<std::pair<std::string, std::string>>> tokens();

  /// Caches the raw token and its hex form under "apn" (not when empty). When a user is
  /// signed in: first deletes the cached "apn" token on the service (a failure is logged
  /// and the rest goes on), then uploads the new one; that upload's failure is thrown.
  /// `client` may be null: then nothing is sent.
  boost::asio::awaitable<void> setAPNSToken(std::string rawToken,
                                            std::shared_ptr<HeraldClient> client);
  /// The same for one provider key and token text (no raw bytes are kept).
  boost::asio::awaitable<void> setToken(std::string providerKey, std::string token,
                                        std::shared_ptr<HeraldClient> client);

  /// Uploads every cached token, one after another; a failure is logged and the next token
  /// is tried. Returns what each upload gave.
  boost::asio::awaitable<std::vector<TokenUpload>> putAllTokens(
      std::shared_ptr<HeraldClient> client);
  /// Deletes every cached token on the service the same way (nothing is sent without a
  /// client); the cache is kept.
  boost::asio::awaitable<void> deleteAllTokens(std::shared_ptr<HeraldClient> client);

 private:
  boost::asio::awaitable<void> set(std::string providerKey, std::string token,
                                   std::optional<std::string> raw,
                                   std::shared_ptr<HeraldClient> client);
  boost::asio::awaitable<void> put(const std::string& providerKey, const std::string& token,
                                   const std::shared_ptr<HeraldClient>& client);
  boost::asio::awaitable<void> remove(const std::string& token,
                                      const std::shared_ptr<HeraldClient>& client);
  void cache(const std::string& providerKey, const std::string& token);

  UserManager& users_;
  platform::Actor actor_;
  std::optional<std::string> apnsToken_;                     // on actor_
  std::vector<std::pair<std::string, std::string>> tokens_;  // on actor_
};

}  // namespace herald
