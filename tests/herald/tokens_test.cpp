#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <string>
#include <vector>

#include "herald/herald_delegate.hpp"
#include "herald/token_client.hpp"
#include "platform/application.hpp"
#include "platform/device.hpp"
#include "platform/json.hpp"
#include "platform/system_log.hpp"
#include "session_support.hpp"

using session_support::Session;
using testing_support::RecordedRequest;
using testing_support::ScriptedResponse;
using Wire = std::vector<std::string>;

namespace {

// A known device for the duration of a test.
struct ScopedDevice {
  explicit ScopedDevice(bool tracking) {
    platform::DeviceIdentity identity;
    identity.bundleIdentifier = "app.kelvara.photo";
    identity.advertisingIdentifier = "11111111-2222-4333-8444-555555555555";
    identity.advertisingTrackingEnabled = tracking;
    identity.vendorIdentifier = "AAAAAAAA-BBBB-4CCC-8DDD-EEEEEEEEEEEE";
    identity.localizedModel = "Test Machine";
    platform::DeviceIdentity::setCurrent(identity);
  }
  ~ScopedDevice() { platform::DeviceIdentity::setCurrent(std::nullopt); }
};

}  // namespace

TEST(Tokens, ARawTokenBeforeSignInIsCachedAsHexAndUploadedByTheNextSignIn) {
  ScopedDevice device(/*tracking=*/false);
  Session s;
  s.await(s.herald->setAPNSToken(std::string("\x0a\xff", 2)));
  EXPECT_EQ(s.await(s.herald->getToken(herald::HeraldPushProvider::apn)), "0aff");
  EXPECT_EQ(s.await(s.herald->apnsToken()), std::string("\x0a\xff", 2));
  EXPECT_TRUE(s.server.requests().empty());

  s.await(s.herald->signIn("user-1", std::nullopt, "jwt-1"));
  ASSERT_EQ(s.wire(), (Wire{"PUT /users/user-1/tokens/0aff"}));
  const auto put = s.server.requests().front();
  EXPECT_EQ(put.header("Authorization"), "Bearer jwt-1");
  // Tracking is off: the device carries no advertising id.
  EXPECT_EQ(put.body,
            R"({"provider_key":"apn","device":{"app_id":"app.kelvara.photo",)"
            R"("device_id":"AAAAAAAA-BBBB-4CCC-8DDD-EEEEEEEEEEEE","platform":"ios",)"
            R"("manufacturer":"apple","model":"Test Machine"}})");
  // An empty raw token caches nothing under "apn".
  EXPECT_EQ(herald::hexString(""), "");
}

TEST(Tokens, ReplacingATokenWhileSignedInDeletesTheOldOneFirstAndSignOutSendsNothing) {
  ScopedDevice device(/*tracking=*/true);
  Session s;
  s.await(s.herald->signIn("user-1", std::nullopt, "jwt-1"));
  s.await(s.herald->setToken(herald::HeraldPushProvider::apn, "aa"));
  s.await(s.herald->setAPNSToken(std::string("\xbb", 1)));
  s.await(s.herald->setToken("firebase-fcm", "f1"));
  EXPECT_EQ(s.wire(), (Wire{"PUT /users/user-1/tokens/aa", "DELETE /users/user-1/tokens/aa",
                            "PUT /users/user-1/tokens/bb", "PUT /users/user-1/tokens/f1"}));
  const auto body = platform::parseJSON(s.server.requests().back().body);
  EXPECT_EQ(body.at("device").at("ad_id"), "11111111-2222-4333-8444-555555555555");

  s.await(s.herald->signOut());
  EXPECT_EQ(s.server.requests().size(), 4u);
  EXPECT_EQ(s.await(s.herald->getToken("firebase-fcm")), "f1");

  // The next sign-in registers both again, in the order they were first set.
  s.await(s.herald->signIn("user-2", std::nullopt, "jwt-2"));
  const auto wire = s.wire();
  EXPECT_EQ(Wire(wire.begin() + 4, wire.end()),
            (Wire{"PUT /users/user-2/tokens/bb", "PUT /users/user-2/tokens/f1"}));
}

