// The live inbox against the local service: how it starts, what each change does here and on
// the wire, what the realtime socket brings, and how a refused change is undone.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "herald/endpoints.hpp"
#include "herald/herald.hpp"
#include "herald/inbox_client.hpp"
#include "herald/inbox_module.hpp"
#include "integration/processes.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "platform/main_queue.hpp"
#include "platform/notification_center.hpp"
#include "platform/paths.hpp"
#include "platform/user_defaults.hpp"

namespace {

using namespace integration;
namespace json = boost::json;
using herald::InboxMessageFeed;
using Clock = std::chrono::steady_clock;

std::string name(InboxMessageFeed feed) {
  return feed == InboxMessageFeed::feed ? "feed" : "archived";
}

// "m3{ro}": the id, then r, o, a for read, opened, archived.
std::string describe(const herald::InboxMessage& m) {
  std::string text = m.messageId + "{";
  if (m.isRead()) text += "r";
  if (m.isOpened()) text += "o";
  if (m.isArchived()) text += "a";
  return text + "}";
}

std::string describe(const herald::InboxMessageSet& set) {
  std::string text = "[";
  for (const auto& m : set.messages) text += (text.size() > 1 ? " " : "") + describe(*m);
  return text + "]";
}

// What one listener heard, a line per callback; touched on the main queue only, which the
// test's thread runs. The lines outlive the test: a callback posted late writes into them,
// not into a finished test's stack.
struct Heard {
  std::shared_ptr<std::vector<std::string>> heard = std::make_shared<std::vector<std::string>>();
  std::vector<std::string>& lines = *heard;
  /// Also "state live", "state reconnecting" ... (`onConnectionChanged`).
  bool states = false;

  herald::HeraldInboxListener::Callbacks callbacks() {
    auto add = [heard = heard](std::string line) { heard->push_back(std::move(line)); };
    auto message = [add](std::string what) {
      return [add, what](InboxMessageFeed feed, std::int64_t index,
                         const herald::InboxMessagePtr& m) {
        add(what + " " + name(feed) + " " + std::to_string(index) + " " + describe(*m));
      };
    };
    return {
        .onLoading = [add] { add("loading"); },
        .onError = [add](const herald::HeraldError& e) { add("error " + e.message); },
        .onUnreadCountChanged = [add](std::int64_t n) { add("count " + std::to_string(n)); },
        .onFeedChanged = [add](const herald::InboxMessageSet& s) { add("feed " + describe(s)); },
        .onArchiveChanged =
            [add](const herald::InboxMessageSet& s) { add("archive " + describe(s)); },
        .onPageAdded =
            [add](InboxMessageFeed feed, const herald::InboxMessageSet& page) {
              add("page " + name(feed) + " " + describe(page));
            },
        .onMessageChanged = message("changed"),
        .onMessageAdded = message("added"),
        .onMessageRemoved = message("removed"),
        .onConnectionChanged = states ? herald::HeraldInboxListener::OnConnectionChanged(
                                            [add](herald::InboxConnectionState state, double) {
                                              add("state " + std::string(toString(state)));
                                            })
                                      : nullptr,
    };
  }
  /// Runs the main queue until a line from `from` on is `line` (at most 10 s).
  bool waitForLine(const std::string& line, std::size_t from = 0) {
    return platform::MainQueue::shared().runUntil(
        [&] { return std::find(lines.begin() + from, lines.end(), line) != lines.end(); },
        std::chrono::seconds(10));
  }
  std::size_t count(const std::string& prefix, std::size_t from = 0) const {
    return static_cast<std::size_t>(std::count_if(
        lines.begin() + static_cast<std::ptrdiff_t>(from), lines.end(),
        [&](const std::string& l) { return l.starts_with(prefix); }));
  }
  /// Runs the main queue until `count` lines are in (at most 10 s).
  bool waitFor(std::size_t count) {
    return platform::MainQueue::shared().runUntil([&] { return lines.size() >= count; },
                                                  std::chrono::seconds(10));
  }
  /// The lines from `from` on.
  std::vector<std::string> since(std::size_t from) const {
    return {lines.begin() + static_cast<std::ptrdiff_t>(std::min(from, lines.size())),
            lines.end()};
  }
};

class InboxModuleTest : public ::testing::Test {
 protected:
  InboxModuleTest()
      : folder_(makeFolder()),
        defaults_(folder_ / "defaults.json"),
        users_(defaults_),
        herald_(herald::Herald::create(users_, center_)) {
    herald::Endpoints::setCurrent(herald::Endpoints::localService(sandbox_.url()));
  }
  ~InboxModuleTest() override {
    platform::blockOn(herald_->signOut());
    platform::waitForIdle(std::chrono::seconds(5));
    platform::MainQueue::shared().runFor(std::chrono::milliseconds(20));
    herald::Endpoints::setCurrent(std::nullopt);
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }

