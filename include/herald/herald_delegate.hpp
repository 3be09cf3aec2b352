#pragma once
/// A base for the application's delegate that wires the platform's push callbacks into
/// Herald: it asks for a device token when made and hands the token to the facade, reports
/// a push shown in the foreground as delivered and an opened push as clicked (to the push's
/// "trackingUrl"), and then asks its two hooks.
///
///   class AppDelegate : public herald::HeraldDelegate {
///     platform::PresentationOptions willPresentPush(const boost::json::object& message) override {
///       return platform::presentationBanner;
///     }
///     void didClickPush(const boost::json::object& message) override { openMessage(message); }
///   };
///   AppDelegate delegate;   // registers for remote notifications; becomes both delegates

#include <boost/json/object.hpp>
#include <atomic>
#include <memory>

#include "herald/herald.hpp"
#include "platform/application.hpp"

namespace herald {

class HeraldDelegate : public platform::ApplicationDelegate,
                       public platform::UserNotificationCenterDelegate {
 public:
  /// Becomes the delegate of the shared application (as the application's own delegate
  /// would be) and of the current user-notification center, then registers for remote
  /// notifications. Tokens go to `herald`.
  explicit HeraldDelegate(Herald& herald = Herald::shared());
  /// Unsets itself as either delegate it still is.
  ~HeraldDelegate() override;
  HeraldDelegate(const HeraldDelegate&) = delete;
  HeraldDelegate& operator=(const HeraldDelegate&) = delete;

  /// How a push that arrives in the foreground is shown; by default as a banner and in the
  /// list, with its sound and badge. Called on the main queue after the delivered report.
  virtual platform::PresentationOptions willPresentPush(const boost::json::object& message);
  /// The user opened a push; by default nothing more happens. Called on the main queue after
  /// the clicked report.
  virtual void didClickPush(const boost::json::object& message);

  void didRegisterForRemoteNotifications(const std::string& deviceToken) override;
  /// Writes "Unable to register for remote notifications: <description>" to the log.
  void didFailToRegisterForRemoteNotifications(const platform::Error& error) override;
  void willPresent(const platform::UserNotification& notification,
                   std::function<void(platform::PresentationOptions)> completion) override;
  void didReceive(const platform::UserNotificationResponse& response,
                  std::function<void()> completion) override;

 private:
  Herald& herald_;
  // Read on the main queue by the hooks' tasks, which may finish after the delegate is gone.
  std::shared_ptr<std::atomic<bool>> alive_;
};

}  // namespace herald
