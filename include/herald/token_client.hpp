#pragma once
/// Push tokens on the service: the device a token belongs to, the upload body, and the area
/// client that registers and removes a user's token.
///
///   auto device = herald::HeraldDevice::current();
///   co_await client->tokens()->putUserToken("0aff", herald::HeraldPushProvider::apn, device);
///   co_await client->tokens()->deleteUserToken("0aff");

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "herald/herald_api_client.hpp"

namespace herald {

/// The push services a token can come from; the value is the provider key on the wire.
enum class HeraldPushProvider { apn, firebaseFcm, expo, oneSignal, pusherBeams };

/// "apn", "firebase-fcm", "expo", "onesignal", "pusher-beams".
std::string_view toString(HeraldPushProvider provider);
/// Exactly the keys above; anything else gives none.
std::optional<HeraldPushProvider> pushProviderFromString(std::string_view key);

/// The device a token belongs to. Every field is optional; absent ones are left out of the
/// JSON, which uses snake-case keys.
struct HeraldDevice {
  std::optional<std::string> appId;        ///< "app_id"
  std::optional<std::string> adId;         ///< "ad_id"
  std::optional<std::string> deviceId;     ///< "device_id"
  std::optional<std::string> platform;     ///< "platform"
  std::optional<std::string> manufacturer; ///< "manufacturer"
  std::optional<std::string> model;        ///< "model"

  /// This device, as `platform::DeviceIdentity::current()` describes it: "ad_id" only when
  /// advertising tracking is on; platform "ios", manufacturer "apple".
  static HeraldDevice current();

  boost::json::object toJSON() const;
  friend bool operator==(const HeraldDevice&, const HeraldDevice&) = default;
};

/// The body of a token upload: {"provider_key": …, "device": {…}}.
struct HeraldToken {
  std::string providerKey;
  HeraldDevice device;
  boost::json::object toJSON() const;
};

class TokenClient : public HeraldApiClient {
 public:
  using HeraldApiClient::HeraldApiClient;

  /// PUT <users>/<userId>/tokens/<token> with the `HeraldToken` body; 200 and 204 succeed.
  /// The user id and the token go into the path as they are. Throws `HeraldError` for any
  /// other status, `platform::Error` for a transport failure.
  boost::asio::awaitable<void> putUserToken(std::string token, std::string providerKey,
                                            HeraldDevice device) const;
  boost::asio::awaitable<void> putUserToken(std::string token, HeraldPushProvider provider,
                                            HeraldDevice device) const;
  /// DELETE on the same path, no body; 200 and 204 succeed.
  boost::asio::awaitable<void> deleteUserToken(std::string token) const;

  /// The path of one token: Endpoints::current().usersURL() + userId + "/tokens/" + token.
  std::string tokenURL(std::string_view token) const;
};

}  // namespace herald
