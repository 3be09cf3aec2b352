// The herald command against the sandbox: each test has a configuration folder of its own,
// and every command is a process of its own, as a person would run them.

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "platform/url_loading.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

class HeraldCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform::temporaryDirectory() / ("herald-cli-test-" + platform::newUUID());
    std::filesystem::create_directories(dir_);
    config_ = (dir_ / "config").string();
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  Finished herald(const std::vector<std::string>& args, const std::string& endpoint = {}) {
    std::vector<std::string> argv{program("herald"), "--config-dir", config_, "--endpoint",
                                  endpoint.empty() ? sandbox_.url() : endpoint};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
  }

  platform::DataResult send(const std::string& path, const std::string& method = "GET") {
    auto request = platform::URLRequest::make(sandbox_.url() + path);
    request.method = method;
    return platform::URLSession::shared().dataSync(request);
  }

  std::string jwtFor(const std::string& user) {
    const auto answer = send("/_sandbox/users/" + user + "/token", "POST");
    return std::string(platform::parseJSON(answer.data).at("jwt").as_string());
  }

  // (token, provider) of each token the service holds for the user.
  std::vector<std::pair<std::string, std::string>> registered(const std::string& user) {
    std::vector<std::pair<std::string, std::string>> result;
    const auto answer = platform::parseJSON(send("/_sandbox/users/" + user).data);
    for (const auto& token : answer.at("tokens").as_array())
      result.emplace_back(token.at("token").as_string(), token.at("provider_key").as_string());
    return result;
  }

  // "METHOD path" of each token request the service received.
  std::vector<std::string> tokenRequests() {
    std::vector<std::string> result;
    for (const auto& request : sandbox_.journal())
      result.push_back(std::string(request.at("method").as_string()) + " " +
                       std::string(request.at("path").as_string()));
    return result;
  }

  std::filesystem::path dir_;
  std::string config_;
  Sandbox sandbox_;
};

using Tokens = std::vector<std::pair<std::string, std::string>>;

TEST_F(HeraldCommand, SignInKeepsCredentialsAndTokensForTheProcessesAfterIt) {
  // The endpoint from the environment this time.
  auto f = run({"/usr/bin/env", "HERALD_ENDPOINT=" + sandbox_.url(), program("herald"),
                "--config-dir", config_, "signin", "--user", "ada", "--tenant", "t1", "--jwt",
                jwtFor("ada"), "--apns-token", "0AFF", "--token", "firebase-fcm=f00d"});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(f.err, "");
  EXPECT_EQ(f.out,
            "signed in as ada (tenant t1)\nregistered the apn token 0aff\n"
            "registered the firebase-fcm token f00d\n");
  EXPECT_EQ(registered("ada"), (Tokens{{"0aff", "apn"}, {"f00d", "firebase-fcm"}}));
  const auto device = platform::parseJSON(send("/_sandbox/users/ada").data).at("tokens").at(0);
  EXPECT_EQ(device.at("device").at("app_id"), "app.kelvara.photo");

  f = herald({"whoami"});
  EXPECT_EQ(f.out, "signed in as ada (tenant t1)\n");
  f = herald({"whoami", "--json"});
  EXPECT_EQ(platform::parseJSON(f.out),
            json::parse(R"({"signedIn": true, "userId": "ada", "tenantId": "t1"})"));
  f = herald({"--json", "token", "get", "apn"});
  EXPECT_EQ(platform::parseJSON(f.out), json::parse(R"({"provider": "apn", "token": "0aff"})"));

  // Signing out sends nothing; the device keeps its tokens for whoever signs in next.
  const auto sent = tokenRequests().size();
  f = herald({"signout"});
  EXPECT_EQ(f.out, "signed out ada\n");
  EXPECT_EQ(tokenRequests().size(), sent);
  EXPECT_EQ(herald({"whoami"}).out, "not signed in\n");
  f = herald({"--json", "signin", "--user", "bob", "--jwt", jwtFor("bob")});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(platform::parseJSON(f.out), json::parse(R"({"signedIn": true, "userId": "bob",
      "tenantId": null, "tokens": [{"provider": "apn", "token": "0aff"},
                                   {"provider": "firebase-fcm", "token": "f00d"}]})"));
  EXPECT_EQ(registered("bob"), (Tokens{{"0aff", "apn"}, {"f00d", "firebase-fcm"}}));
}

