#include "herald/notification_service_extension.hpp"

#include <gtest/gtest.h>

#include <future>
#include <mutex>

#include "platform/executor.hpp"
#include "support/http_server.hpp"

using testing_support::HttpServer;
using testing_support::ScriptedResponse;
using namespace std::chrono_literals;

namespace {

// What the handler saw, and how many requests the server had seen at each call.
struct Deliveries {
  std::mutex mutex;
  std::vector<std::pair<platform::NotificationContent, std::size_t>> calls;

  platform::ContentHandler handler(const HttpServer& server) {
    return [this, &server](const platform::NotificationContent& content) {
      std::lock_guard lock(mutex);
      calls.emplace_back(content, server.requests().size());
    };
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return calls.size();
  }
};

platform::NotificationRequest request(boost::json::object userInfo, bool copyable = true) {
  platform::MutableNotificationContent content;
  content.title = "Ada";
  content.body = "sent you a photo";
  content.userInfo = std::move(userInfo);
  content.copyable = copyable;
  return {"n-1", content.copy()};
}

}  // namespace

TEST(DeliveryTrackingExtension, ReportsDeliveryOnceAndThenHandsTheContentBackUnchanged) {
  HttpServer server([](const auto&) { return ScriptedResponse{200}; });
  Deliveries deliveries;
  herald::HeraldNotificationServiceExtension extension;
  const boost::json::object userInfo{{"trackingUrl", server.baseURL() + "/track/1"}, {"a", 1}};

  extension.didReceive(request(userInfo), deliveries.handler(server));
  ASSERT_TRUE(platform::waitForIdle(5s));
  extension.didReceive(request({{"a", 1}}), deliveries.handler(server));
  ASSERT_TRUE(platform::waitForIdle(5s));

  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].body, R"({"event":"DELIVERED"})");
  ASSERT_EQ(deliveries.count(), 2u);
  EXPECT_EQ(deliveries.calls[0].second, 1u);  // the report was made before the handler ran
  EXPECT_EQ(deliveries.calls[0].first.userInfo, userInfo);
  EXPECT_EQ(deliveries.calls[1].first.body, "sent you a photo");
}

TEST(DeliveryTrackingExtension, TheDeadlineDeliversAndTheSlowReportDeliversAgain) {
  std::promise<void> release;
  auto released = release.get_future().share();
  HttpServer server([released](const auto&) {
    released.wait_for(5s);
    return ScriptedResponse{500};
  });
  Deliveries deliveries;
  herald::HeraldNotificationServiceExtension extension;

  extension.didReceive(request({{"trackingUrl", server.baseURL() + "/track/1"}}),
                       deliveries.handler(server));
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_EQ(deliveries.count(), 0u);

  extension.serviceExtensionTimeWillExpire();
  EXPECT_EQ(deliveries.count(), 1u);

  release.set_value();
  ASSERT_TRUE(platform::waitForIdle(5s));
  ASSERT_EQ(deliveries.count(), 2u);
  EXPECT_EQ(deliveries.calls[1].first.title, "Ada");
}

TEST(DeliveryTrackingExtension, ContentThatCannotBeCopiedIsNeverDelivered) {
  HttpServer server;
  Deliveries deliveries;
  herald::HeraldNotificationServiceExtension extension;

  extension.serviceExtensionTimeWillExpire();  // before anything arrived: nothing to hand back
  extension.didReceive(request({{"trackingUrl", server.baseURL() + "/track/1"}}, false),
                       deliveries.handler(server));
  ASSERT_TRUE(platform::waitForIdle(5s));
  extension.serviceExtensionTimeWillExpire();

  EXPECT_EQ(deliveries.count(), 0u);
  EXPECT_TRUE(server.requests().empty());
}
