#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <set>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/url_loading.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

// The "message" of the service's error body.
std::string message(const Answer& answer) {
  return std::string(answer.object().at("message").as_string());
}

std::string tokenFor(const Sandbox& sandbox, const std::string& user, const std::string& query = "",
                  std::optional<std::string> body = std::nullopt) {
  const auto answer =
      call(sandbox.url() + "/_sandbox/users/" + user + "/token" + query, "POST", std::move(body));
  EXPECT_EQ(answer.status, 200) << answer.body;
  return std::string(answer.object().at("jwt").as_string());
}

std::vector<std::pair<std::string, std::string>> bearer(const std::string& jwt) {
  return {{"Authorization", "Bearer " + jwt}};
}

std::string base64url(std::string_view bytes) {
  constexpr std::string_view digits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  unsigned bits = 0, count = 0;
  for (const unsigned char c : bytes) {
    bits = (bits << 8) | c;
    for (count += 8; count >= 6; count -= 6) out += digits[(bits >> (count - 6)) & 63];
  }
  if (count > 0) out += digits[(bits << (6 - count)) & 63];
  return out;
}

const std::string kDevice = R"({"provider_key":"apn","device":{"platform":"ios"}})";

TEST(SandboxAccounts, EveryTokenCallNeedsAnAccessTokenOfItsOwnUser) {
  Sandbox sandbox({"--jwt-secret", "first secret"});
  Sandbox other({"--jwt-secret", "another secret"});
  Sandbox twin({"--jwt-secret", "first secret"});
  const auto ada = sandbox.url() + "/users/ada/tokens/0aff";
  const auto jwt = tokenFor(sandbox, "ada");
  EXPECT_EQ(call(ada, "PUT", kDevice, bearer(jwt)).status, 204);
  // The secret is the key: a sandbox with the same one takes the token too.
  EXPECT_EQ(call(twin.url() + "/users/ada/tokens/0aff", "PUT", kDevice, bearer(jwt)).status, 204);

  // The payload of ada's token rewritten to name bob, under ada's signature.
  const auto firstDot = jwt.find('.'), lastDot = jwt.rfind('.');
  const auto forged = jwt.substr(0, firstDot + 1) + base64url(R"({"sub":"bob","exp":4102444800})") +
                      jwt.substr(lastDot);
  const auto unsigned_ = base64url(R"({"alg":"none","typ":"JWT"})") + "." +
                         base64url(R"({"sub":"ada","exp":4102444800})") + ".";
  struct Case {
    std::string what;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string expected;
  } refused[] = {
      {"no credentials", {}, "No access token"},
      {"expired by query", bearer(tokenFor(sandbox, "ada", "?ttl=0")), "has expired"},
      {"expired by body", bearer(tokenFor(sandbox, "ada", "", R"({"ttl": -60})")), "has expired"},
      {"another secret", bearer(tokenFor(other, "ada")), "signature is not valid"},
      {"forged payload", bearer(forged), "signature is not valid"},
      {"unsigned", bearer(unsigned_), "must be signed with HS256, not none"},
      {"not a token", bearer("abc"), "malformed"},
      {"not bearer", {{"Authorization", "Basic YWRhOg=="}}, "must be \"Bearer"},
      {"client key", {{"x-herald-client-key", "sandbox-client-key"}}, "client key is not accepted"},
  };
  for (const auto& c : refused) {
    for (const char* method : {"PUT", "DELETE"}) {
      const auto answer = call(ada, method, kDevice, c.headers);
      EXPECT_EQ(answer.status, 401) << c.what << " " << method << ": " << answer.body;
      EXPECT_EQ(answer.object().at("type"), "authentication_error") << c.what;
      EXPECT_NE(message(answer).find(c.expected), std::string::npos) << c.what << answer.body;
    }
  }

  const auto bob = call(sandbox.url() + "/users/bob/tokens/0aff", "PUT", kDevice, bearer(jwt));
  EXPECT_EQ(bob.status, 403) << bob.body;
  EXPECT_EQ(bob.object().at("type"), "authorization_error");
  EXPECT_EQ(message(bob), "The access token is for user \"ada\", not for \"bob\"");

  // Nothing refused left a trace: ada still has her one token, bob is unknown.
  const auto user = call(sandbox.url() + "/_sandbox/users/ada");
  EXPECT_EQ(user.object().at("tokens").as_array().size(), 1u) << user.body;
  EXPECT_EQ(call(sandbox.url() + "/_sandbox/users/bob").status, 404);
  EXPECT_EQ(call(sandbox.url() + "/_sandbox/users/ada/token?ttl=soon", "POST").status, 400);
}