TEST(Tokens, ARefusedUploadReachesTheCallerAndTheTokenStaysCachedForTheNextSignIn) {
  Session s([](const RecordedRequest& r) {
    if (r.method == "PUT" && r.target.ends_with("/bad"))
      return ScriptedResponse{401, {}, R"({"message":"The access token has expired","type":"authentication_error"})"};
    return ScriptedResponse{200, {}, "{}"};
  });
  s.await(s.herald->signIn("user-1", std::nullopt, "jwt-1", std::nullopt, true));
  try {
    s.await(s.herald->setToken("expo", "bad"));
    FAIL() << "the refusal did not reach the caller";
  } catch (const herald::HeraldError& e) {
    EXPECT_EQ(e, herald::HeraldError(401, "The access token has expired", "authentication_error"));
  }
  EXPECT_EQ(s.await(s.herald->getToken("expo")), "bad");

  // At sign-in a refusal is logged, kept, and does not stop the next token.
  s.await(s.herald->setToken("onesignal", "good"));
  platform::CapturedLog log;
  s.await(s.herald->signIn("user-1", std::nullopt, "jwt-1", std::nullopt, true));
  const auto uploads = s.await(s.herald->lastTokenUploads());
  ASSERT_EQ(uploads.size(), 2u);
  EXPECT_EQ(uploads[0].token, "bad");
  ASSERT_TRUE(uploads[0].error);
  EXPECT_EQ(uploads[0].error->code, 401);
  EXPECT_EQ(uploads[1].token, "good");
  EXPECT_FALSE(uploads[1].error);
  const auto messages = log.messages("HeraldSDK");
  EXPECT_NE(std::find(messages.begin(), messages.end(), "The access token has expired"),
            messages.end());

  // The completion variant hands the same error over.
  std::promise<std::optional<herald::HeraldError>> reported;
  s.herald->setToken("expo", "bad", [&](auto error) { reported.set_value(error); });
  auto future = reported.get_future();
  ASSERT_EQ(future.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  const auto error = future.get();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code, 401);
}

TEST(Tokens, WithOnlyAClientKeyTheTokenCallsCarryNoCredentialsAtAll) {
  Session s;
  s.await(s.herald->setToken("expo", "e1"));
  s.await(s.herald->signIn("user-1", std::nullopt, "", "key-1"));
  ASSERT_EQ(s.server.requests().size(), 1u);
  const auto put = s.server.requests().front();
  EXPECT_FALSE(put.header("Authorization"));
  EXPECT_FALSE(put.header("x-herald-client-key"));
}

TEST(Tokens, TheDelegateRegistersReportsAndThenAsksItsHooksOnTheMainQueue) {
  Session s([](const RecordedRequest& r) {
    return ScriptedResponse{r.target.starts_with("/track/") ? 200 : 204, {}, "{}"};
  });
  auto& app = platform::Application::shared();
  app.setRemoteNotificationRegistrar([] { return platform::RemoteRegistration::token("\x0a\xff"); });

  struct Delegate : herald::HeraldDelegate {
    using HeraldDelegate::HeraldDelegate;
    std::vector<std::string> hooks;
    platform::PresentationOptions willPresentPush(const boost::json::object& m) override {
      hooks.push_back("present " + platform::toJSON(m.at("id")) +
                      (platform::MainQueue::shared().isMainThread() ? " on main" : ""));
      return platform::presentationBanner;
    }
    void didClickPush(const boost::json::object& m) override {
      hooks.push_back("click " + platform::toJSON(m.at("id")));
    }
  };
  Delegate delegate(*s.herald);
  platform::MainQueue::shared().runUntil(
      [&] { return platform::blockOn(s.herald->apnsToken()).has_value(); },
      std::chrono::seconds(5));
  EXPECT_EQ(s.await(s.herald->getToken("apn")), "0aff");

  auto notification = [&](int id) {
    auto content = std::make_shared<platform::NotificationContent>();
    content->userInfo = {{"id", id}, {"trackingUrl", s.server.baseURL() + "/track/m" + std::to_string(id)}};
    return platform::UserNotification{{"n" + std::to_string(id), content}};
  };
  std::optional<platform::PresentationOptions> shown;
  bool opened = false;
  platform::UserNotificationCenter::current().present(notification(1), [&](auto o) { shown = o; });
  platform::MainQueue::shared().runUntil([&] { return shown.has_value(); }, std::chrono::seconds(5));
  platform::UserNotificationCenter::current().open({notification(2)}, [&] { opened = true; });
  platform::MainQueue::shared().runUntil([&] { return opened; }, std::chrono::seconds(5));

  EXPECT_EQ(shown, platform::presentationBanner);
  EXPECT_TRUE(opened);
  EXPECT_EQ(delegate.hooks, (std::vector<std::string>{"present 1 on main", "click 2"}));
  // Each hook ran after its report had reached the service.
  std::vector<std::string> reports;
  for (const auto& r : s.server.requests())
    if (r.target.starts_with("/track/")) reports.push_back(r.target + " " + r.body);
  EXPECT_EQ(reports, (Wire{R"(/track/m1 {"event":"DELIVERED"})", R"(/track/m2 {"event":"CLICKED"})"}));
  app.setRemoteNotificationRegistrar({});
}

TEST(Tokens, PermissionIsAskedForAlertSoundAndBadge) {
  auto& center = platform::UserNotificationCenter::current();
  center.reset();
  center.setAuthorizationDecider([](platform::AuthorizationOptions) {
    return platform::AuthorizationStatus::authorized;
  });
  EXPECT_EQ(platform::blockOn(herald::Herald::getNotificationPermissionStatus()),
            platform::AuthorizationStatus::notDetermined);
  EXPECT_EQ(platform::blockOn(herald::Herald::requestNotificationPermission()),
            platform::AuthorizationStatus::authorized);
  EXPECT_EQ(center.lastRequestedOptions(), 7u);
  center.reset();
  center.setAuthorizationDecider({});
}
