#include "herald/user_manager.hpp"

#include <boost/json/object.hpp>

#include "herald/herald_client.hpp"
#include "platform/error.hpp"

namespace herald {

UserManager& UserManager::shared() {
  static UserManager manager(platform::UserDefaults::standard());
  return manager;
}

std::optional<UserManager::Credentials> UserManager::setCredentials(
    const std::string& userId, const std::string& accessToken,
    const std::optional<std::string>& clientKey, const std::optional<std::string>& tenantId) {
  boost::json::object record;
  record[userIdKey] = userId;
  record[accessTokenKey] = accessToken;
  if (clientKey) record[clientKeyKey] = *clientKey;
  if (tenantId) record[tenantIdKey] = *tenantId;
  defaults_->set(credentialsKey, std::move(record));
  return getCredentials();
}

std::optional<UserManager::Credentials> UserManager::getCredentials() const {
  std::optional<boost::json::value> value;
  try {
    value = defaults_->object(credentialsKey);
  } catch (const platform::Error& e) {
    // A store that cannot be read holds nobody; callers of a session never see an exception.
    sdkLog().error("Could not read the stored credentials: " + e.localizedDescription());
    return std::nullopt;
  }
  if (!value || !value->is_object()) return std::nullopt;
  Credentials credentials;
  for (const auto& [key, field] : value->get_object()) {
    if (!field.is_string()) return std::nullopt;
    credentials.emplace(key, field.get_string());
  }
  return credentials;
}

void UserManager::removeCredentials() { defaults_->removeObject(credentialsKey); }

namespace {
std::optional<std::string> field(const std::optional<UserManager::Credentials>& credentials,
                                 std::string_view key) {
  if (!credentials) return std::nullopt;
  auto it = credentials->find(std::string(key));
  if (it == credentials->end()) return std::nullopt;
  return it->second;
}
}  // namespace

std::optional<std::string> UserManager::userId() const {
  return field(getCredentials(), userIdKey);
}

std::optional<std::string> UserManager::tenantId() const {
  return field(getCredentials(), tenantIdKey);
}

}  // namespace herald
