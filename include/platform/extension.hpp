#pragma once
/// The extension point of a notification-service extension. The host creates one instance
/// per notification, calls `didReceive` on a thread of its own, and calls
/// `serviceExtensionTimeWillExpire` from another thread when the deadline has come.

#include "platform/notification.hpp"

namespace platform {

class NotificationServiceExtension {
 public:
  virtual ~NotificationServiceExtension() = default;

  /// The default delivers the content unchanged.
  virtual void didReceive(const NotificationRequest& request, ContentHandler contentHandler) {
    contentHandler(*request.content);
  }

  /// The default does nothing.
  virtual void serviceExtensionTimeWillExpire() {}
};

}  // namespace platform
