// herald inbox watch (the live inbox) against the sandbox, driven through its standard input
// as a person or a script would, and the one-shot inbox commands that go through the same
// live inbox.

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/json.hpp>
#include <csignal>
#include <filesystem>
#include <functional>
#include <thread>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"

namespace {

using namespace integration;
namespace json = boost::json;
using Clock = std::chrono::steady_clock;

class LiveInbox : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform::temporaryDirectory() / ("herald-watch-test-" + platform::newUUID());
    std::filesystem::create_directories(dir_);
    jwt_ = std::string(
        call(sandbox_.url() + "/_sandbox/users/ada/token", "POST").object().at("jwt").as_string());
    const auto f = run(herald({"signin", "--user", "ada", "--jwt", jwt_}));
    ASSERT_EQ(f.exitCode, 0) << f.err;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::vector<std::string> herald(const std::vector<std::string>& args) const {
    std::vector<std::string> argv{program("herald"), "--config-dir", (dir_ / "config").string(),
                                  "--endpoint", sandbox_.url()};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }

  std::string addMessage(const std::string& title) const {
    const auto answer = call(sandbox_.url() + "/_sandbox/users/ada/messages", "POST",
                             platform::toJSON(json::object{{"title", title}}));
    EXPECT_EQ(answer.status, 200) << answer.body;
    return std::string(answer.object().at("messageId").as_string());
  }

  // Another device of ada's: a mutation sent with a client source id of its own.
  Answer fromOtherDevice(const std::string& field, const std::string& id) const {
    const std::string query = "mutation TrackEvent { " + field + "(messageId: \"" + id + "\") }";
    return call(sandbox_.url() + "/inbox/q", "POST",
                platform::toJSON(json::object{{"query", query}, {"variables", "{}"}}),
                {{"x-herald-user-id", "ada"},
                 {"Authorization", "Bearer " + jwt_},
                 {"x-herald-client-source-id", "other-device"}});
  }

  // The inbox mutations the service received: (client source id, body).
  std::vector<std::pair<std::string, std::string>> mutations() const {
    std::vector<std::pair<std::string, std::string>> result;
    for (const auto& entry : sandbox_.journal()) {
      if (entry.at("path") != "/inbox/q") continue;
      const std::string body(entry.at("body").as_string());
      if (body.find("mutation") == std::string::npos) continue;
      std::string source;
      for (const auto& header : entry.at("headers").as_array())
        if (header.at(0) == "x-herald-client-source-id") source = header.at(1).as_string();
      result.emplace_back(source, body);
    }
    return result;
  }

  std::filesystem::path dir_;
  std::string jwt_;
  Sandbox sandbox_;
};

// The JSON lines of a running watch, read as they come: `next` waits (bounded) for the next
// line that `matches`, and keeps the lines it passed over for a look at the order.
class Lines {
 public:
  explicit Lines(const Background& watch) : watch_(watch) {}