TEST_F(HeraldCommand, ATokenIsRegisteredFromTheStoredCredentialsOrKeptForTheNextSignIn) {
  // Nobody signed in: kept on the device, nothing sent.
  auto f = herald({"--json", "token", "set", "onesignal", "os-1"});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(platform::parseJSON(f.out), json::parse(R"({"provider": "onesignal",
      "token": "os-1", "registered": false, "userId": null})"));
  EXPECT_TRUE(tokenRequests().empty());

  ASSERT_EQ(
      herald({"signin", "--user", "ada", "--jwt", jwtFor("ada"), "--token", "expo=old"}).exitCode,
      0);
  EXPECT_EQ(registered("ada"), (Tokens{{"os-1", "onesignal"}, {"old", "expo"}}));

  // Signed in: a new process signs in again from the stored credentials (saying so in the
  // log), registers the device's tokens again, and replaces the old token by the new.
  ASSERT_EQ(send("/_sandbox/requests", "DELETE").response.statusCode, 200);
  f = herald({"token", "set", "expo", "new", "--show-logs"});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(lines(f.out), std::vector<std::string>{"registered the expo token new for ada"});
  EXPECT_NE(f.err.find("Signing user in\nUser Id: ada"), std::string::npos) << f.err;
  EXPECT_EQ(tokenRequests(), (std::vector<std::string>{
                                 "PUT /users/ada/tokens/os-1", "PUT /users/ada/tokens/old",
                                 "DELETE /users/ada/tokens/old", "PUT /users/ada/tokens/new"}));
  EXPECT_EQ(registered("ada"), (Tokens{{"os-1", "onesignal"}, {"new", "expo"}}));

  f = herald({"token", "apns", "0A0b"});
  EXPECT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(f.err, "");  // no debug log without --show-logs
  EXPECT_EQ(registered("ada").back(), (std::pair<std::string, std::string>{"0a0b", "apn"}));
  EXPECT_EQ(herald({"token", "get", "apn"}).out, "0a0b\n");
  EXPECT_EQ(herald({"token", "get", "pusher-beams"}).out, "no token for pusher-beams\n");
}

TEST_F(HeraldCommand, ARefusalExitsWith1AndAServiceOutOfReachWith3) {
  // A token the service cannot read: its code, message and type, and the user stays signed in.
  auto f = herald({"signin", "--user", "ada", "--jwt", "not-a-jwt", "--token", "expo=e1"});
  EXPECT_EQ(f.exitCode, 1);
  ASSERT_EQ(lines(f.err).size(), 1u) << f.err;
  EXPECT_NE(f.err.find("expo token e1"), std::string::npos) << f.err;
  EXPECT_NE(f.err.find("code 401, type authentication_error"), std::string::npos) << f.err;
  EXPECT_EQ(herald({"whoami"}).out, "signed in as ada\n");

  // Another user's token, in JSON.
  f = herald({"--json", "signin", "--user", "ada", "--jwt", jwtFor("bob")});
  EXPECT_EQ(f.exitCode, 1);
  EXPECT_EQ(platform::parseJSON(f.out).at("tokens"), json::array());
  const auto error = platform::parseJSON(f.err).as_object();
  EXPECT_EQ(error.at("provider"), "expo");
  EXPECT_EQ(error.at("token"), "e1");
  EXPECT_EQ(error.at("error").at("code"), 403);
  EXPECT_EQ(error.at("error").at("type"), "authorization_error");
  EXPECT_FALSE(error.at("error").at("message").as_string().empty());

  // Nothing listens where the service was: exit 3, and the new token is kept all the same.
  Sandbox gone;
  const auto url = gone.url();
  ASSERT_EQ(gone.stop(), 0);
  f = herald({"token", "set", "pusher-beams", "p1"}, url);
  EXPECT_EQ(f.exitCode, 3) << f.err;
  EXPECT_EQ(herald({"token", "get", "pusher-beams"}).out, "p1\n");
  f = herald({"--json", "signin", "--user", "ada", "--client-key", "k"}, url);
  EXPECT_EQ(f.exitCode, 3);
  ASSERT_EQ(lines(f.err).size(), 2u) << f.err;  // expo and pusher-beams
  for (const auto& line : lines(f.err))
    EXPECT_EQ(platform::parseJSON(line).at("error").at("code"), -1004) << line;
}

