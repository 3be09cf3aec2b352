#pragma once
/// The signed-in user's credentials, kept in user defaults so that they outlive the process:
/// one record under "herald_credentials", a string-to-string object with "herald_user_id"
/// and "herald_access_token" always, and "herald_client_key" and "herald_tenant_id" only when
/// set.
///
///   auto& users = herald::UserManager::shared();
///   users.setCredentials("user-1", jwt, std::nullopt, "tenant-a");
///   users.getCredentials()->at("herald_user_id");   // "user-1", in the next process too

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/user_defaults.hpp"

namespace herald {

class UserManager {
 public:
  using Credentials = std::map<std::string, std::string>;

  static constexpr std::string_view credentialsKey = "herald_credentials";
  static constexpr std::string_view userIdKey = "herald_user_id";
  static constexpr std::string_view accessTokenKey = "herald_access_token";
  static constexpr std::string_view clientKeyKey = "herald_client_key";
  static constexpr std::string_view tenantIdKey = "herald_tenant_id";

  /// Over the standard user-defaults store.
  static UserManager& shared();
  /// Over another store (tests, a second account).
  explicit UserManager(platform::UserDefaults& defaults) : defaults_(&defaults) {}

  platform::UserDefaults& defaults() const { return *defaults_; }

  /// Writes the record in one change and returns what `getCredentials()` then reads. Throws
  /// `platform::Error` when the store cannot be written.
  std::optional<Credentials> setCredentials(const std::string& userId,
                                            const std::string& accessToken,
                                            const std::optional<std::string>& clientKey,
                                            const std::optional<std::string>& tenantId);
  /// The record, when it is an object whose values are all strings; else none (also when
  /// the store cannot be read, which is logged at error level).
  std::optional<Credentials> getCredentials() const;
  /// Deletes the record. Throws `platform::Error` when the store cannot be written.
  void removeCredentials();

  /// "herald_user_id" and "herald_tenant_id" of the record.
  std::optional<std::string> userId() const;
  std::optional<std::string> tenantId() const;

 private:
  platform::UserDefaults* defaults_;
};

}  // namespace herald
