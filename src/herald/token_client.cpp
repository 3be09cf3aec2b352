#include "herald/token_client.hpp"

#include <array>
#include <utility>

#include "herald/endpoints.hpp"
#include "platform/device.hpp"

namespace herald {
namespace {

constexpr std::array<std::pair<HeraldPushProvider, std::string_view>, 5> kProviderKeys{{
    {HeraldPushProvider::apn, "apn"},
    {HeraldPushProvider::firebaseFcm, "firebase-fcm"},
    {HeraldPushProvider::expo, "expo"},
    {HeraldPushProvider::oneSignal, "onesignal"},
    {HeraldPushProvider::pusherBeams, "pusher-beams"},
}};

using DeviceField = std::optional<std::string> HeraldDevice::*;
constexpr std::array<std::pair<const char*, DeviceField>, 6> kDeviceFields{{
    {"app_id", &HeraldDevice::appId},
    {"ad_id", &HeraldDevice::adId},
    {"device_id", &HeraldDevice::deviceId},
    {"platform", &HeraldDevice::platform},
    {"manufacturer", &HeraldDevice::manufacturer},
    {"model", &HeraldDevice::model},
}};

// The service answers a token change with 200 or 204.
const std::vector<int> kAccepted{200, 204};

}  // namespace

std::string_view toString(HeraldPushProvider provider) {
  for (const auto& [p, key] : kProviderKeys) {
    if (p == provider) return key;
  }
  return "";
}

std::optional<HeraldPushProvider> pushProviderFromString(std::string_view key) {
  for (const auto& [p, k] : kProviderKeys) {
    if (k == key) return p;
  }
  return std::nullopt;
}

HeraldDevice HeraldDevice::current() {
  const auto identity = platform::DeviceIdentity::current();
  HeraldDevice device;
  device.appId = identity.bundleIdentifier;
  if (identity.advertisingTrackingEnabled) device.adId = identity.advertisingIdentifier;
  device.deviceId = identity.vendorIdentifier;
  device.platform = "ios";
  device.manufacturer = "apple";
  device.model = identity.localizedModel;
  return device;
}

boost::json::object HeraldDevice::toJSON() const {
  boost::json::object object;
  for (const auto& [key, field] : kDeviceFields) {
    if (this->*field) object[key] = *(this->*field);
  }
  return object;
}

boost::json::object HeraldToken::toJSON() const {
  return {{"provider_key", providerKey}, {"device", device.toJSON()}};
}

std::string TokenClient::tokenURL(std::string_view token) const {
  return Endpoints::current().usersURL() + options().userId + "/tokens/" + std::string(token);
}

boost::asio::awaitable<void> TokenClient::putUserToken(std::string token, std::string providerKey,
                                                       HeraldDevice device) const {
  const HeraldToken body{std::move(providerKey), std::move(device)};
  auto request = makeBodyRequest(tokenURL(token), body.toJSON());
  co_await sendRequest(std::move(request), kAccepted);
}

boost::asio::awaitable<void> TokenClient::putUserToken(std::string token,
                                                       HeraldPushProvider provider,
                                                       HeraldDevice device) const {
  return putUserToken(std::move(token), std::string(toString(provider)), std::move(device));
}

boost::asio::awaitable<void> TokenClient::deleteUserToken(std::string token) const {
  auto request = makeRequest(tokenURL(token), "DELETE");
  co_await sendRequest(std::move(request), kAccepted);
}

}  // namespace herald
