#pragma once
/// The extension's principal class. For each notification it first offers it to the
/// rich-push service; every other notification is reported delivered (without waiting for
/// the report), its payload decoded, and its content rewritten: the sender's picture (by URL)
/// or a drawn avatar makes it a communication notification, and a JPEG thumbnail named in
/// the payload is downloaded and attached. Whatever fails is logged at debug level through
/// Logwell and the notification is still delivered, as far as it was enriched.
///
///   herald_service::NotificationService service;
///   service.didReceive(request, [](const platform::NotificationContent& content) {
///     show(content);
///   });
///   // from another thread, when the time is nearly up:
///   service.serviceExtensionTimeWillExpire();
///
/// The instance must outlive the delivery report it starts (hosts wait with
/// `platform::waitForIdle`). One instance serves one notification at a time.

#include <memory>
#include <mutex>

#include "herald/notification_service_extension.hpp"
#include "platform/intents.hpp"
#include "platform/notification.hpp"

namespace notification_message {
struct NotificationMessage;
}

namespace herald_service {

class NotificationService : public herald::HeraldNotificationServiceExtension {
 public:
  /// Works synchronously on the calling thread, including the thumbnail download, and calls
  /// `contentHandler` before it returns, unless the rich-push service took the notification
  /// (that service then calls it later, on the main queue).
  void didReceive(const platform::NotificationRequest& request,
                  platform::ContentHandler contentHandler) override;

  /// Delivers the content as enriched so far, when a notification is being served. Nothing
  /// is cancelled or forgotten: the work still running calls the handler a second time when
  /// it ends.
  void serviceExtensionTimeWillExpire() override;

 private:
  std::shared_ptr<const platform::SendMessageIntent> addProfilePicture(
      const platform::NotificationRequest& request,
      const notification_message::NotificationMessage& message);
  void addAttachments(platform::MutableNotificationContent& content,
                      const notification_message::NotificationMessage& message);

  std::shared_ptr<platform::MutableNotificationContent> currentContent() const;
  /// Calls `handler` with a copy of `content` taken under the lock, so that a deadline call
  /// never reads a content while the work is changing it.
  void deliver(const platform::ContentHandler& handler,
               const platform::NotificationContent& content) const;

  // The deadline call may come from another thread while didReceive runs. The lock only
  // guards reading and replacing these two and writing into the content; it does not make
  // the two calls exclusive, so the handler can still be called twice, as the platform allows.
  mutable std::mutex mutex_;
  std::shared_ptr<const platform::ContentHandler> contentHandler_;
  std::shared_ptr<platform::MutableNotificationContent> bestAttemptContent_;
};

}  // namespace herald_service
