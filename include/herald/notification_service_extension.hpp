#pragma once
/// The delivery-tracking base of a notification-service extension: with no code of the
/// application's own it reports every arriving notification as delivered to Herald (through
/// the payload's "trackingUrl") and then shows it unchanged.
///
///   class MyExtension : public herald::HeraldNotificationServiceExtension {};
///
/// The instance must outlive the report it starts (the host keeps it until no task runs).

#include <memory>

#include "platform/extension.hpp"

namespace herald {

class HeraldNotificationServiceExtension : public platform::NotificationServiceExtension {
 public:
  void didReceive(const platform::NotificationRequest& request,
                  platform::ContentHandler contentHandler) override;
  void serviceExtensionTimeWillExpire() override;

 protected:
  /// The content handler of the notification being served.
  platform::ContentHandler originalHandler;
  /// A mutable copy of the request's content; none when the content could not be copied.
  std::shared_ptr<platform::MutableNotificationContent> originalContent;
};

}  // namespace herald