TEST_F(HeraldCommand, BadUsageExitsWith2WithOneLineAndTouchesNothing) {
  struct Case {
    std::vector<std::string> args;
    std::string expected;
  } cases[] = {
      {{"signin", "--user", "ada"}, "--jwt, --client-key"},
      {{"signin", "--user", "ada", "--jwt", "j", "--token", "fcm=1"},
       "(apn, firebase-fcm, expo, onesignal, pusher-beams)"},
      {{"signin", "--user", "ada", "--jwt", "j", "--apns-token", "abc"}, "even number"},
      {{"signin", "--user", "ada", "--jwt", "j", "--apns-token", "0a", "--token", "apn=x"},
       "twice"},
      {{"signin", "--user", "a/b", "--jwt", "j"}, "--user"},
      {{"signin", "--user", "ada", "--jwt", "j\nk"}, "control characters"},
      {{"token", "set", "expo"}, "TOKEN"},
      {{"token", "set", "expo", "a?b"}, "'a?b'"},
      {{"token", "get", "nope"}, "'nope'"},
      {{"token"}, "set, apns or get"},
      {{"frobnicate"}, "unknown command 'frobnicate'"},
      {{"whoami", "--bogus"}, "unknown option '--bogus'"},
      {{"whoami", "--json=yes"}, "--json takes no value"},
      {{}, "no command"},
  };
  for (const auto& c : cases) {
    const auto f = herald(c.args);
    EXPECT_EQ(f.exitCode, 2) << c.expected;
    EXPECT_EQ(f.out, "") << c.expected;
    ASSERT_EQ(lines(f.err).size(), 1u) << f.err;
    EXPECT_NE(f.err.find(c.expected), std::string::npos) << f.err;
  }
  EXPECT_EQ(herald({"whoami"}, "ftp://example.com").exitCode, 2);
  auto f = run({"/usr/bin/env", "HERALD_ENDPOINT=nope", program("herald"), "whoami"});
  EXPECT_EQ(f.exitCode, 2);
  EXPECT_NE(f.err.find("HERALD_ENDPOINT"), std::string::npos) << f.err;
  f = herald({"--json", "token", "apns", "0"});
  EXPECT_EQ(f.exitCode, 2);
  EXPECT_EQ(platform::parseJSON(f.err).at("error").at("type"), "usage_error");

  EXPECT_FALSE(std::filesystem::exists(config_));
  EXPECT_TRUE(tokenRequests().empty());
}

TEST_F(HeraldCommand, AStoreThatCannotBeWrittenExitsWith4AndNothingIsSent) {
  // The credentials cannot be stored (their lock is a folder): nobody is signed in, so no
  // token is registered.
  config_ = (dir_ / "locked").string();
  std::filesystem::create_directories(dir_ / "locked" / "defaults.json.lock");
  auto f = herald({"signin", "--user", "ada", "--jwt", jwtFor("ada"), "--token", "expo=e1"});
  EXPECT_EQ(f.exitCode, 4);
  EXPECT_NE(f.err.find("could not store the credentials of ada"), std::string::npos) << f.err;
  EXPECT_EQ(herald({"whoami"}).out, "not signed in\n");
  EXPECT_TRUE(tokenRequests().empty());

  // No folder can be made where a file is.
  std::ofstream(dir_ / "file") << "not a folder";
  config_ = (dir_ / "file" / "config").string();
  f = herald({"token", "set", "expo", "e1"});
  EXPECT_EQ(f.exitCode, 4);
  EXPECT_NE(f.err.find("device.json"), std::string::npos) << f.err;

  // A store that is not JSON is moved aside with an error line, and reads as empty.
  config_ = (dir_ / "config").string();
  std::filesystem::create_directories(config_);
  std::ofstream(dir_ / "config" / "defaults.json") << "{\"herald_credentials\": ";
  f = herald({"whoami"});
  EXPECT_EQ(f.exitCode, 0);
  EXPECT_EQ(f.out, "not signed in\n");
  EXPECT_NE(f.err.find("defaults.json.corrupt-"), std::string::npos) << f.err;
}

}  // namespace

