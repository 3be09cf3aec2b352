#include "herald/token_module.hpp"

#include <algorithm>

#include "herald/token_client.hpp"

namespace herald {

std::string hexString(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (unsigned char byte : bytes) {
    text.push_back(digits[byte >> 4]);
    text.push_back(digits[byte & 0x0F]);
  }
  return text;
}

TokenModule::TokenModule(UserManager& users) : users_(users) {}

boost::asio::awaitable<std::optional<std::string>> TokenModule::apnsToken() {
  return actor_.run([this]() -> boost::asio::awaitable<std::optional<std::string>> {
    co_return apnsToken_;
  });
}

boost::asio::awaitable<std::optional<std::string>> TokenModule::token(std::string providerKey) {
  return actor_.run(
      [this, key = std::move(providerKey)]() -> boost::asio::awaitable<std::optional<std::string>> {
        for (const auto& [k, token] : tokens_) {
          if (k == key) co_return token;
        }
        co_return std::nullopt;
      });
}

boost::asio::awaitable<std::vector<std::pair<std::string, std::string>>> TokenModule::tokens() {
  return actor_.run(
      [this]() -> boost::asio::awaitable<std::vector<std::pair<std::string, std::string>>> {
        co_return tokens_;
      });
}

boost::asio::awaitable<void> TokenModule::setAPNSToken(std::string rawToken,
                                                       std::shared_ptr<HeraldClient> client) {
  std::string hex = hexString(rawToken);
  return set("apn", std::move(hex), std::move(rawToken), std::move(client));
}

boost::asio::awaitable<void> TokenModule::setToken(std::string providerKey, std::string token,
                                                   std::shared_ptr<HeraldClient> client) {
  return set(std::move(providerKey), std::move(token), std::nullopt, std::move(client));
}

void TokenModule::cache(const std::string& providerKey, const std::string& token) {
  // An empty token is not a token: nothing to register under it.
  if (token.empty()) return;
  auto it = std::find_if(tokens_.begin(), tokens_.end(),
                         [&](const auto& entry) { return entry.first == providerKey; });
  if (it != tokens_.end()) {
    it->second = token;
  } else {
    tokens_.emplace_back(providerKey, token);
  }
}

boost::asio::awaitable<void> TokenModule::set(std::string providerKey, std::string token,
                                              std::optional<std::string> raw,
                                              std::shared_ptr<HeraldClient> client) {
  return actor_.exclusive([this, providerKey = std::move(providerKey), token = std::move(token),
                           raw = std::move(raw),
                           client = std::move(client)]() -> boost::asio::awaitable<void> {
    if (!users_.userId()) {
      if (raw) apnsToken_ = raw;
      cache(providerKey, token);
      co_return;
    }
    // The service keeps one token per provider for this device: the old one goes first. Its
    // failure does not stop the new one from being registered.
    auto old = std::find_if(tokens_.begin(), tokens_.end(),
                            [&](const auto& entry) { return entry.first == providerKey; });
    if (old != tokens_.end()) {
      const std::string oldToken = old->second;
      try {
        co_await remove(oldToken, client);
      } catch (...) {
        const auto error = HeraldError::from(std::current_exception());
        if (client) client->log(error.message);
      }
    }
    // Cached before the upload, so that a refused upload is tried again at the next sign-in.
    if (raw) apnsToken_ = raw;
    cache(providerKey, token);
    co_await put(providerKey, token, client);
  });
}

boost::asio::awaitable<void> TokenModule::put(const std::string& providerKey,
                                              const std::string& token,
                                              const std::shared_ptr<HeraldClient>& client) {
  if (!users_.userId()) throw HeraldError::noUserSignedIn();
  if (!client) co_return;
  co_await client->tokens()->putUserToken(token, providerKey, HeraldDevice::current());
}

boost::asio::awaitable<void> TokenModule::remove(const std::string& token,
                                                 const std::shared_ptr<HeraldClient>& client) {
  if (!users_.userId()) throw HeraldError::noUserSignedIn();
  if (!client) co_return;
  co_await client->tokens()->deleteUserToken(token);
}

boost::asio::awaitable<std::vector<TokenUpload>> TokenModule::putAllTokens(
    std::shared_ptr<HeraldClient> client) {
  return actor_.exclusive(
      [this, client = std::move(client)]() -> boost::asio::awaitable<std::vector<TokenUpload>> {
        std::vector<TokenUpload> uploads;
        // One after another: the service sees the tokens in the order they were set.
        for (const auto& [key, token] : std::vector(tokens_)) {
          TokenUpload upload{key, token, std::nullopt};
          try {
            co_await put(key, token, client);
          } catch (...) {
            upload.error = HeraldError::from(std::current_exception());
            if (client) client->log(upload.error->message);
          }
          uploads.push_back(std::move(upload));
        }
        co_return uploads;
      });
}

boost::asio::awaitable<void> TokenModule::deleteAllTokens(std::shared_ptr<HeraldClient> client) {
  return actor_.exclusive([this,
                           client = std::move(client)]() -> boost::asio::awaitable<void> {
    for (const auto& [key, token] : std::vector(tokens_)) {
      try {
        co_await remove(token, client);
      } catch (...) {
        if (client) client->log(HeraldError::from(std::current_exception()).message);
      }
    }
  });
}

}  // namespace herald