  std::optional<json::object> next(const std::function<bool(const json::object&)>& matches,
                                   std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = Clock::now() + limit;
    while (true) {
      const auto all = lines(watch_.out());
      for (; read_ < all.size(); ++read_) {
        if (all[read_].front() != '{') continue;  // the module's registry lines
        const auto line = platform::parseJSON(all[read_]).as_object();
        passed_.push_back(line);
        if (matches(line)) {
          ++read_;
          return line;
        }
      }
      if (Clock::now() >= deadline) return std::nullopt;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  std::optional<json::object> callback(const std::string& name) {
    return next([&](const json::object& l) { return l.contains("callback") && l.at("callback").as_string() == std::string_view(name); });
  }
  std::optional<json::object> command(const std::string& text) {
    return next([&](const json::object& l) { return l.contains("command") && l.at("command").as_string() == std::string_view(text); });
  }
  // The callbacks named in the lines passed since the last call, in order.
  std::vector<std::string> takePassed() {
    std::vector<std::string> names;
    for (const auto& line : passed_) {
      std::string name(line.contains("callback") ? line.at("callback").as_string()
                                                 : line.at("command").as_string());
      if (line.contains("feed")) name += " " + std::string(line.at("feed").as_string());
      if (line.contains("state")) name = "state " + std::string(line.at("state").as_string());
      names.push_back(name);
    }
    passed_.clear();
    return names;
  }

 private:
  const Background& watch_;
  std::size_t read_ = 0;
  std::vector<json::object> passed_;
};

using Names = std::vector<std::string>;

TEST_F(LiveInbox, WatchShowsEveryChangeAndRunsTheCommandsOfItsInput) {
  const auto older = addMessage("Older");
  const auto newer = addMessage("Newer");
  Background watch(herald({"inbox", "watch"}), /*withInput=*/true);
  Lines out(watch);

  // The first state, in the order a screen gets it.
  const auto count = out.callback("onUnreadCountChanged");
  ASSERT_TRUE(count) << watch.out() << watch.err();
  EXPECT_EQ(count->at("count"), 2);
  EXPECT_EQ(out.takePassed(), (Names{"onLoading", "state connecting", "onFeedChanged",
                                     "onArchiveChanged", "onUnreadCountChanged"}));
  // Registered, and live: the socket is subscribed before the state is handed over.
  ASSERT_TRUE(watch.waitForOutput("Herald Inbox Listener Registered. Total Listeners: 1"));

  // A new message arrives at the top of the feed, the count one higher.
  const auto live = addMessage("Live");
  const auto added = out.callback("onMessageAdded");
  ASSERT_TRUE(added) << watch.out();
  EXPECT_EQ(added->at("feed"), "feed");
  EXPECT_EQ(added->at("index"), 0);
  EXPECT_EQ(added->at("message").at("messageId").as_string(), live);
  EXPECT_EQ(out.callback("onUnreadCountChanged")->at("count"), 3);
  out.takePassed();

  // Archiving an unread message reads it first, then moves it to the top of the archive;
  // "ok" follows what the change did, and the service has the mutation.
  ASSERT_TRUE(watch.write("archive " + older + "\n"));
  const auto archived = out.command("archive " + older);
  ASSERT_TRUE(archived) << watch.out();
  EXPECT_TRUE(archived->at("ok").as_bool());
  EXPECT_EQ(out.takePassed(),
            (Names{"onMessageChanged feed", "onUnreadCountChanged", "onMessageRemoved feed",
                   "onMessageAdded archived", "archive " + older}));
  ASSERT_FALSE(mutations().empty());
  EXPECT_NE(mutations().back().second.find("archive(messageId: \\\"" + older), std::string::npos)
      << mutations().back().second;

  // Another device reads a message: the event is applied here and echoed to the service
  // with this client's own source id.
  ASSERT_EQ(fromOtherDevice("read", newer).status, 200);
  const auto changed = out.callback("onMessageChanged");
  ASSERT_TRUE(changed) << watch.out();
  EXPECT_EQ(changed->at("message").at("messageId").as_string(), newer);
  EXPECT_TRUE(changed->at("message").as_object().contains("read"));
  EXPECT_EQ(out.callback("onUnreadCountChanged")->at("count"), 1);
  const auto echoDeadline = Clock::now() + std::chrono::seconds(10);
  std::vector<std::pair<std::string, std::string>> seen;
  do {
    seen = mutations();
    if (seen.back().first != "other-device") break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  } while (Clock::now() < echoDeadline);
  EXPECT_NE(seen.back().first, "other-device");
  EXPECT_FALSE(seen.back().first.empty());
  EXPECT_NE(seen.back().second.find("read(messageId: \\\"" + newer), std::string::npos);
  out.takePassed();

  // A refusal undoes exactly the change it made; bad commands are answered and the watch
  // goes on.
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/trouble", "POST",
                 R"({"path": "/inbox/q", "contains": "unread", "status": 503})")
                .status,
            200);
  ASSERT_TRUE(watch.write("unread " + newer + "\nread nope\nfrobnicate\nread\n"));
  const auto refused = out.command("unread " + newer);
  ASSERT_TRUE(refused) << watch.out();
  EXPECT_EQ(refused->at("code"), 503);
  EXPECT_EQ(out.takePassed(), (Names{"onMessageChanged feed", "onUnreadCountChanged",
                                     "onMessageChanged feed", "onUnreadCountChanged",
                                     "unread " + newer}));
  const auto notFound = out.command("read nope");
  ASSERT_TRUE(notFound);
  EXPECT_EQ(notFound->at("error"), "no message nope in the inbox");
  EXPECT_EQ(notFound->at("type"), "not_found");
  const auto unknown = out.command("frobnicate");
  ASSERT_TRUE(unknown);
  EXPECT_EQ(unknown->at("type"), "usage_error");
  const auto missing = out.command("read");
  ASSERT_TRUE(missing);
  EXPECT_EQ(missing->at("error"), "read takes one message id");
  EXPECT_EQ(out.takePassed().size(), 3u);  // nothing but the answers

  // In the background the socket is closed and nothing arrives; back in the foreground the
  // inbox loads again, with what came meanwhile.
  ASSERT_TRUE(watch.write("background\n"));
  ASSERT_TRUE(out.command("background")) << watch.out();
  const auto meanwhile = addMessage("Meanwhile");
  ASSERT_TRUE(watch.write("foreground\n"));
  ASSERT_TRUE(out.command("foreground")) << watch.out();
  const auto passed = out.takePassed();
  EXPECT_EQ(passed, (Names{"state offline", "background", "onLoading", "state connecting",
                           "onFeedChanged", "onArchiveChanged", "onUnreadCountChanged",
                           "state live", "foreground"}));
  EXPECT_NE(watch.out().find(R"("ids":[")" + meanwhile + "\""), std::string::npos);

  // The end of the input is not the end of the watch: news still arrive.
  watch.closeInput();
  addMessage("After the input");
  ASSERT_TRUE(out.callback("onMessageAdded")) << watch.out();
  const auto finished = watch.stop(SIGINT);
  EXPECT_EQ(finished.exitCode, 0) << finished.err;
  for (const auto& line : lines(finished.out))
    EXPECT_TRUE(line.front() == '{' || line.starts_with("Herald Inbox Listener")) << line;
}

