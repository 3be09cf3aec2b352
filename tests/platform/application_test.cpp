#include "platform/application.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <regex>
#include <stdexcept>
#include <thread>

#include "platform/device.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"
#include "platform/notification_center.hpp"
#include "platform/system_log.hpp"

using namespace std::chrono_literals;

TEST(NotificationCenter, CallsObserversInOrderAndHonoursChangesMadeDuringAPost) {
  platform::NotificationCenter center;
  std::vector<std::string> calls;
  platform::NotificationCenter::ObserverToken c = 0, added = 0;
  const auto a = center.addObserver("changed", [&](const platform::Notification& n) {
    calls.push_back("a:" + std::string(n.userInfo.at("user").as_string()));
    // Removes an observer that has not run yet and adds one that must wait for the next post.
    center.removeObserver(c);
    if (!added)
      added = center.addObserver("changed",
                                 [&](const platform::Notification&) { calls.push_back("added"); });
  });
  const auto b = center.addObserver("changed", [&](const platform::Notification&) {
    calls.push_back("b");
    throw std::runtime_error("observer failed");
  });
  c = center.addObserver("changed", [&](const platform::Notification&) { calls.push_back("c"); });
  center.addObserver("other", [&](const platform::Notification&) { calls.push_back("other"); });
  EXPECT_NE(a, 0u);
  EXPECT_EQ(center.observerCount("changed"), 3u);

  platform::CapturedLog log;
  center.post("changed", {{"user", "u1"}});
  EXPECT_EQ(calls, (std::vector<std::string>{"a:u1", "b"}));
  ASSERT_EQ(log.messages("NotificationCenter").size(), 1u);
  EXPECT_NE(log.messages("NotificationCenter")[0].find("observer failed"), std::string::npos);

  calls.clear();
  center.removeObserver(b);
  center.removeObserver(b);  // an unknown token is ignored
  center.removeObserver(12345);
  center.post("changed", {{"user", "u2"}});
  EXPECT_EQ(calls, (std::vector<std::string>{"a:u2", "added"}));
  EXPECT_EQ(center.observerCount("changed"), 2u);
  EXPECT_EQ(center.observerCount("other"), 1u);
}

