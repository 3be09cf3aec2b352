#include "herald/tracking.hpp"

#include <gtest/gtest.h>

#include <boost/json/value_from.hpp>
#include <boost/json/value_to.hpp>
#include <future>

#include "platform/executor.hpp"
#include "support/http_server.hpp"

using herald::HeraldError;
using herald::HeraldTrackingEvent;
using testing_support::HttpServer;
using testing_support::ScriptedResponse;
using namespace std::chrono_literals;

TEST(Tracking, ADeliveredReportIsOnePostWithTheEventAndNoCredentials) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, R"({"ok":true})"}; });
  boost::json::object userInfo{{"trackingUrl", server.baseURL() + "/track/m-1?r=2"}, {"other", 1}};

  platform::blockOn(herald::trackMessage(userInfo, HeraldTrackingEvent::delivered));

  ASSERT_EQ(server.requests().size(), 1u);
  const auto seen = server.requests()[0];
  EXPECT_EQ(seen.method, "POST");
  EXPECT_EQ(seen.target, "/track/m-1?r=2");
  EXPECT_EQ(seen.body, R"({"event":"DELIVERED"})");
  const std::vector<std::pair<std::string, std::string>> expected{
      {"Host", "127.0.0.1:" + std::to_string(server.port())},
      {"User-Agent", "herald-ios/5.5.5"},
      {"Content-Type", "application/json"},
      {"Content-Length", "21"}};
  EXPECT_EQ(seen.headers, expected);
}

TEST(Tracking, AnEndlessAnswerIsCutAfterItsStatus) {
  HttpServer server([](const auto&) { return ScriptedResponse{.endless = true}; });
  const std::string url = server.baseURL() + "/track/m-1";
  EXPECT_NO_THROW(
      platform::blockOn(herald::HeraldClient::defaultClient()->tracking()->postTrackingUrl(
          url, HeraldTrackingEvent::delivered)));
  EXPECT_NO_THROW(platform::blockOn(herald::trackMessage(
      boost::json::object{{"trackingUrl", "file:///dev/zero"}}, HeraldTrackingEvent::delivered)));
  EXPECT_EQ(server.requests().size(), 1u);
}

TEST(Tracking, WithoutAStringTrackingUrlNothingIsSent) {
  HttpServer server;
  for (const boost::json::object& userInfo :
       {boost::json::object{{"trackingUrl", 42}}, boost::json::object{{"url", server.baseURL()}}}) {
    platform::blockOn(herald::trackMessage(userInfo, HeraldTrackingEvent::clicked));
    // The completion runs before the call returns: no task is started.
    bool completed = false;
    herald::trackMessage(userInfo, HeraldTrackingEvent::clicked, [&](auto error) {
      EXPECT_FALSE(error);
      completed = true;
    });
    EXPECT_TRUE(completed);
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST(Tracking, OnlyA200CountsButTheNotificationHelpersNeverThrow) {
  HttpServer server([](const auto&) { return ScriptedResponse{204}; });
  const std::string url = server.baseURL() + "/track/m-1";
  auto tracking = herald::HeraldClient::defaultClient()->tracking();

  try {
    platform::blockOn(tracking->postTrackingUrl(url, HeraldTrackingEvent::opened));
    ADD_FAILURE() << "a 204 was accepted";
  } catch (const HeraldError& e) {
    EXPECT_EQ(e, HeraldError(204, "Unknown Error"));
  }
  EXPECT_NO_THROW(platform::blockOn(
      herald::trackMessage(boost::json::object{{"trackingUrl", url}}, HeraldTrackingEvent::read)));
  EXPECT_NO_THROW(platform::blockOn(herald::track("not a url", HeraldTrackingEvent::read)));
  ASSERT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(server.requests()[1].body, R"({"event":"READ"})");
}

TEST(Tracking, TheCompletionVariantRunsAsACountedTaskAndHandsOverTheError) {
  std::promise<void> release;
  auto released = release.get_future().share();
  HttpServer server([released](const auto&) {
    released.wait_for(5s);
    return ScriptedResponse{500, {}, R"({"message":"storage down","type":"api_error"})"};
  });
  std::promise<std::optional<HeraldError>> result;

  herald::trackMessage(boost::json::object{{"trackingUrl", server.baseURL() + "/t"}},
                       HeraldTrackingEvent::unread,
                       [&](std::optional<HeraldError> error) { result.set_value(error); });

  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_GE(platform::runningTasks(), 1u);
  release.set_value();
  auto future = result.get_future();
  ASSERT_EQ(future.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(future.get(), HeraldError(500, "storage down", "api_error"));
  EXPECT_EQ(server.requests()[0].body, R"({"event":"UNREAD"})");
  EXPECT_TRUE(platform::waitForIdle(5s));
}

TEST(Tracking, EventsParseOnlyFromTheirExactWireValuesAndIdsRoundTrip) {
  EXPECT_EQ(herald::trackingEventFromString("UNREAD"), HeraldTrackingEvent::unread);
  EXPECT_FALSE(herald::trackingEventFromString("delivered"));

  const auto ids = boost::json::value_to<herald::HeraldTrackingIds>(
      boost::json::value{{"openTrackingId", "o-1"}, {"readTrackingId", nullptr}});
  EXPECT_EQ(ids, (herald::HeraldTrackingIds{.openTrackingId = "o-1"}));
  EXPECT_EQ(boost::json::value_from(ids), (boost::json::value{{"openTrackingId", "o-1"}}));
  EXPECT_THROW(herald::HeraldTrackingIds::fromJSON(boost::json::value{{"clickTrackingId", 7}}),
               std::invalid_argument);
}
