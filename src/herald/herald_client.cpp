#include "herald/herald_client.hpp"

#include "herald/brand_client.hpp"
#include "herald/inbox_client.hpp"
#include "herald/preference_client.hpp"
#include "herald/token_client.hpp"
#include "herald/tracking.hpp"

namespace herald {
namespace {

template <class Client>
std::shared_ptr<Client> lazily(std::mutex& mutex, std::shared_ptr<Client>& slot,
                               const HeraldClient::Options& options) {
  std::lock_guard lock(mutex);
  if (!slot) slot = std::make_shared<Client>(options);
  return slot;
}

}  // namespace

const platform::SystemLog& sdkLog() {
  static const platform::SystemLog log("app.herald.sdk", "HeraldSDK");
  return log;
}

void HeraldClient::Options::log(std::string_view message) const {
  if (showLogs) sdkLog().debug(message);
}

void HeraldClient::Options::warn(std::string_view message) const {
  if (showLogs) sdkLog().fault(message);
}

void HeraldClient::Options::error(std::optional<std::string_view> message) const {
  if (showLogs) sdkLog().error(message.value_or("Oops, an error occurred"));
}

HeraldClient::HeraldClient(std::optional<std::string> jwt, std::optional<std::string> clientKey,
                           std::string userId, std::optional<std::string> connectionId,
                           std::optional<std::string> tenantId, bool showLogs)
    : options{std::move(jwt),          std::move(clientKey), std::move(userId),
              std::move(connectionId), std::move(tenantId),  showLogs} {}

HeraldClient::~HeraldClient() = default;

std::shared_ptr<HeraldClient> HeraldClient::defaultClient() {
  return std::make_shared<HeraldClient>(std::nullopt, std::nullopt, "default", std::nullopt,
                                        std::nullopt, false);
}

std::shared_ptr<TokenClient> HeraldClient::tokens() {
  return lazily(mutex_, tokens_, options);
}
std::shared_ptr<BrandClient> HeraldClient::brands() {
  return lazily(mutex_, brands_, options);
}
std::shared_ptr<InboxClient> HeraldClient::inbox() {
  return lazily(mutex_, inbox_, options);
}
std::shared_ptr<PreferenceClient> HeraldClient::preferences() {
  return lazily(mutex_, preferences_, options);
}
std::shared_ptr<TrackingClient> HeraldClient::tracking() {
  return lazily(mutex_, tracking_, options);
}

}  // namespace herald
