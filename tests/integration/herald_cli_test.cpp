// The herald command against the sandbox: each test has a configuration folder of its own,
// and every command is a process of its own, as a person would run them.

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
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