TEST_F(HeraldCommand, TwoSignInsAtOnceLeaveOneWholeRecord) {
  // Each pair of processes races over one store; whichever signs in last wins, but the record
  // never mixes the two.
  const std::string ada = jwtFor("ada"), bob = jwtFor("bob");
  for (int round = 0; round < 5; ++round) {
    Finished a, b;
    std::thread first([&] { a = herald({"signin", "--user", "ada", "--jwt", ada, "--tenant", "ta"}); });
    std::thread second([&] { b = herald({"signin", "--user", "bob", "--jwt", bob}); });
    first.join();
    second.join();
    ASSERT_EQ(a.exitCode, 0) << a.err;
    ASSERT_EQ(b.exitCode, 0) << b.err;

    std::ifstream file(std::filesystem::path(config_) / "defaults.json");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const auto record = platform::parseJSON(text).at("herald_credentials");
    const auto user = record.at("herald_user_id");
    if (user == "ada") {
      EXPECT_EQ(record, json::parse(R"({"herald_user_id": "ada", "herald_tenant_id": "ta",
                                        "herald_access_token": ")" + ada + "\"}"));
    } else {
      EXPECT_EQ(record, json::parse(R"({"herald_user_id": "bob",
                                        "herald_access_token": ")" + bob + "\"}"));
    }
  }
  for (const auto& entry : std::filesystem::directory_iterator(config_))
    EXPECT_EQ(entry.path().filename().string().find(".corrupt-"), std::string::npos);
}

namespace {

// The inbox commands against the sandbox's inbox, with messages put there by hand.
class HeraldInbox : public HeraldCommand {
 protected:
  void SetUp() override {
    HeraldCommand::SetUp();
    const auto f = herald({"signin", "--user", "ada", "--jwt", jwtFor("ada")});
    ASSERT_EQ(f.exitCode, 0) << f.err;
  }

  // Puts a message into ada's inbox and returns its id.
  std::string addMessage(const json::object& message) {
    auto request = platform::URLRequest::make(sandbox_.url() + "/_sandbox/users/ada/messages");
    request.method = "POST";
    request.body = platform::toJSON(message);
    const auto answer = platform::URLSession::shared().dataSync(request);
    EXPECT_EQ(answer.response.statusCode, 200) << answer.data;
    return std::string(platform::parseJSON(answer.data).at("messageId").as_string());
  }

  // Waits (bounded) until the service holds a subscribed realtime connection that `ready`
  // accepts; the watch says it is open before its subscription has arrived.
  bool waitForConnection(const std::function<bool(const json::object&)>& ready = {}) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      const auto all = call(sandbox_.url() + "/_sandbox/realtime").object().at("connections");
      for (const auto& c : all.as_array())
        if (c.at("subscribed").as_bool() && (!ready || ready(c.as_object()))) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  // The ids of one page of `inbox list` (with `args`), and its cursor when there is more.
  std::pair<std::vector<std::string>, std::optional<std::string>> page(
      std::vector<std::string> args) {
    args.insert(args.begin(), {"--json", "inbox", "list"});
    const auto f = herald(args);
    EXPECT_EQ(f.exitCode, 0) << f.err;
    const auto set = platform::parseJSON(f.out);
    std::vector<std::string> ids;
    for (const auto& message : set.at("messages").as_array())
      ids.emplace_back(message.at("messageId").as_string());
    std::optional<std::string> cursor;
    if (set.at("canPaginate").as_bool()) cursor = set.at("paginationCursor").as_string();
    return {ids, cursor};
  }

  long long unread() {
    const auto f = herald({"--json", "inbox", "count"});
    EXPECT_EQ(f.exitCode, 0) << f.err;
    return platform::parseJSON(f.out).at("unreadCount").as_int64();
  }
};

TEST_F(HeraldInbox, ChangesMadeByTheCommandsShowInTheService) {
  // The page asks for the preview, not the body.
  const auto first = addMessage({{"title", "Welcome"}, {"preview", "Your first steps"},
                                 {"body", "The whole text"}});
  const auto second = addMessage({{"title", "Line\nbreak"}, {"preview", "Short"}});
  const auto third = addMessage({{"preview", "No title"}});
  EXPECT_EQ(unread(), 3);

  // Newest first; a title holding a line break stays on its line.
  auto f = herald({"inbox", "list"});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(lines(f.out).size(), 7u) << f.out;
  EXPECT_NE(f.out.find("(no title)  [" + third + "]\n        No title\n"), std::string::npos);
  EXPECT_NE(f.out.find("Line break  [" + second + "]\n        Short\n"), std::string::npos);
  EXPECT_NE(f.out.find("Welcome  [" + first + "]\n        Your first steps\n"),
            std::string::npos);
  EXPECT_EQ(lines(f.out).back(), "3 of 3 messages");
  EXPECT_EQ(page({}).first, (std::vector<std::string>{third, second, first}));

  f = herald({"--json", "inbox", "read", first});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  EXPECT_EQ(platform::parseJSON(f.out),
            json::parse(R"({"event": "read", "messageId": ")" + first + "\"}"));
  EXPECT_EQ(unread(), 2);
  // The star marks the unread ones only.
  const auto marks = [&] {
    std::string result;
    for (const auto& line : lines(herald({"inbox", "list"}).out))
      if (line.find("  [") != std::string::npos) result += line.front();
    return result;
  };
  EXPECT_EQ(marks(), "** ");
  EXPECT_EQ(herald({"inbox", "unread", first}).out, "marked " + first + " as unread\n");
  EXPECT_EQ(unread(), 3);
  EXPECT_EQ(marks(), "***");

