// Minutes of a connection dropped at random every few seconds while messages arrive at 20 a
// second: afterwards the live inbox's feed is the service's, with no message twice and none
// missing, and its unread count is the service's.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "herald/endpoints.hpp"
#include "herald/herald.hpp"
#include "herald/inbox_client.hpp"
#include "integration/processes.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "platform/main_queue.hpp"
#include "platform/notification_center.hpp"
#include "platform/paths.hpp"
#include "platform/user_defaults.hpp"

namespace {

using namespace integration;
using Clock = std::chrono::steady_clock;

std::chrono::seconds soakLength() {
  const char* given = std::getenv("HERALD_SOAK_SECONDS");
  return std::chrono::seconds(given ? std::atoi(given) : 300);
}

TEST(LiveInboxSoak, DroppedAtRandomWhileMessagesArriveTheFeedEndsAsTheServicesFeed) {
  Sandbox sandbox;
  herald::Endpoints::setCurrent(herald::Endpoints::localService(sandbox.url()));
  std::string pattern = (platform::temporaryDirectory() / "herald-soak-XXXXXX").string();
  const std::filesystem::path folder = ::mkdtemp(pattern.data());
  platform::UserDefaults defaults(folder / "defaults.json");
  herald::UserManager users(defaults);
  platform::NotificationCenter center;
  const auto herald = herald::Herald::create(users, center);

  platform::blockOn(
      herald->inboxModule()->setOptions(connectionOptions(100ms, 2s, 1s, 1s, 1s)));
  platform::blockOn(herald->setPaginationLimit(100));
  const auto jwt = std::string(
      call(sandbox.url() + "/_sandbox/users/ada/token", "POST").object().at("jwt").as_string());
  platform::blockOn(herald->signIn("ada", std::nullopt, jwt, std::nullopt, false));
  int errors = 0, live = 0;
  const auto listener = platform::blockOn(herald->addInboxListener({
      .onError = [&](const herald::HeraldError&) { ++errors; },
      .onConnectionChanged =
          [&](herald::InboxConnectionState state, double) {
            if (state == herald::InboxConnectionState::live) ++live;
          },
  }));

  std::atomic<bool> stopping{false};
  std::atomic<int> posted{0}, drops{0};
  std::thread poster([&] {
    auto next = Clock::now();
    while (!stopping) {
      call(sandbox.url() + "/_sandbox/users/ada/messages", "POST",
           R"({"title": "soak )" + std::to_string(posted) + "\"}");
      ++posted;
      next += std::chrono::milliseconds(50);
      std::this_thread::sleep_until(next);
    }
  });
  std::thread dropper([&] {
    std::mt19937 random(std::random_device{}());
    const std::vector<std::string> losses{R"({"reset": true})", R"({"end": true})",
                                          R"({"close": {"code": 4000}})",
                                          R"({"close": {"code": 1001}})", R"({"stall": true})"};
    while (!stopping) {
      const auto wait = std::chrono::milliseconds(2000 + random() % 3000);
      for (auto until = Clock::now() + wait; !stopping && Clock::now() < until;)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      if (stopping) break;
      // 404 while no connection is subscribed (a restart under way): nothing to drop.
      if (call(sandbox.url() + "/_sandbox/realtime/ada", "POST",
               losses[random() % losses.size()])
              .status == 200)
        ++drops;
    }
  });
  platform::MainQueue::shared().runFor(soakLength());
  stopping = true;
  poster.join();
  dropper.join();

  // Live again, and every frame in.
  const auto module = herald->inboxModule();
  ASSERT_TRUE(platform::MainQueue::shared().runUntil(
      [&] {
        return platform::blockOn(module->connectionState()) ==
               herald::InboxConnectionState::live;
      },
      std::chrono::seconds(30)));
  platform::MainQueue::shared().runFor(std::chrono::seconds(2));

  const auto state = platform::blockOn(module->snapshot());
  ASSERT_TRUE(state);
  std::vector<std::string> ours;
  for (const auto& m : state->feed.messages) ours.push_back(m->messageId);
  EXPECT_EQ(std::set<std::string>(ours.begin(), ours.end()).size(), ours.size());

  herald::HeraldClient reader(jwt, std::nullopt, "ada", "soak-reader", std::nullopt, false);
  std::vector<std::string> theirs;
  std::optional<std::string> cursor;
  while (theirs.size() < ours.size()) {
    const auto page = herald::InboxMessageSet::fromData(
        platform::blockOn(reader.inbox()->getMessages(100, cursor)).data.value_or(
            herald::InboxData{}));
    for (const auto& m : page.messages) theirs.push_back(m->messageId);
    if (!page.canPaginate || page.messages.empty()) break;
    cursor = page.paginationCursor;
  }
  theirs.resize(std::min(theirs.size(), ours.size()));
  EXPECT_EQ(ours, theirs);
  EXPECT_EQ(state->unreadCount, platform::blockOn(reader.inbox()->getUnreadMessageCount()));
  EXPECT_EQ(errors, live - 1) << "one error per loss, each followed by a return to live";
  EXPECT_GT(drops.load(), 0);
  std::printf("soak: %d messages, %d drops, %d losses heard, %zu held\n", posted.load(),
              drops.load(), errors, ours.size());

  platform::blockOn(herald->removeInboxListener(listener));
  platform::blockOn(herald->signOut());
  platform::waitForIdle(std::chrono::seconds(5));
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(20));
  herald::Endpoints::setCurrent(std::nullopt);
  std::filesystem::remove_all(folder);
}

}  // namespace