TEST_F(LiveInbox, CommandsFindAMessageBeyondTheFirstPage) {
  // 33 messages: the oldest is on the second page of 32.
  const auto oldest = addMessage("Oldest");
  for (int i = 0; i < 32; ++i) addMessage("m");
  auto f = run(herald({"--json", "inbox", "read", oldest}));
  ASSERT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(platform::parseJSON(f.out),
            json::parse(R"({"event": "read", "messageId": ")" + oldest + "\"}"));
  f = run(herald({"--json", "inbox", "count"}));
  EXPECT_EQ(platform::parseJSON(f.out).at("unreadCount"), 32);
}

TEST_F(LiveInbox, CommandsRefuseAMessageFoundNowhereAndReportTheLoadsFailure) {
  addMessage("Only");
  const auto sent = mutations().size();
  auto f = run(herald({"inbox", "archive", "nope"}));
  EXPECT_EQ(f.exitCode, 1);
  EXPECT_EQ(f.out, "");
  EXPECT_NE(f.err.find("no message nope in the inbox"), std::string::npos) << f.err;
  EXPECT_EQ(mutations().size(), sent);

  // A refused load is the service's refusal; a service out of reach is exit 3.
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/trouble", "POST",
                 R"({"path": "/inbox/q", "status": 500, "always": true})")
                .status,
            200);
  f = run(herald({"inbox", "count"}));
  EXPECT_EQ(f.exitCode, 1);
  EXPECT_NE(f.err.find("could not load the inbox"), std::string::npos) << f.err;
  EXPECT_NE(f.err.find("code 500"), std::string::npos) << f.err;
  ASSERT_EQ(sandbox_.stop(), 0);
  f = run(herald({"inbox", "count"}));
  EXPECT_EQ(f.exitCode, 3) << f.err;
}

TEST_F(LiveInbox, ALostConnectionIsSaidAndTheWatchIsLiveAgainByItself) {
  Background watch(herald({"inbox", "watch"}));
  Lines out(watch);
  const auto state = [&](const std::string& name) {
    return out.next([&](const json::object& l) {
      return l.contains("state") && l.at("state").as_string() == std::string_view(name);
    });
  };
  ASSERT_TRUE(state("live")) << watch.out() << watch.err();
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/realtime/ada", "POST", R"({"reset": true})").status,
            200);
  ASSERT_TRUE(out.callback("onError")) << watch.out();
  const auto reconnecting = state("reconnecting");
  ASSERT_TRUE(reconnecting) << watch.out();
  EXPECT_LE(reconnecting->at("retryIn").to_number<double>(), 1.0);
  ASSERT_TRUE(state("live")) << watch.out();
  const auto after = addMessage("After the reset");
  const auto added = out.callback("onMessageAdded");
  ASSERT_TRUE(added) << watch.out();
  EXPECT_EQ(added->at("message").at("messageId").as_string(), after);
  const auto finished = watch.stop(SIGTERM);
  EXPECT_EQ(finished.exitCode, 0) << finished.err;
}

// Ctrl-C and SIGTERM end the watches at once, even while the service keeps them waiting.
TEST_F(LiveInbox, ASignalEndsTheWatchesWhileTheyWaitOnASilentService) {
  const auto waitForRequests = [&](std::string_view path, std::size_t n) {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
      const auto journal = sandbox_.journal();
      const auto seen = std::count_if(journal.begin(), journal.end(), [&](const auto& e) {
        return std::string_view(e.at("path").as_string()).starts_with(path);
      });
      if (static_cast<std::size_t>(seen) >= n) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  };
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/trouble", "POST",
                 R"({"path": "/inbox/q", "delay": 30, "times": 3})")
                .status,
            200);
  {
    Background watch(herald({"inbox", "watch"}));
    ASSERT_TRUE(waitForRequests("/inbox/q", 3));
    const auto finished = watch.stop(SIGINT, std::chrono::seconds(3));
    EXPECT_EQ(finished.exitCode, 0) << finished.err;
  }
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/trouble", "POST",
                 R"({"path": "/realtime/", "delay": 30, "times": 1})")
                .status,
            200);
  {
    Background watch(herald({"inbox", "watch", "--raw"}));
    ASSERT_TRUE(waitForRequests("/realtime", 1));
    const auto finished = watch.stop(SIGTERM, std::chrono::seconds(3));
    EXPECT_EQ(finished.exitCode, 0) << finished.err;
  }
}

}  // namespace