  // Opened shows on the message itself; a click is counted with the message's own click
  // tracking id.
  ASSERT_EQ(herald({"inbox", "open", second}).exitCode, 0);
  const auto clicked = herald({"--json", "inbox", "click", second});
  ASSERT_EQ(clicked.exitCode, 0) << clicked.err;
  f = herald({"--json", "inbox", "get", second});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  const auto message = platform::parseJSON(f.out).at("message");
  EXPECT_EQ(message.at("messageId").as_string(), second);
  EXPECT_TRUE(message.as_object().contains("opened")) << f.out;
  EXPECT_EQ(platform::parseJSON(clicked.out).at("trackingId"),
            message.at("trackingIds").at("clickTrackingId"));
  EXPECT_NE(herald({"inbox", "get", second}).out.find("\n  opened: "), std::string::npos);

  // Archived messages leave the feed for the archive.
  ASSERT_EQ(herald({"inbox", "archive", third}).exitCode, 0);
  EXPECT_EQ(page({}).first, (std::vector<std::string>{second, first}));
  EXPECT_EQ(page({"--archived"}).first, (std::vector<std::string>{third}));

  EXPECT_EQ(herald({"inbox", "read-all"}).out, "marked every message as read\n");
  EXPECT_EQ(unread(), 0);
  EXPECT_EQ(herald({"inbox", "count"}).out, "0 unread\n");
}

TEST_F(HeraldInbox, PagesFollowOneAnotherWithTheirCursor) {
  std::vector<std::string> added;
  for (int i = 0; i < 5; ++i) added.insert(added.begin(), addMessage({{"title", "m"}}));

  std::vector<std::string> seen;
  std::vector<std::string> args{"--limit", "2"};
  for (int pages = 0; pages < 5; ++pages) {
    const auto [ids, cursor] = page(args);
    EXPECT_LE(ids.size(), 2u);
    seen.insert(seen.end(), ids.begin(), ids.end());
    if (!cursor) break;
    args = {"--limit", "2", "--after", *cursor};
  }
  EXPECT_EQ(seen, added);

  // The text says how to get the next page; without --limit a page holds 32.
  const auto f = herald({"inbox", "list", "--limit", "4"});
  EXPECT_NE(lines(f.out).back().find("4 of 5 messages; more with --after "), std::string::npos)
      << f.out;
  EXPECT_EQ(page({}).first.size(), 5u);
}

TEST_F(HeraldInbox, BadValuesExitWith2AndNobodySignedInWith1) {
  const auto id = addMessage({{"title", "m"}});
  ASSERT_EQ(send("/_sandbox/requests", "DELETE").response.statusCode, 200);
  struct Case {
    std::vector<std::string> args;
    std::string expected;
  } cases[] = {
      {{"inbox", "list", "--limit", "0"}, "1 to 100"},
      {{"inbox", "list", "--limit", "101"}, "1 to 100"},
      {{"inbox", "list", "--limit", "ten"}, "'ten'"},
      {{"inbox", "list", "--after", "a\"b"}, "quotes"},
      {{"inbox", "read", "x\") { evil }"}, "quotes"},
      {{"inbox", "get", "a\\b"}, "backslashes"},
      {{"inbox", "click", id, "t-1"}, "unexpected argument 't-1'"},
      {{"inbox", "watch", "--keep-alive", "1"}, "--raw"},
      {{"inbox", "archive"}, "ID"},
      {{"inbox"}, "list, count"},
  };
  for (const auto& c : cases) {
    const auto f = herald(c.args);
    EXPECT_EQ(f.exitCode, 2) << c.expected;
    ASSERT_EQ(lines(f.err).size(), 1u) << f.err;
    EXPECT_NE(f.err.find(c.expected), std::string::npos) << f.err;
  }
  EXPECT_TRUE(tokenRequests().empty());
  EXPECT_EQ(unread(), 1);

  // An id the service does not know.
  auto f = herald({"inbox", "get", "nope"});
  EXPECT_EQ(f.exitCode, 1);
  EXPECT_NE(f.err.find("no message nope"), std::string::npos) << f.err;

  ASSERT_EQ(herald({"signout"}).exitCode, 0);
  f = herald({"--json", "inbox", "count"});
  EXPECT_EQ(f.exitCode, 1);
  EXPECT_EQ(f.out, "");
  EXPECT_EQ(platform::parseJSON(f.err).at("error").at("message"), "No user signed in");
}

