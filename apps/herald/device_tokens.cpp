#include "device_tokens.hpp"

#include "herald/token_client.hpp"
#include "herald/token_module.hpp"

namespace cli {
namespace {

constexpr std::string_view kTokensKey = "tokens";
constexpr std::string_view kAPNSKey = "apns";

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<std::string> bytesFromHex(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  bytes.reserve(hex.size() / 2);
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    const int high = hexDigit(hex[i]);
    const int low = hexDigit(hex[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(high * 16 + low));
  }
  return bytes;
}

DeviceTokens::Tokens DeviceTokens::tokens() const {
  Tokens result;
  const auto stored = store_.object(kTokensKey);
  if (!stored || !stored->is_object()) return result;
  for (const auto& [key, value] : stored->as_object()) {
    if (!herald::pushProviderFromString(key) || !value.is_string() || value.as_string().empty())
      continue;
    result.emplace_back(std::string(key), std::string(value.as_string()));
  }
  return result;
}

std::optional<std::string> DeviceTokens::token(std::string_view providerKey) const {
  for (auto& [key, token] : tokens())
    if (key == providerKey) return token;
  return std::nullopt;
}

std::optional<std::string> DeviceTokens::apnsToken() const {
  const auto hex = store_.string(kAPNSKey);
  if (!hex || hex->empty()) return std::nullopt;
  return bytesFromHex(*hex);
}

void DeviceTokens::keep(const std::optional<std::string>& rawAPNSToken, const Tokens& tokens) {
  store_.update([&](boost::json::object& root) {
    std::optional<std::string> hex;
    // Written before `kept` is taken: a new key in `root` may move its members.
    if (rawAPNSToken) root[kAPNSKey] = *(hex = herald::hexString(*rawAPNSToken));
    auto* kept = root.if_contains(kTokensKey);
    if (!kept || !kept->is_object()) kept = &(root[kTokensKey] = boost::json::object());
    if (hex) kept->as_object()[toString(herald::HeraldPushProvider::apn)] = *hex;
    for (const auto& [key, token] : tokens) kept->as_object()[key] = token;
    return true;
  });
}

boost::asio::awaitable<void> DeviceTokens::seed(herald::Herald& herald) const {
  // The raw token first, then every provider's text (which may name another "apn" token
  // than the raw one, when it was set as text later).
  if (const auto raw = apnsToken()) co_await herald.setAPNSToken(*raw);
  for (auto& [key, token] : tokens()) co_await herald.setToken(key, token);
}

}  // namespace cli
