#include "herald/herald_delegate.hpp"

#include <boost/asio/co_spawn.hpp>
#include <memory>

#include "herald/tracking.hpp"
#include "platform/main_queue.hpp"

namespace herald {
namespace {

// Reports `event` for the push, then runs `then` on the main queue, whatever the report gave:
// a push without a tracking URL goes straight on.
void reportThen(boost::json::object userInfo, HeraldTrackingEvent event,
                std::function<void()> then) {
  auto mainQueue = platform::MainQueue::shared().executor();
  boost::asio::co_spawn(
      mainQueue,
      [userInfo = std::move(userInfo), event]() -> boost::asio::awaitable<void> {
        co_await trackMessage(userInfo, event);
      },
      [then = std::move(then)](std::exception_ptr) { then(); });
}

}  // namespace

HeraldDelegate::HeraldDelegate(Herald& herald)
    : herald_(herald), alive_(std::make_shared<std::atomic<bool>>(true)) {
  platform::Application::shared().setDelegate(this);
  platform::UserNotificationCenter::current().setDelegate(this);
  platform::Application::shared().registerForRemoteNotifications();
}

HeraldDelegate::~HeraldDelegate() {
  *alive_ = false;
  if (platform::Application::shared().delegate() == this)
    platform::Application::shared().setDelegate(nullptr);
  if (platform::UserNotificationCenter::current().delegate() == this)
    platform::UserNotificationCenter::current().setDelegate(nullptr);
}

platform::PresentationOptions HeraldDelegate::willPresentPush(const boost::json::object&) {
  return platform::presentationBanner | platform::presentationList | platform::presentationSound |
         platform::presentationBadge;
}

void HeraldDelegate::didClickPush(const boost::json::object&) {}

void HeraldDelegate::didRegisterForRemoteNotifications(const std::string& deviceToken) {
  herald_.setAPNSToken(deviceToken, Herald::ErrorCompletion{});
}

void HeraldDelegate::didFailToRegisterForRemoteNotifications(const platform::Error& error) {
  sdkLog().error("Unable to register for remote notifications: " +
                 error.localizedDescription());
}

void HeraldDelegate::willPresent(const platform::UserNotification& notification,
                                 std::function<void(platform::PresentationOptions)> completion) {
  auto message = notification.userInfo();
  reportThen(message, HeraldTrackingEvent::delivered,
             [this, alive = alive_, message, completion = std::move(completion)] {
               // A delegate gone meanwhile still owes the platform its answer.
               const auto options = *alive ? willPresentPush(message) : 0;
               if (completion) completion(options);
             });
}

void HeraldDelegate::didReceive(const platform::UserNotificationResponse& response,
                                std::function<void()> completion) {
  auto message = response.notification.userInfo();
  reportThen(message, HeraldTrackingEvent::clicked,
             [this, alive = alive_, message, completion = std::move(completion)] {
               if (*alive) didClickPush(message);
               if (completion) completion();
             });
}

}  // namespace herald
