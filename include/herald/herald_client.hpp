#pragma once
/// The client of the Herald service: who is calling (`Options`) and the per-area clients
/// that share those options. Each area client is made on first use and kept.
///
///   auto client = std::make_shared<herald::HeraldClient>(jwt, std::nullopt, "user-1",
///                                                         connectionId, std::nullopt, true);
///   co_await client->tracking()->postTrackingUrl(url, herald::HeraldTrackingEvent::clicked);
///   client->log("posted");  // written only because showLogs is true

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "platform/system_log.hpp"

namespace herald {

class TokenClient;
class BrandClient;
class InboxClient;
class PreferenceClient;
class TrackingClient;

/// The SDK's one log object (category "HeraldSDK"). Write to it through `Options::log` and
/// friends, which respect `showLogs`.
const platform::SystemLog& sdkLog();

class HeraldClient {
 public:
  /// The identity and switches of every request.
  struct Options {
    /// The user's access token; sent as a bearer token when present.
    std::optional<std::string> jwt;
    /// The account's public client key; sent on GraphQL calls when there is no jwt.
    std::optional<std::string> clientKey;
    std::string userId;
    /// This sign-in's connection id (the inbox sends it as its client source id).
    std::optional<std::string> connectionId;
    std::optional<std::string> tenantId;
    /// Whether the helpers below (and the request/response lines) reach the log at all.
    bool showLogs = false;

    /// Debug level.
    void log(std::string_view message) const;
    /// Fault level.
    void warn(std::string_view message) const;
    /// Error level; "Oops, an error occurred" when no message is given.
    void error(std::optional<std::string_view> message = std::nullopt) const;
  };

  HeraldClient(std::optional<std::string> jwt, std::optional<std::string> clientKey,
               std::string userId, std::optional<std::string> connectionId,
               std::optional<std::string> tenantId, bool showLogs);
  ~HeraldClient();
  HeraldClient(const HeraldClient&) = delete;
  HeraldClient& operator=(const HeraldClient&) = delete;

  /// A new client on every call: user "default", no credentials, logging off. Serves calls
  /// that need no user, such as posting a tracking URL.
  static std::shared_ptr<HeraldClient> defaultClient();

  const Options options;

  std::shared_ptr<TokenClient> tokens();
  std::shared_ptr<BrandClient> brands();
  std::shared_ptr<InboxClient> inbox();
  std::shared_ptr<PreferenceClient> preferences();
  std::shared_ptr<TrackingClient> tracking();

  void log(std::string_view message) const { options.log(message); }
  void warn(std::string_view message) const { options.warn(message); }
  void error(std::optional<std::string_view> message = std::nullopt) const {
    options.error(message);
  }

 private:
  std::mutex mutex_;
  std::shared_ptr<TokenClient> tokens_;
  std::shared_ptr<BrandClient> brands_;
  std::shared_ptr<InboxClient> inbox_;
  std::shared_ptr<PreferenceClient> preferences_;
  std::shared_ptr<TrackingClient> tracking_;
};

}  // namespace herald