TEST(DeviceIdentity, VendorIdIsStablePerApplicationAndNeverTheMachineId) {
  platform::DeviceIdentity::setCurrent(std::nullopt);
  const auto photo = platform::DeviceIdentity::machine("app.kelvara.photo");
  EXPECT_EQ(photo.bundleIdentifier, "app.kelvara.photo");
  EXPECT_EQ(photo.advertisingIdentifier, "00000000-0000-0000-0000-000000000000");
  EXPECT_FALSE(photo.advertisingTrackingEnabled);
  EXPECT_FALSE(photo.localizedModel.empty());

  std::string machineId;
  std::ifstream("/etc/machine-id") >> machineId;
  if (machineId.empty()) std::ifstream("/var/lib/dbus/machine-id") >> machineId;
  if (machineId.empty()) {
    EXPECT_EQ(photo.vendorIdentifier, std::nullopt);
  } else {
    ASSERT_TRUE(photo.vendorIdentifier);
    EXPECT_TRUE(std::regex_match(
        *photo.vendorIdentifier,
        std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
        << *photo.vendorIdentifier;
    auto digits = *photo.vendorIdentifier;
    digits.erase(std::remove(digits.begin(), digits.end(), '-'), digits.end());
    std::transform(digits.begin(), digits.end(), digits.begin(), ::tolower);
    EXPECT_EQ(digits.find(machineId.substr(0, 12)), std::string::npos);
    EXPECT_NE(digits.substr(0, 12), machineId.substr(0, 12));

    EXPECT_EQ(platform::DeviceIdentity::machine("app.kelvara.photo").vendorIdentifier,
              photo.vendorIdentifier);
    EXPECT_NE(platform::DeviceIdentity::machine("app.kelvara.other").vendorIdentifier,
              photo.vendorIdentifier);
    EXPECT_NE(platform::DeviceIdentity::machine().vendorIdentifier, photo.vendorIdentifier);
  }

  EXPECT_EQ(platform::DeviceIdentity::current().vendorIdentifier,
            platform::DeviceIdentity::machine().vendorIdentifier);
  auto chosen = photo;
  chosen.advertisingTrackingEnabled = true;
  chosen.advertisingIdentifier = "6D92078A-8246-4BA4-AE5B-76104861E7DC";
  chosen.localizedModel = "iPhone";
  platform::DeviceIdentity::setCurrent(chosen);
  const auto now = platform::DeviceIdentity::current();
  EXPECT_EQ(now.bundleIdentifier, "app.kelvara.photo");
  EXPECT_TRUE(now.advertisingTrackingEnabled);
  EXPECT_EQ(now.advertisingIdentifier, chosen.advertisingIdentifier);
  EXPECT_EQ(now.localizedModel, "iPhone");
  platform::DeviceIdentity::setCurrent(std::nullopt);
  EXPECT_EQ(platform::DeviceIdentity::current().bundleIdentifier, std::nullopt);
}

namespace {

struct RecordingDelegate : platform::ApplicationDelegate {
  std::vector<std::string> heard;
  bool onMainThread = true;
  void didRegisterForRemoteNotifications(const std::string& token) override {
    onMainThread = onMainThread && platform::MainQueue::shared().isMainThread();
    heard.push_back("token " + token);
  }
  void didFailToRegisterForRemoteNotifications(const platform::Error& error) override {
    onMainThread = onMainThread && platform::MainQueue::shared().isMainThread();
    heard.push_back(error.domain() + " " + std::to_string(error.code()) + " " +
                    error.localizedDescription());
  }
};

}  // namespace

TEST(Application, RegistrationOutcomesReachTheDelegateOfTheMomentOnTheMainQueue) {
  auto& app = platform::Application::shared();
  auto& main = platform::MainQueue::shared();
  RecordingDelegate first, second;
  const int requestsBefore = app.registrationRequests();

  app.setRemoteNotificationRegistrar(
      [] { return platform::RemoteRegistration::token("\x0a\xff"); });
  app.setDelegate(&first);
  app.registerForRemoteNotifications();
  EXPECT_TRUE(first.heard.empty()) << "delivered inside the call, not later on the main queue";
  app.setDelegate(&second);  // the first one is going away before the outcome arrives
  ASSERT_TRUE(main.runUntil([&] { return !second.heard.empty(); }, 5s));
  EXPECT_TRUE(first.heard.empty());
  EXPECT_EQ(second.heard, std::vector<std::string>{"token \x0a\xff"});

  app.setRemoteNotificationRegistrar(nullptr);
  app.registerForRemoteNotifications();
  ASSERT_TRUE(main.runUntil([&] { return second.heard.size() == 2; }, 5s));
  EXPECT_EQ(second.heard[1],
            "NSCocoaErrorDomain 3010 remote notifications are not available on this machine");
  EXPECT_TRUE(second.onMainThread);

  // Nobody set when the outcome arrives: nobody hears it.
  app.registerForRemoteNotifications();
  app.setDelegate(nullptr);
  main.runFor(50ms);
  EXPECT_EQ(second.heard.size(), 2u);
  EXPECT_EQ(app.registrationRequests(), requestsBefore + 3);
}

namespace {

struct PresentingDelegate : platform::UserNotificationCenterDelegate {
  std::vector<std::string> heard;
  void willPresent(const platform::UserNotification& n,
                   std::function<void(platform::PresentationOptions)> completion) override {
    heard.push_back("present " + std::string(n.userInfo().at("id").as_string()));
    completion(platform::presentationBanner | platform::presentationSound);
  }
  void didReceive(const platform::UserNotificationResponse& r,
                  std::function<void()> completion) override {
    heard.push_back("open " + r.actionIdentifier);
    completion();
  }
};

}  // namespace

TEST(UserNotificationCenter, AsksForPermissionOnceAndHandsNotificationsToTheDelegate) {
  auto& center = platform::UserNotificationCenter::current();
  center.reset();
  std::atomic<int> asked{0};
  center.setAuthorizationDecider([&](platform::AuthorizationOptions options) {
    ++asked;
    std::this_thread::sleep_for(10ms);  // widens the window for a second request to slip in
    return options & platform::authorizationAlert ? platform::AuthorizationStatus::provisional
                                                  : platform::AuthorizationStatus::denied;
  });
  EXPECT_EQ(platform::blockOn(center.authorizationStatus()),
            platform::AuthorizationStatus::notDetermined);
  auto one = platform::spawnFuture(center.requestAuthorization(7));
  auto two = platform::spawnFuture(center.requestAuthorization(7));
  EXPECT_TRUE(one.get());
  EXPECT_TRUE(two.get());
  EXPECT_TRUE(platform::blockOn(center.requestAuthorization(platform::authorizationBadge)));
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(center.lastRequestedOptions(), platform::authorizationBadge);
  EXPECT_EQ(platform::blockOn(center.authorizationStatus()),
            platform::AuthorizationStatus::provisional);

  center.reset();
  center.setAuthorizationDecider(nullptr);
  EXPECT_FALSE(platform::blockOn(center.requestAuthorization(7)));
  EXPECT_EQ(platform::toString(platform::blockOn(center.authorizationStatus())), "denied");
  center.reset();

  platform::MutableNotificationContent content;
  content.userInfo["id"] = "n-1";
  const platform::UserNotification notification{{"n-1", content.copy()}};
  platform::PresentationOptions shown = 0;
  PresentingDelegate delegate;
  center.setDelegate(&delegate);
  center.present(notification, [&](platform::PresentationOptions o) { shown = o; });
  center.open({notification}, [] {});
  center.setDelegate(nullptr);
  EXPECT_EQ(shown, platform::presentationBanner | platform::presentationSound);
  EXPECT_EQ(delegate.heard,
            (std::vector<std::string>{"present n-1",
                                      "open com.apple.UNNotificationDefaultActionIdentifier"}));
  EXPECT_TRUE(platform::UserNotification{}.userInfo().empty());
}
