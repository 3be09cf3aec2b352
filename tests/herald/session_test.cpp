#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "herald/herald_error.hpp"
#include "platform/json.hpp"
#include "platform/system_log.hpp"
#include "session_support.hpp"

using session_support::Session;
using UserIds = std::vector<std::optional<std::string>>;

namespace {

// Every call a listener gets: which listener, the user id, and whether it ran on the main
// queue's thread.
struct Heard {
  std::mutex mutex;
  std::vector<std::string> calls;
  bool allOnMain = true;

  herald::HeraldAuthenticationListener::OnChange listener(std::string name) {
    return [this, name](std::optional<std::string> userId) {
      std::lock_guard lock(mutex);
      calls.push_back(name + ":" + userId.value_or("none"));
      allOnMain = allOnMain && platform::MainQueue::shared().isMainThread();
    };
  }
};

}  // namespace

TEST(Session, SignInStoresOnlyTheGivenFieldsAndASecondStoreOverTheFileReadsThem) {
  Session s;
  platform::CapturedLog log;
  s.await(s.herald->signIn("user-1", std::nullopt, "jwt-1", std::nullopt, true));

  // Another reader of the same file (as the next process would be) sees the whole record.
  platform::UserDefaults again(s.defaults.file());
  EXPECT_EQ(platform::toJSON(*again.object("herald_credentials")),
            R"({"herald_user_id":"user-1","herald_access_token":"jwt-1"})");
  EXPECT_EQ(s.herald->userId(), "user-1");
  EXPECT_EQ(s.herald->tenantId(), std::nullopt);
  EXPECT_TRUE(s.herald->isUserSignedIn());

  const auto messages = log.messages("HeraldSDK");
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.front(),
            "Signing user in\nUser Id: user-1\nTenant Id: Not set\nAccess Token: jwt-1\n"
            "Client Key: Not set");

  auto client = s.await(s.herald->client());
  ASSERT_TRUE(client);
  EXPECT_EQ(client->options.jwt, "jwt-1");
  // A fresh canonical upper-case UUID per sign-in.
  ASSERT_TRUE(client->options.connectionId);
  EXPECT_EQ(client->options.connectionId->size(), 36u);
  EXPECT_EQ(*client->options.connectionId,
            [&] { auto t = *client->options.connectionId; for (auto& c : t) c = std::toupper(c); return t; }());

  s.await(s.herald->signIn("user-1", "tenant-a", "jwt-2", "key-1", false));
  EXPECT_NE(s.await(s.herald->client())->options.connectionId, client->options.connectionId);
  EXPECT_EQ(platform::toJSON(*again.object("herald_credentials")),
            R"({"herald_user_id":"user-1","herald_access_token":"jwt-2",)"
            R"("herald_client_key":"key-1","herald_tenant_id":"tenant-a"})");
  EXPECT_EQ(s.herald->tenantId(), "tenant-a");
}

TEST(Session, ASignInOverASignInIsAFullSignOutFirstHeardOnTheMainQueueInOrder) {
  Session s;
  Heard heard;
  s.await(s.herald->addAuthenticationListener(heard.listener("first")));
  s.await(s.herald->addAuthenticationListener(heard.listener("second")));

  s.await(s.herald->signIn("alice", std::nullopt, "jwt-a"));
  s.await(s.herald->signIn("bob", std::nullopt, "jwt-b"));
  // Nothing runs inside the facade: every call waits for the main queue.
  {
    std::lock_guard lock(heard.mutex);
    EXPECT_TRUE(heard.calls.empty());
  }
  s.drainMainQueue();
  std::lock_guard lock(heard.mutex);
  EXPECT_EQ(heard.calls, (std::vector<std::string>{"first:alice", "second:alice", "first:none",
                                                    "second:none", "first:bob", "second:bob"}));
  EXPECT_TRUE(heard.allOnMain);
  EXPECT_EQ(s.herald->userId(), "bob");
}

TEST(Session, SignOutWithNobodySignedInChangesNothingAndSaysSoWithLogsOn) {
  Session s;
  Heard heard;
  auto listener = s.await(s.herald->addAuthenticationListener(heard.listener("l")));
  s.await(s.herald->signIn("alice", std::nullopt, "jwt-a", std::nullopt, true));
  s.drainMainQueue();

  // Another process signed out meanwhile: the store is empty but this facade still has a client.
  s.users.removeCredentials();
  s.defaults.set("unrelated", "kept");
  platform::CapturedLog log;
  s.await(s.herald->signOut());
  s.drainMainQueue();

  EXPECT_EQ(log.messages("HeraldSDK"),
            (std::vector<std::string>{
                "No user signed into Herald. A user must be signed in on order to sign out."}));
  EXPECT_EQ(platform::toJSON(s.defaults.dictionaryRepresentation()), R"({"unrelated":"kept"})");
  EXPECT_EQ(s.await(s.herald->client()), nullptr);
  std::lock_guard lock(heard.mutex);
  EXPECT_EQ(heard.calls, (std::vector<std::string>{"l:alice"}));
  // Removal is by identity, and the count is logged only through a client with logs on,
  // which is gone now.
  s.await(s.herald->removeAuthenticationListener(listener));
  EXPECT_EQ(log.messages("HeraldSDK").size(), 1u);
}