  static std::filesystem::path makeFolder() {
    std::string pattern = (platform::temporaryDirectory() / "herald-inbox-XXXXXX").string();
    return ::mkdtemp(pattern.data());
  }

  std::string url(const std::string& path) const { return sandbox_.url() + path; }
  std::string tokenFor(const std::string& user) const {
    const auto minted = call(url("/_sandbox/users/" + user + "/token"), "POST");
    EXPECT_EQ(minted.status, 200) << minted.body;
    return std::string(minted.object().at("jwt").as_string());
  }
  void signIn(const std::string& user) {
    platform::blockOn(herald_->signIn(user, std::nullopt, tokenFor(user), std::nullopt, false));
  }
  // Ada signed in with "one" and then "two" (the feed's first page holds "two"), one message
  // a page.
  std::pair<std::string, std::string> twoMessagesOneAPage() {
    platform::blockOn(herald_->setPaginationLimit(1));
    auto m1 = addMessage("ada", "one");
    auto m2 = addMessage("ada", "two");
    signIn("ada");
    return {std::move(m1), std::move(m2)};
  }
  std::string addMessage(const std::string& user, const std::string& title) const {
    const auto added = call(url("/_sandbox/users/" + user + "/messages"), "POST",
                            platform::toJSON(json::object{{"title", title}}));
    EXPECT_EQ(added.status, 200) << added.body;
    return std::string(added.object().at("messageId").as_string());
  }
  // Trouble for the next matching requests to the inbox's GraphQL endpoint.
  void trouble(json::object rule, const char* path = "/inbox/q") const {
    rule["path"] = path;
    const auto set = call(url("/_sandbox/trouble"), "POST", platform::toJSON(rule));
    ASSERT_EQ(set.status, 200) << set.body;
  }
  void clearJournal() const { call(url("/_sandbox/requests"), "DELETE"); }
  // The inbox requests of the journal: the GraphQL operation's first line, trimmed.
  std::vector<json::object> inboxRequests() const {
    std::vector<json::object> out;
    for (const auto& entry : sandbox_.journal()) {
      const auto& e = entry.as_object();
      if (e.at("path") == "/inbox/q") out.push_back(e);
    }
    return out;
  }
  static std::string queryOf(const json::object& entry) {
    const auto body = platform::parseJSON(std::string(entry.at("body").as_string()));
    return std::string(body.as_object().at("query").as_string());
  }
  std::vector<std::string> mutations() const {
    std::vector<std::string> out;
    for (const auto& e : inboxRequests()) {
      auto query = queryOf(e);
      if (query.find("mutation") == std::string::npos) continue;
      const auto start = query.find('{') + 1;
      query = query.substr(start, query.rfind('}') - start);
      query.erase(std::remove(query.begin(), query.end(), ' '), query.end());
      query.erase(std::remove(query.begin(), query.end(), '\n'), query.end());
      out.push_back(query);
    }
    return out;
  }
  // Bounded: until the service counts `n` subscribed connections.
  bool waitForSubscribed(std::size_t n) const {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (;;) {
      const auto all = call(url("/_sandbox/realtime")).object().at("connections").as_array();
      const auto subscribed = std::count_if(all.begin(), all.end(), [](const json::value& c) {
        return c.as_object().at("subscribed") == true;
      });
      if (static_cast<std::size_t>(subscribed) == n) return true;
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  // Ada signed in, `heard` given the first state (or, with states, told live), one socket.
  bool live(Heard& heard, bool states = false) {
    signIn("ada");
    heard.states = states;
    listen(heard);
    return (states ? heard.waitForLine("state live") : heard.waitFor(4)) && waitForSubscribed(1);
  }
  // Bounded: until `n` inbox requests are in flight (after a `clearJournal`).
  void waitForInboxRequests(std::size_t n) const {
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (inboxRequests().size() < n && Clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  herald::HeraldClient otherDevice() const {
    return {tokenFor("ada"), std::nullopt, "ada", "other-device", std::nullopt, false};
  }
  std::shared_ptr<herald::HeraldInboxListener> listen(Heard& heard) {
    return platform::blockOn(herald_->addInboxListener(heard.callbacks()));
  }
  /// A listener for `heard`, and the first state it is given (bounded).
  bool loaded(Heard& heard) {
    listen(heard);
    return heard.waitFor(4);
  }
  // Losses noticed and recovered from in a fraction of a second: back-off 300 ms (then 600,
  // 1200), no jitter, a dead peer noticed within 600 ms, an upgrade given up after 500 ms.
  void recoverQuickly() {
    auto options = connectionOptions(300ms, 1200ms, 0ms, 400ms, 500ms);
    options.jitter = [](double ceiling) { return ceiling; };
    platform::blockOn(herald_->inboxModule()->setOptions(options));
  }
  void order(const std::string& body) const {
    const auto done = call(url("/_sandbox/realtime/ada"), "POST", body);
    ASSERT_EQ(done.status, 200) << body << ": " << done.body;
  }
  void upgradeTrouble(json::object rule) const { trouble(std::move(rule), "/realtime/"); }
  // Every id of the state, feed then archive, and how often each is there.
  std::map<std::string, int> held() const {
    std::map<std::string, int> out;
    const auto state = platform::blockOn(herald_->inboxModule()->snapshot());
    if (!state) return out;
    for (const auto* set : {&state->feed, &state->archived})
      for (const auto& m : set->messages) ++out[m->messageId];
    return out;
  }
  std::vector<std::string> ids(const std::vector<herald::InboxMessagePtr>& messages) const {
    std::vector<std::string> out;
    for (const auto& m : messages) out.push_back(describe(*m));
    return out;
  }

  Sandbox sandbox_;
  std::filesystem::path folder_;
  platform::UserDefaults defaults_;
  herald::UserManager users_;
  platform::NotificationCenter center_;
  std::shared_ptr<herald::Herald> herald_;
};

using Lines = std::vector<std::string>;

TEST_F(InboxModuleTest, StartsWithThreeLoadsAtOnceThenTheSocketAndHandsTheStateToLateListeners) {
  EXPECT_EQ(platform::blockOn(herald_->inboxPaginationLimit()), 32);
  platform::blockOn(herald_->setPaginationLimit(500));
  EXPECT_EQ(platform::blockOn(herald_->inboxPaginationLimit()), 100);
  platform::blockOn(herald_->setPaginationLimit(0));
  EXPECT_EQ(platform::blockOn(herald_->inboxPaginationLimit()), 1);
  platform::blockOn(herald_->setPaginationLimit(2));

  addMessage("ada", "one");
  const auto m2 = addMessage("ada", "two");
  const auto m3 = addMessage("ada", "three");
  signIn("ada");
  clearJournal();
  trouble({{"delay", 0.3}, {"times", 3}});

  Heard first;
  listen(first);
  ASSERT_TRUE(first.waitFor(4));
  EXPECT_EQ(first.lines, (Lines{"loading", "feed [" + m3 + "{} " + m2 + "{}]", "archive []",
                                "count 3"}));
  // All three were received before the first was answered; the socket came after them.
  const auto loads = inboxRequests();
  ASSERT_EQ(loads.size(), 3u);
  double lastReceived = 0, firstAnswered = 1e300;
  for (const auto& load : loads) {
    lastReceived = std::max(lastReceived, load.at("received").to_number<double>());
    firstAnswered = std::min(firstAnswered, load.at("answered").to_number<double>());
  }
  EXPECT_LT(lastReceived, firstAnswered);
  ASSERT_TRUE(waitForSubscribed(1));
  const auto journal = sandbox_.journal();
  const auto upgrade = std::find_if(journal.begin(), journal.end(), [](const json::value& e) {
    return std::string_view(e.as_object().at("path").as_string()).starts_with("/realtime");
  });
  ASSERT_NE(upgrade, journal.end());
  EXPECT_GE(upgrade->as_object().at("received").to_number<double>(), firstAnswered);

  // A second listener is handed the state as it stands, without a request.
  clearJournal();
  Heard second;
  listen(second);
  ASSERT_TRUE(second.waitFor(4));
  EXPECT_EQ(second.lines, first.lines);
  EXPECT_TRUE(inboxRequests().empty());
  EXPECT_EQ(platform::blockOn(herald_->inboxModule()->listenerCount()), 2u);
}

TEST_F(InboxModuleTest, ListenerWithNobodySignedInHearsTheErrorStaysAndFollowsTheSession) {
  Heard heard;
  const auto listener = listen(heard);
  ASSERT_TRUE(heard.waitFor(2));
  EXPECT_EQ(heard.lines, (Lines{"loading", "error No user signed in"}));
  EXPECT_EQ(platform::blockOn(herald_->inboxModule()->listenerCount()), 1u);
  EXPECT_TRUE(platform::blockOn(herald_->feedMessages()).empty());
  EXPECT_THROW(platform::blockOn(herald_->readMessage("m1")), herald::HeraldError);

  // Signing in loads the inbox for the listener that waited.
  const auto id = addMessage("ada", "hello");
  signIn("ada");
  ASSERT_TRUE(heard.waitFor(6));
  EXPECT_EQ(heard.since(2), (Lines{"loading", "feed [" + id + "{}]", "archive []", "count 1"}));
  ASSERT_TRUE(waitForSubscribed(1));

  // Signing out closes the socket and drops the state; the listener stays.
  platform::blockOn(herald_->signOut());
  EXPECT_TRUE(waitForSubscribed(0));
  // A close of its own is no failure.
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(200));
  EXPECT_EQ(heard.lines.size(), 6u) << heard.lines.back();
  EXPECT_TRUE(platform::blockOn(herald_->feedMessages()).empty());
  EXPECT_EQ(platform::blockOn(herald_->inboxModule()->listenerCount()), 1u);
  platform::blockOn(listener->remove());
  EXPECT_EQ(platform::blockOn(herald_->inboxModule()->listenerCount()), 0u);
}

TEST_F(InboxModuleTest, EachOperationChangesTheStateHereAndSendsItsMutation) {
  const auto a = addMessage("ada", "a");
  const auto b = addMessage("ada", "b");
  const auto c = addMessage("ada", "c");
  signIn("ada");
  Heard heard;
  ASSERT_TRUE(loaded(heard));
  clearJournal();

  platform::blockOn(herald_->readMessage(b));
  platform::blockOn(herald_->readMessage(b));  // already read: no change here, still sent
  platform::blockOn(herald_->openMessage(b));
  platform::blockOn(herald_->unreadMessage(b));
  platform::blockOn(herald_->clickMessage(c));
  platform::blockOn(herald_->archiveMessage(c));  // unread: read on its way
  platform::blockOn(herald_->readMessage("nobody"));  // in neither list: nothing at all
  ASSERT_TRUE(heard.waitFor(4 + 9));
  EXPECT_EQ(heard.since(4), (Lines{
                                "changed feed 1 " + b + "{r}",
                                "count 2",
                                "changed feed 1 " + b + "{ro}",
                                "changed feed 1 " + b + "{o}",
                                "count 3",
                                "changed feed 0 " + c + "{r}",
                                "count 2",
                                "removed feed 0 " + c + "{r}",
                                "added archived 0 " + c + "{ra}",
                            }));
  const auto sent = mutations();
  ASSERT_EQ(sent.size(), 6u);
  EXPECT_EQ(sent[0], "read(messageId:\"" + b + "\")");
  EXPECT_EQ(sent[1], sent[0]);
  EXPECT_EQ(sent[2], "opened(messageId:\"" + b + "\")");
  EXPECT_EQ(sent[3], "unread(messageId:\"" + b + "\")");
  EXPECT_TRUE(sent[4].starts_with("clicked(messageId:\"" + c + "\",trackingId:\"")) << sent[4];
  EXPECT_EQ(sent[5], "archive(messageId:\"" + c + "\")");

  // Read-all marks both lists and the count.
  const auto before = heard.lines.size();
  platform::blockOn(herald_->readAllInboxMessages());
  ASSERT_TRUE(heard.waitFor(before + 3));
  EXPECT_EQ(heard.since(before),
            (Lines{"changed feed 0 " + b + "{ro}", "changed feed 1 " + a + "{r}", "count 0"}));
  EXPECT_EQ(mutations().back(), "markAllRead");
  EXPECT_EQ(ids(platform::blockOn(herald_->archivedMessages())), (Lines{c + "{ra}"}));
}

TEST_F(InboxModuleTest, SocketMessagesGoOnTopAndEventsFromAnotherDeviceAreAppliedAndEchoed) {
  const auto a = addMessage("ada", "a");
  Heard heard;
  ASSERT_TRUE(live(heard));

  const auto b = addMessage("ada", "b");
  ASSERT_TRUE(heard.waitFor(6));
  EXPECT_EQ(heard.since(4), (Lines{"added feed 0 " + b + "{}", "count 2"}));
  // A message that comes already read still counts as new.
  order(R"({"frame": {"type": "message", "messageId": "pushed", "read": "2026-01-01"}})");
  ASSERT_TRUE(heard.waitFor(8));
  EXPECT_EQ(heard.since(6), (Lines{"added feed 0 pushed{r}", "count 3"}));

  // Another device reads `a`: the event arrives, is applied here and told back to the
  // service from this device.
  clearJournal();
  auto other = otherDevice();
  platform::blockOn(other.inbox()->read(a));
  ASSERT_TRUE(heard.waitFor(10));
  EXPECT_EQ(heard.since(8), (Lines{"changed feed 2 " + a + "{r}", "count 2"}));
  platform::waitForIdle(std::chrono::seconds(5));
  std::vector<std::string> sources;
  for (const auto& entry : inboxRequests()) {
    for (const auto& header : entry.at("headers").as_array()) {
      if (header.as_array()[0] == "x-herald-client-source-id")
        sources.emplace_back(header.as_array()[1].as_string());
    }
  }
  ASSERT_EQ(sources.size(), 2u);
  EXPECT_EQ(sources[0], "other-device");
  EXPECT_NE(sources[1], "other-device");
  EXPECT_EQ(mutations(), (Lines(2, "read(messageId:\"" + a + "\")")));

  // The service closing the connection ends the live inbox: every listener hears of it.
  order(R"({"close": {"code": 4000, "reason": "maintenance"}})");
  ASSERT_TRUE(heard.waitFor(11));
  EXPECT_EQ(heard.lines[10], "error The service closed the realtime connection (4000, maintenance)");
}

TEST_F(InboxModuleTest, AFailedPageKeepsItsListFromPagingUntilTheInboxRestarts) {
  const auto [m1, m2] = twoMessagesOneAPage();
  Heard heard;
  ASSERT_TRUE(loaded(heard));
  EXPECT_EQ(heard.lines[1], "feed [" + m2 + "{}]");
  // Nothing is loaded in the archive, so it asks for nothing.
  EXPECT_TRUE(platform::blockOn(herald_->fetchNextInboxPage(InboxMessageFeed::archived)).empty());

  trouble({{"contains", "$after: String = "}, {"status", 503}});
  EXPECT_THROW(platform::blockOn(herald_->fetchNextInboxPage(InboxMessageFeed::feed)),
               herald::HeraldError);
  // The listeners hear of it too.
  ASSERT_TRUE(heard.waitFor(5));
  EXPECT_TRUE(heard.lines[4].starts_with("error ")) << heard.lines[4];
  clearJournal();
  EXPECT_TRUE(platform::blockOn(herald_->fetchNextInboxPage(InboxMessageFeed::feed)).empty());
  EXPECT_TRUE(inboxRequests().empty());

  platform::blockOn(herald_->refreshInbox());
  const auto page = platform::blockOn(herald_->fetchNextInboxPage(InboxMessageFeed::feed));
  EXPECT_EQ(ids(page), (Lines{m1 + "{}"}));
  ASSERT_TRUE(heard.waitFor(5 + 4 + 1));
  EXPECT_EQ(heard.lines.back(), "page feed [" + m1 + "{}]");
  EXPECT_EQ(ids(platform::blockOn(herald_->feedMessages())), (Lines{m2 + "{}", m1 + "{}"}));
}

TEST_F(InboxModuleTest, ARefusedChangeIsUndoneAndWhatArrivedMeanwhileStays) {
  const auto [m1, m2] = twoMessagesOneAPage();
  Heard heard;
  ASSERT_TRUE(loaded(heard));
  ASSERT_TRUE(waitForSubscribed(1));

  trouble({{"contains", "archive(messageId"}, {"delay", 0.5}, {"status", 500}});
  auto archiving = platform::spawnFuture(herald_->archiveMessage(m2));
  ASSERT_TRUE(heard.waitFor(8));
  EXPECT_EQ(heard.since(4), (Lines{"changed feed 0 " + m2 + "{r}", "count 1",
                                   "removed feed 0 " + m2 + "{r}",
                                   "added archived 0 " + m2 + "{ra}"}));
  // While the archive is on its way: an older page and a new message.
  EXPECT_EQ(ids(platform::blockOn(herald_->fetchNextInboxPage(InboxMessageFeed::feed))),
            (Lines{m1 + "{}"}));
  const auto m3 = addMessage("ada", "three");
  ASSERT_TRUE(heard.waitFor(11));

  ASSERT_EQ(archiving.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  try {
    archiving.get();
    ADD_FAILURE() << "the refusal was not thrown";
  } catch (const herald::HeraldError& e) {
    EXPECT_EQ(e.code, 500);
  }
  ASSERT_TRUE(heard.waitFor(14));
  EXPECT_EQ(heard.since(11), (Lines{"removed archived 0 " + m2 + "{ra}",
                                    "added feed 1 " + m2 + "{}", "count 3"}));
  EXPECT_EQ(ids(platform::blockOn(herald_->feedMessages())),
            (Lines{m3 + "{}", m2 + "{}", m1 + "{}"}));
  EXPECT_TRUE(platform::blockOn(herald_->archivedMessages()).empty());
}

// Many changes, pages and socket events at once: every message ends up exactly once, and
// under ThreadSanitizer nothing races.
TEST_F(InboxModuleTest, ManyOperationsAndSocketEventsAtOnce) {
  platform::blockOn(herald_->setPaginationLimit(5));
  std::vector<std::string> all;
  for (int i = 0; i < 12; ++i) all.push_back(addMessage("ada", "m" + std::to_string(i)));
  Heard heard;
  ASSERT_TRUE(live(heard));
  auto other = otherDevice();

  std::vector<std::future<void>> work;
  const auto spawn = [&](auto task) { work.push_back(std::async(std::launch::async, task)); };
  spawn([&] {
    for (int i = 0; i < 24; ++i) {
      const auto& id = all[static_cast<std::size_t>(i) % all.size()];
      try {
        if (i % 3 == 0) platform::blockOn(herald_->readMessage(id));
        if (i % 3 == 1) platform::blockOn(herald_->openMessage(id));
        if (i % 3 == 2) platform::blockOn(herald_->unreadMessage(id));
      } catch (const herald::HeraldError&) {
      }
    }
  });
  spawn([&] {
    for (std::size_t i = 0; i < all.size(); i += 4) platform::blockOn(herald_->archiveMessage(all[i]));
  });
  spawn([&] {
    for (int i = 0; i < 6; ++i) addMessage("ada", "late" + std::to_string(i));
  });
  spawn([&] {
    for (std::size_t i = 1; i < all.size(); i += 3) platform::blockOn(other.inbox()->read(all[i]));
    platform::blockOn(other.inbox()->readAll());
  });
  spawn([&] {
    for (int i = 0; i < 4; ++i) {
      platform::blockOn(herald_->fetchNextInboxPage(InboxMessageFeed::feed));
      platform::blockOn(herald_->fetchNextInboxPage(InboxMessageFeed::archived));
    }
  });
  const auto done = [&] {
    return std::all_of(work.begin(), work.end(), [](auto& f) {
      return f.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    });
  };
  ASSERT_TRUE(platform::MainQueue::shared().runUntil(done, std::chrono::seconds(60)));
  for (auto& f : work) f.get();
  platform::waitForIdle(std::chrono::seconds(10));
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(50));

  const auto state = platform::blockOn(herald_->inboxModule()->snapshot());
  ASSERT_TRUE(state);
  std::multiset<std::string> seen;
  for (const auto* set : {&state->feed, &state->archived})
    for (const auto& m : set->messages) seen.insert(m->messageId);
  for (const auto& id : seen) EXPECT_EQ(seen.count(id), 1u) << id;
  EXPECT_GE(state->unreadCount, 0);
}

// ---- staying live ----------------------------------------------------------------------------

TEST_F(InboxModuleTest, EveryKindOfLossIsHeardOnceAndTheInboxComesBackWithWhatItMissed) {
  recoverQuickly();
  const auto first = addMessage("ada", "first");
  Heard heard;
  ASSERT_TRUE(live(heard, true));

  std::map<std::string, int> expected{{first, 1}};
  for (const std::string loss : {R"({"reset": true})", R"({"close": {"code": 4000}})",
                                 R"({"close": {"code": 1001}})", R"({"end": true})",
                                 R"({"stall": true})"}) {
    SCOPED_TRACE(loss);
    const auto from = heard.lines.size();
    order(loss);
    ASSERT_TRUE(heard.waitForLine("state reconnecting", from));
    // Posted while nothing listens: the restart's load brings it.
    ++expected[addMessage("ada", "missed")];
    ASSERT_TRUE(heard.waitForLine("state live", from));
    EXPECT_EQ(heard.count("error ", from), 1u);
    EXPECT_EQ(held(), expected);
    ASSERT_TRUE(waitForSubscribed(1));
  }
  // Live again for real: a new message comes over the socket, once.
  const auto from = heard.lines.size();
  ++expected[addMessage("ada", "after")];
  ASSERT_TRUE(heard.waitFor(from + 2));
  EXPECT_EQ(held(), expected);
  EXPECT_EQ(platform::blockOn(herald_->inboxModule()->snapshot())->unreadCount, 7);
}

TEST_F(InboxModuleTest, RefusedOrUnansweredRestartsTryAgainAndRefusedCredentialsGoOffline) {
  recoverQuickly();
  Heard heard;
  ASSERT_TRUE(live(heard, true));

  // Two refused upgrades, then one left unanswered past the handshake limit.
  upgradeTrouble({{"status", 503}, {"times", 2}});
  upgradeTrouble({{"delay", 2}, {"times", 1}});
  auto from = heard.lines.size();
  order(R"({"reset": true})");
  ASSERT_TRUE(heard.waitForLine("state live", from));
  EXPECT_EQ(heard.count("state reconnecting", from), 4u);
  EXPECT_EQ(heard.count("error ", from), 1u);

  // Credentials the service refuses do not get better by asking again.
  upgradeTrouble({{"status", 401}, {"times", 1}});
  from = heard.lines.size();
  order(R"({"end": true})");
  ASSERT_TRUE(heard.waitForLine("state offline", from));
  EXPECT_EQ(heard.count("error ", from), 2u);  // the loss, then the refusal
  clearJournal();
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(700));
  EXPECT_TRUE(sandbox_.journal().empty());
  from = heard.lines.size();
  platform::blockOn(herald_->refreshInbox());
  ASSERT_TRUE(heard.waitForLine("state live", from));
}

TEST_F(InboxModuleTest, ABurstOfEventsIsAppliedInOrderAndTheLastOneStandsHereAndOnTheService) {
  const auto a = addMessage("ada", "a");
  Heard heard;
  ASSERT_TRUE(live(heard));
  clearJournal();
  Lines sent;
  for (int i = 0; i < 8; ++i) {
    const std::string event = i % 2 == 0 ? "read" : "unread";
    order(platform::toJSON(json::object{
        {"frame", json::object{{"type", "event"}, {"event", event}, {"messageId", a}}}}));
    sent.push_back(event + "(messageId:\"" + a + "\")");
  }
  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (mutations().size() < sent.size() && Clock::now() < deadline) {
    platform::waitForIdle(std::chrono::seconds(1));
    platform::MainQueue::shared().runFor(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(mutations(), sent);
  EXPECT_EQ(ids(platform::blockOn(herald_->feedMessages())), (Lines{a + "{}"}));
  auto other = otherDevice();
  const auto service = platform::blockOn(other.inbox()->getMessages(10, std::nullopt));
  EXPECT_EQ(describe(herald::InboxMessageSet::fromData(service.data.value_or(herald::InboxData{}))),
            "[" + a + "{}]");
}

TEST_F(InboxModuleTest, SignOutDuringAStalledReloadReturnsAtOnceAndTheLateAnswerChangesNothing) {
  addMessage("ada", "a");
  signIn("ada");
  Heard heard;
  ASSERT_TRUE(loaded(heard));
  clearJournal();
  trouble({{"delay", 1.5}, {"times", 3}});
  auto reload = platform::spawnFuture(herald_->refreshInbox());
  waitForInboxRequests(3);

  const auto started = Clock::now();
  platform::blockOn(herald_->signOut());
  // Generous for a loaded machine; the wait it replaces was the 1.5 s answer.
  EXPECT_LT(Clock::now() - started, std::chrono::milliseconds(500));
  EXPECT_EQ(reload.wait_for(std::chrono::seconds(1)), std::future_status::ready);
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(100));
  const auto heardAtSignOut = heard.lines.size();
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(1800));
  EXPECT_EQ(heard.lines.size(), heardAtSignOut);
  EXPECT_FALSE(platform::blockOn(herald_->inboxModule()->snapshot()));
}

TEST_F(InboxModuleTest, AMessageThatArrivesWhileTheInboxReloadsIsThereOnce) {
  const auto n1 = addMessage("ada", "n1");
  Heard heard;
  ASSERT_TRUE(live(heard));
  clearJournal();
  trouble({{"delay", 0.5}, {"times", 3}});
  auto reload = platform::spawnFuture(herald_->refreshInbox());
  waitForInboxRequests(3);
  const auto n2 = addMessage("ada", "n2");
  ASSERT_EQ(reload.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(300));
  EXPECT_EQ(ids(platform::blockOn(herald_->feedMessages())), (Lines{n2 + "{}", n1 + "{}"}));
  EXPECT_EQ(platform::blockOn(herald_->inboxModule()->snapshot())->unreadCount, 2);
}

TEST_F(InboxModuleTest, AServiceKilledAndStartedAgainOnTheSamePortIsReconnectedTo) {
  Sandbox own({"--jwt-secret", "a secret that outlives the process"});
  herald::Endpoints::setCurrent(herald::Endpoints::localService(own.url()));
  recoverQuickly();
  const auto token = call(own.url() + "/_sandbox/users/ada/token", "POST");
  ASSERT_EQ(token.status, 200);
  platform::blockOn(herald_->signIn("ada", std::nullopt,
                                    std::string(token.object().at("jwt").as_string()),
                                    std::nullopt, false));
  Heard heard;
  heard.states = true;
  listen(heard);
  ASSERT_TRUE(heard.waitForLine("state live"));

  const auto from = heard.lines.size();
  own.killAndStartAgain();
  ASSERT_TRUE(heard.waitForLine("state reconnecting", from));
  const auto posted = call(own.url() + "/_sandbox/users/ada/messages", "POST", R"({"title": "back"})");
  ASSERT_EQ(posted.status, 200);
  const std::string id(posted.object().at("messageId").as_string());
  ASSERT_TRUE(heard.waitForLine("state live", from));
  EXPECT_EQ(heard.count("error ", from), 1u);
  EXPECT_EQ(held(), (std::map<std::string, int>{{id, 1}}));
}

TEST_F(InboxModuleTest, AChangeInFlightSurvivesARestartAndItsRefusalIsUndoneThere) {
  const auto m1 = addMessage("ada", "one");
  signIn("ada");
  Heard heard;
  ASSERT_TRUE(loaded(heard));
  trouble({{"contains", "archive(messageId"}, {"delay", 1.0}, {"status", 500}});
  auto archiving = platform::spawnFuture(herald_->archiveMessage(m1));
  ASSERT_TRUE(heard.waitFor(8));
  // The reload still has it in the feed on the service: the change is made on it again.
  platform::blockOn(herald_->refreshInbox());
  EXPECT_TRUE(platform::blockOn(herald_->feedMessages()).empty());
  EXPECT_EQ(ids(platform::blockOn(herald_->archivedMessages())), (Lines{m1 + "{ra}"}));
  ASSERT_EQ(archiving.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_THROW(archiving.get(), herald::HeraldError);
  EXPECT_EQ(ids(platform::blockOn(herald_->feedMessages())), (Lines{m1 + "{}"}));
  EXPECT_TRUE(platform::blockOn(herald_->archivedMessages()).empty());
  EXPECT_EQ(platform::blockOn(herald_->inboxModule()->snapshot())->unreadCount, 1);
}

}  // namespace