TEST(SandboxAccounts, RegisteredTokensShowOnTheUserAndEveryCallInTheJournal) {
  Sandbox sandbox;
  const auto base = sandbox.url() + "/users/ada/tokens/";
  const auto auth = bearer(tokenFor(sandbox, "ada"));
  EXPECT_EQ(call(sandbox.url() + "/_sandbox/users/ada").body, R"({"id":"ada","tokens":[]})");

  EXPECT_EQ(call(base + "old", "PUT", kDevice, auth).status, 204);
  EXPECT_EQ(call(base + "fcm", "PUT", R"({"provider_key":"firebase-fcm"})", auth).status, 204);
  // The client's replacement of a token: the old one deleted, then the new one put.
  EXPECT_EQ(call(base + "old", "DELETE", std::nullopt, auth).status, 204);
  EXPECT_EQ(call(base + "new", "PUT", kDevice, auth).status, 204);
  // Put again: the same token keeps its place and takes the new provider and device.
  EXPECT_EQ(call(base + "fcm", "PUT", R"({"provider_key":"expo","device":{"a":1}})", auth).status,
            204);
  EXPECT_EQ(call(base + "never-put", "DELETE", std::nullopt, auth).status, 204);
  EXPECT_EQ(platform::parseJSON(call(sandbox.url() + "/_sandbox/users/ada").body),
            platform::parseJSON(R"({"id": "ada", "tokens": [
                {"token": "fcm", "provider_key": "expo", "device": {"a": 1}},
                {"token": "new", "provider_key": "apn", "device": {"platform": "ios"}}]})"));

  const auto journal = sandbox.journal();
  std::vector<std::string> calls;
  for (const auto& entry : journal)
    calls.push_back(std::string(entry.at("method").as_string()) + " " +
                    std::string(entry.at("path").as_string()));
  EXPECT_EQ(calls, (std::vector<std::string>{
                       "PUT /users/ada/tokens/old", "PUT /users/ada/tokens/fcm",
                       "DELETE /users/ada/tokens/old", "PUT /users/ada/tokens/new",
                       "PUT /users/ada/tokens/fcm", "DELETE /users/ada/tokens/never-put"}));
  EXPECT_EQ(journal[3].at("body").as_string(), kDevice);

  // A device that changes hands: the token moves to the user who put it last.
  EXPECT_EQ(
      call(sandbox.url() + "/users/bob/tokens/new", "PUT", kDevice, bearer(tokenFor(sandbox, "bob")))
          .status,
      204);
  EXPECT_EQ(call(sandbox.url() + "/_sandbox/users/ada").object().at("tokens").as_array().size(),
            1u);

  struct Case {
    std::string body;
    std::string expected;
  } bad[] = {{"[1]", "not an array"},
             {"{", "not JSON"},
             {"{}", "no \"provider_key\""},
             {R"({"provider_key": 5})", "not an integer"},
             {R"({"provider_key": "apn", "device": "phone"})", "\"device\" must be an object"}};
  for (const auto& c : bad) {
    const auto answer = call(base + "x", "PUT", c.body, auth);
    EXPECT_EQ(answer.status, 400) << c.body;
    EXPECT_NE(message(answer).find(c.expected), std::string::npos) << c.body << answer.body;
  }
  EXPECT_EQ(call(sandbox.url() + "/users/ada/tokens", "PUT", kDevice, auth).status, 404);
}

class SandboxOutbox : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto auth = bearer(tokenFor(sandbox_, "ada"));
    for (const std::string token : {"t1", "t2"})
      ASSERT_EQ(call(url("/users/ada/tokens/" + token), "PUT", kDevice, auth).status, 204);
  }
  std::string url(const std::string& path) const { return sandbox_.url() + path; }
  json::array outbox(const std::string& query = "") const {
    return call(url("/_sandbox/outbox" + query)).object().at("messages").as_array();
  }
  Answer sendToAda() const {
    return call(url("/_sandbox/send"), "POST",
                R"({"user": "ada", "push": {"aps": {"alert": "Hi"}, "user_name": "Ana"}})");
  }

  Sandbox sandbox_;
};