TEST_F(HeraldInbox, WatchPrintsEachFrameAsOneJSONLineUntilInterrupted) {
  auto command = [&](std::vector<std::string> args) {
    std::vector<std::string> argv{program("herald"), "--config-dir", config_, "--endpoint",
                                  sandbox_.url()};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  };
  Background watch(command({"inbox", "watch", "--raw", "--keep-alive", "0.1"}));
  ASSERT_TRUE(watch.waitForOutput("(Ctrl-C ends)")) << watch.err();
  // The token stays out of the terminal.
  EXPECT_EQ(watch.err().find("auth="), std::string::npos) << watch.err();
  ASSERT_TRUE(waitForConnection());
  const auto id = addMessage({{"title", "Live"}});
  // Another device (its own connection id) reads it: the watcher hears the event.
  const auto other = (dir_ / "other").string();
  ASSERT_EQ(run({program("herald"), "--config-dir", other, "--endpoint", sandbox_.url(), "signin",
                 "--user", "ada", "--jwt", jwtFor("ada")})
                .exitCode,
            0);
  ASSERT_EQ(
      run({program("herald"), "--config-dir", other, "--endpoint", sandbox_.url(), "inbox",
           "read", id})
          .exitCode,
      0);
  ASSERT_TRUE(watch.waitForOutput("\"event\":\"read\"")) << watch.out();
  // A keep-alive every 0.1 s: wait until the service has counted one.
  waitForConnection([](const json::object& c) { return c.at("keepAlives").as_int64() > 0; });

  const auto finished = watch.stop(SIGINT);
  EXPECT_EQ(finished.exitCode, 0) << finished.err;
  const auto printed = lines(finished.out);
  ASSERT_EQ(printed.size(), 2u) << finished.out;
  const auto message = platform::parseJSON(printed[0]);
  EXPECT_EQ(message.at("type"), "message");
  EXPECT_EQ(message.at("message").at("messageId").as_string(), id);
  EXPECT_EQ(message.at("message").at("title"), "Live");
  EXPECT_EQ(platform::parseJSON(printed[1]),
            platform::parseJSON(
                R"({"type":"event","event":{"event":"read","messageId":")" + id +
                R"(","type":"event"}})"));

  // What the service saw: the subscription, keep-alives, and our close with 1000.
  int keepAlives = 0;
  std::optional<std::int64_t> closedWith;
  for (const auto& entry : sandbox_.journal()) {
    if (entry.at("method") != "FRAME" || entry.at("direction") != "received") continue;
    if (entry.at("body") == R"({"action":"keepAlive"})") ++keepAlives;
    if (entry.at("kind") == "close") closedWith = entry.at("code").as_int64();
  }
  EXPECT_GE(keepAlives, 1);
  EXPECT_EQ(closedWith, 1000);
}

TEST_F(HeraldInbox, WatchRawEndsWith3WhenTheServiceCloses) {
  Background watch({program("herald"), "--config-dir", config_, "--endpoint", sandbox_.url(),
                    "inbox", "watch", "--raw"});
  ASSERT_TRUE(watch.waitForOutput("(Ctrl-C ends)")) << watch.err();
  ASSERT_TRUE(waitForConnection());
  auto request = platform::URLRequest::make(sandbox_.url() + "/_sandbox/realtime/ada");
  request.method = "POST";
  request.body = R"({"close": {"code": 4001, "reason": "maintenance"}})";
  ASSERT_EQ(platform::URLSession::shared().dataSync(request).response.statusCode, 200);
  const auto finished = watch.stop(0, std::chrono::seconds(10));
  EXPECT_EQ(finished.exitCode, 3) << finished.err;
  EXPECT_NE(finished.err.find("closed the connection (code 4001: maintenance)"),
            std::string::npos)
      << finished.err;
}

}  // namespace