TEST(Session, ListenerBookkeepingIsLoggedWithTheCountAndNoListenersMeansNoMainQueueWork) {
  Session s;
  s.await(s.herald->signIn("alice", std::nullopt, "jwt-a"));
  EXPECT_EQ(s.drainMainQueue(), 0u);

  s.await(s.herald->signIn("alice", std::nullopt, "jwt-a", std::nullopt, true));
  platform::CapturedLog log;
  auto a = s.await(s.herald->addAuthenticationListener([](auto) {}));
  s.await(s.herald->addAuthenticationListener([](auto) {}));
  s.await(s.herald->removeAuthenticationListener(a));
  s.await(s.herald->removeAuthenticationListener(a));
  s.await(s.herald->removeAllAuthenticationListeners());
  EXPECT_EQ(log.messages("HeraldSDK"),
            (std::vector<std::string>{
                "Herald Authentication Listener Registered. Total Listeners: 1",
                "Herald Authentication Listener Registered. Total Listeners: 2",
                "Herald Authentication Listener Unregistered. Total Listeners: 1",
                "Herald Authentication Listener Unregistered. Total Listeners: 1",
                "Herald Authentication Listeners Removed. Total Listeners: 0"}));
}

TEST(Session, PaginationLimitIsClampedToOneToAHundred) {
  Session s;
  EXPECT_EQ(s.await(s.herald->inboxPaginationLimit()), 32);
  s.await(s.herald->setPaginationLimit(0));
  EXPECT_EQ(s.await(s.herald->inboxPaginationLimit()), 1);
  s.await(s.herald->setPaginationLimit(500));
  EXPECT_EQ(s.await(s.herald->inboxPaginationLimit()), 100);
  s.await(s.herald->setPaginationLimit(-1LL << 40));
  EXPECT_EQ(s.await(s.herald->inboxPaginationLimit()), 1);
}

TEST(Session, CredentialsThatCannotBeStoredLeaveTheUserSignedOutAndSaySo) {
  Session s;
  Heard heard;
  s.await(s.herald->addAuthenticationListener(heard.listener("l")));
  s.await(s.herald->setToken("expo", "e1"));
  // A folder where the store's lock file belongs: no change can be made, even by root.
  std::filesystem::create_directory(s.defaults.file().string() + ".lock");
  platform::CapturedLog log;
  s.await(s.herald->signIn("alice", std::nullopt, "jwt-a"));
  s.drainMainQueue();

  EXPECT_FALSE(s.herald->isUserSignedIn());
  EXPECT_EQ(s.await(s.herald->client()), nullptr);
  EXPECT_TRUE(s.server.requests().empty());
  std::lock_guard lock(heard.mutex);
  EXPECT_TRUE(heard.calls.empty());
  const auto records = log.records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.back().type, platform::LogType::error);
  EXPECT_NE(records.back().message.find("Could not store the credentials of alice"),
            std::string::npos);
}

TEST(Session, TheCompletionVariantsRunTheOperationsAndThenCallBack) {
  Session s;
  std::promise<void> signedIn, signedOut;
  s.herald->signIn("alice", std::nullopt, "jwt-a", std::nullopt, false,
                   [&] { signedIn.set_value(); });
  ASSERT_EQ(signedIn.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_EQ(s.herald->userId(), "alice");
  s.herald->signOut([&] { signedOut.set_value(); });
  ASSERT_EQ(signedOut.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_FALSE(s.herald->isUserSignedIn());
}

TEST(Session, TheFacadeGoesAwayWithItsLifeCycleObservers) {
  Session s;
  EXPECT_EQ(s.center.observerCount(platform::applicationDidBecomeActiveNotification), 1u);
  EXPECT_EQ(s.center.observerCount(platform::applicationDidEnterBackgroundNotification), 1u);
  s.center.post(platform::applicationDidBecomeActiveNotification);
  s.center.post(platform::applicationDidEnterBackgroundNotification);
  EXPECT_TRUE(platform::waitForIdle(std::chrono::seconds(5)));
  s.herald.reset();
  // A finished task's frame may let go of the facade a moment after the task was counted
  // done, on a pool thread: the last reference decides when the observers go. Both must be
  // gone before the center is, which the pool thread would otherwise still be changing.
  const auto observers = [&] {
    return s.center.observerCount(platform::applicationDidBecomeActiveNotification) +
           s.center.observerCount(platform::applicationDidEnterBackgroundNotification);
  };
  for (int i = 0; i < 500 && observers() != 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(observers(), 0u);
  // A notification after that finds nobody and does nothing.
  s.center.post(platform::applicationDidBecomeActiveNotification);
}