TEST_F(SandboxOutbox, SendMakesOnePayloadPerTokenAndKeepsWhatIsTrackedForIt) {
  const auto sent = sendToAda();
  ASSERT_EQ(sent.status, 200) << sent.body;
  const auto messages = sent.object().at("messages").as_array();
  ASSERT_EQ(messages.size(), 2u);
  std::set<std::string> trackingURLs;
  for (std::size_t i = 0; i < 2; ++i) {
    const auto& message = messages[i].as_object();
    EXPECT_EQ(message.at("token"), i == 0 ? "t1" : "t2");
    EXPECT_EQ(message.at("provider_key"), "apn");
    const auto& payload = message.at("payload").as_object();
    EXPECT_EQ(payload.at("aps"), platform::parseJSON(R"({"alert": "Hi", "mutable-content": 1})"));
    EXPECT_EQ(payload.at("user_name"), "Ana");
    trackingURLs.insert(std::string(payload.at("trackingUrl").as_string()));
  }
  ASSERT_EQ(trackingURLs.size(), 2u);
  EXPECT_TRUE(trackingURLs.begin()->starts_with(sandbox_.url() + "/track/"));

  const auto second = std::string(messages[1].at("payload").at("trackingUrl").as_string());
  EXPECT_EQ(call(second, "POST", R"({"event":"DELIVERED"})").status, 200);
  EXPECT_EQ(call(second, "POST", R"({"event":"CLICKED"})").status, 200);
  EXPECT_EQ(call(url("/track/unknown"), "POST", R"({"event":"READ"})").status, 200);
  EXPECT_EQ(call(second, "POST", R"({"event":"clicked"})").status, 400);
  const auto kept = outbox();
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[0].at("events"), json::array());
  EXPECT_EQ(kept[1].at("events"), (json::array{"DELIVERED", "CLICKED"}));
  ASSERT_EQ(outbox("?token=t2").size(), 1u);
  EXPECT_EQ(outbox("?token=t2")[0].at("id"), messages[1].at("id"));

  EXPECT_EQ(call(url("/_sandbox/outbox"), "DELETE").body, R"({"deleted":2})");
  EXPECT_TRUE(outbox().empty());
  // A later send does not reuse an id whose tracking URL may still be around.
  const auto again = sendToAda().object().at("messages").as_array();
  EXPECT_NE(again[0].at("id"), messages[0].at("id"));
  EXPECT_NE(again[0].at("id"), messages[1].at("id"));
}

TEST_F(SandboxOutbox, ASendThatCannotReachAnyPhoneSaysWhy) {
  tokenFor(sandbox_, "bob");
  const auto none = call(url("/_sandbox/send"), "POST", R"({"user": "bob"})");
  EXPECT_EQ(none.status, 409);
  EXPECT_NE(message(none).find("no push token"), std::string::npos) << none.body;
  EXPECT_EQ(call(url("/_sandbox/send"), "POST", R"({"user": "zed"})").status, 404);
  for (const std::string body : {R"({"push": {}})", R"({"user": "ada", "push": []})",
                                 R"({"user": "ada", "push": {"aps": "x"}})"})
    EXPECT_EQ(call(url("/_sandbox/send"), "POST", body).status, 400) << body;
  EXPECT_TRUE(outbox().empty());
}

#ifdef WITH_BASE_EXTENSION
// The whole way: a payload from the outbox, given to the extension host, reports its own
// delivery back to the message it came from.
TEST_F(SandboxOutbox, TheExtensionReportsTheDeliveryOfASentPayload) {
  const auto messages = sendToAda().object().at("messages").as_array();
  const auto payload = platform::toJSON(messages[0].at("payload"));
  const auto host = run({program("notification-service"), "--extension", "base", "-"}, payload);
  ASSERT_EQ(host.exitCode, 0) << host.err;
  const auto kept = outbox();
  EXPECT_EQ(kept[0].at("events"), json::array{"DELIVERED"});
  EXPECT_EQ(kept[1].at("events"), json::array());
}
#endif

TEST(SandboxOptions, BadOptionsEndWithStatusTwoAndOneLineThatSaysWhy) {
  const auto help = run({program("herald-sandbox"), "--help"});
  EXPECT_EQ(help.exitCode, 0);
  for (const char* text : {"--jwt-secret SECRET", "--client-key KEY", "/_sandbox/send",
                           "truncate=BYTES", "Exit status"})
    EXPECT_NE(help.out.find(text), std::string::npos) << text;

  struct Case {
    std::vector<std::string> args;
    std::string expected;
  } cases[] = {{{"--port", "x"}, "--port takes a number from 0 to 65535, not 'x'"},
               {{"--port"}, "--port needs a value"},
               {{"--jwt-secret", ""}, "--jwt-secret must not be empty"},
               {{"--client-key", "a\tb"}, "--client-key must hold no control characters"},
               {{"--files", "/no/such/folder"}, "--files names no directory"},
               {{"--verbose=yes"}, "--verbose takes no value"},
               {{"serve"}, "unknown argument 'serve'"}};
  for (const auto& c : cases) {
    auto argv = c.args;
    argv.insert(argv.begin(), program("herald-sandbox"));
    const auto f = run(argv);
    EXPECT_EQ(f.exitCode, 2) << c.expected;
    EXPECT_EQ(f.out, "");
    EXPECT_EQ(lines(f.err).size(), 1u) << f.err;
    EXPECT_TRUE(f.err.starts_with("herald-sandbox: " + c.expected)) << f.err;
  }
}

}  // namespace
