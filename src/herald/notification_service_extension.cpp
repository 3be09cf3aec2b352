#include "herald/notification_service_extension.hpp"

#include <mutex>

#include "herald/tracking.hpp"
#include "platform/executor.hpp"

namespace herald {
namespace {

// The deadline call comes on the host's thread while the report task may be writing the
// fields; one lock for all instances keeps the header free of it and costs nothing here.
std::mutex& fieldsMutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

void HeraldNotificationServiceExtension::didReceive(const platform::NotificationRequest& request,
                                                    platform::ContentHandler contentHandler) {
  platform::spawnDetached(
      [this, request, handler = std::move(contentHandler)]() -> boost::asio::awaitable<void> {
        std::shared_ptr<platform::MutableNotificationContent> content;
        {
          std::lock_guard lock(fieldsMutex());
          originalHandler = handler;
          originalContent = request.content ? request.content->mutableCopy() : nullptr;
          content = originalContent;
        }
        // Content that cannot be copied is neither reported nor delivered, not even at the
        // deadline: the notification is left to the system.
        if (!content) co_return;

        co_await trackMessage(content->userInfo, HeraldTrackingEvent::delivered);

        {
          std::lock_guard lock(fieldsMutex());
          content = originalContent;
        }
        if (content && handler) handler(*content);
      });
}

void HeraldNotificationServiceExtension::serviceExtensionTimeWillExpire() {
  platform::ContentHandler handler;
  std::shared_ptr<platform::MutableNotificationContent> content;
  {
    std::lock_guard lock(fieldsMutex());
    handler = originalHandler;
    content = originalContent;
  }
  // Nothing is cancelled or cleared: the report still ends and delivers a second time.
  if (handler && content) handler(*content);
}

}  // namespace herald
