// The local service's realtime socket, through the platform's WebSocket client: who may
// connect and subscribe, what a new message and a client's change send to which connection,
// the journal of frames, trouble on request, and the same over TLS.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/url_loading.hpp"
#include "platform/web_socket.hpp"
#include "support/certificates.hpp"

namespace {

using namespace integration;
namespace json = boost::json;
using Code = platform::WebSocketCloseCode;
using Kind = platform::WebSocketMessage::Kind;

Answer post(const Sandbox& sandbox, const std::string& path, const std::string& body,
            const Headers& headers = {}) {
  return call(sandbox.url() + path, "POST", body, headers);
}

std::string tokenFor(const Sandbox& sandbox, const std::string& user,
                     const std::string& query = "") {
  return std::string(
      post(sandbox, "/_sandbox/users/" + user + "/token" + query, "{}").object().at("jwt").as_string());
}

// One connection, driven from the test's thread: every wait is bounded.
class Client {
 public:
  Client(const Sandbox& sandbox, const std::string& query,
         platform::WebSocketConfiguration configuration = {})
      : session_(std::move(configuration)) {
    auto base = sandbox.url();
    base.replace(0, base.find(':'), base.starts_with("https") ? "wss" : "ws");
    task_ = session_.webSocketTask(base + "/realtime/?" + query);
    task_->resume();
  }
  ~Client() { task_->cancel(Code::normalClosure, std::nullopt); }

  void send(const std::string& text) {
    auto done = std::make_shared<std::promise<std::optional<platform::Error>>>();
    task_->send(text, [done](std::optional<platform::Error> error) { done->set_value(error); });
    auto result = done->get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const auto error = result.get();
    ASSERT_FALSE(error) << error->what();
  }

  void subscribe(const std::string& user, const std::string& extra = "") {
    send(R"({"action":"subscribe","data":{"userAgent":"test/1","channel":")" + user +
         R"(","event":"*","version":5)" + extra + "}}");
  }

  /// The next frame, or the error that ended the connection.
  std::variant<platform::WebSocketMessage, platform::Error> next(
      std::chrono::seconds limit = std::chrono::seconds(10)) {
    using Result = std::variant<platform::WebSocketMessage, platform::Error>;
    auto done = std::make_shared<std::promise<Result>>();
    task_->receive([done](std::optional<platform::WebSocketMessage> message,
                          std::optional<platform::Error> error) {
      if (message)
        done->set_value(std::move(*message));
      else
        done->set_value(error.value_or(platform::Error("test", 0, "no frame and no error")));
    });
    auto result = done->get_future();
    if (result.wait_for(limit) != std::future_status::ready)
      return platform::Error("test", 0, "nothing within the time limit");
    return result.get();
  }

  std::string nextText() {
    auto frame = next();
    if (auto* error = std::get_if<platform::Error>(&frame))
      return std::string("error: ") + error->what();
    return std::get<platform::WebSocketMessage>(frame).payload;
  }

  platform::Error nextError(std::chrono::seconds limit = std::chrono::seconds(10)) {
    auto frame = next(limit);
    if (auto* error = std::get_if<platform::Error>(&frame)) return *error;
    return platform::Error("test", 0, "a frame came: " +
                                          std::get<platform::WebSocketMessage>(frame).payload);
  }

  platform::WebSocketTask& task() { return *task_; }

 private:
  platform::WebSocketSession session_;
  std::shared_ptr<platform::WebSocketTask> task_;
};

json::array connections(const Sandbox& sandbox) {
  return call(sandbox.url() + "/_sandbox/realtime").object().at("connections").as_array();
}

// Waits (at most 10 s) until `count` connections are subscribed to `user`.
void awaitSubscribed(const Sandbox& sandbox, const std::string& user, std::size_t count = 1) {
  for (int i = 0; i < 1000; ++i) {
    std::size_t subscribed = 0;
    for (const auto& c : connections(sandbox))
      if (c.at("subscribed").as_bool() && c.at("user") == json::value(user)) ++subscribed;
    if (subscribed >= count) return;
    ::usleep(10'000);
  }
  FAIL() << count << " connection(s) for " << user << " never subscribed";
}

std::string upgrade(int port, const std::string& target) {
  return rawExchange(port, "GET " + target +
                               " HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\n"
                               "Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                               "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n");
}

TEST(SandboxRealtime, OnlyThisAccountsTokensAndClientKeyOpenTheSocket) {
  Sandbox sandbox({"--jwt-secret", "s"});
  Sandbox other({"--jwt-secret", "another"});
  const auto expired = tokenFor(sandbox, "ada", "?ttl=0");
  for (const auto& [query, why] : std::vector<std::pair<std::string, std::string>>{
           {"auth=" + tokenFor(other, "ada"), "signature is not valid"},
           {"auth=" + expired, "has expired"},
           {"auth=nonsense", "malformed"},
           {"clientKey=wrong", "client key is not valid"},
           {"", "No credentials"}}) {
    const auto answer = upgrade(sandbox.port(), "/realtime/?" + query);
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 401")) << query << "\n" << answer;
    EXPECT_NE(answer.find("authentication_error"), std::string::npos) << answer;
    EXPECT_NE(answer.find(why), std::string::npos) << answer;
  }
  // The client sees the refusal as an upgrade that was not answered with 101.
  Client refused(sandbox, "clientKey=wrong");
  const auto error = refused.nextError();
  EXPECT_EQ(error.code(), platform::url_error::badServerResponse) << error.what();
  EXPECT_NE(std::string(error.what()).find("401"), std::string::npos) << error.what();
  // Without an upgrade the socket's path says what it takes.
  EXPECT_EQ(call(sandbox.url() + "/realtime/").status, 426);

}

TEST(SandboxRealtime, BadFramesAndForeignChannelsAreClosedWithTheReason) {
  Sandbox sandbox;
  const auto jwt = tokenFor(sandbox, "ada");
  struct Case {
    std::string query, frame;
    Code code;
    std::string reason;
  } cases[] = {
      {"auth=" + jwt, R"({"action":"subscribe","data":{"channel":"bob"}})", Code::policyViolation,
       "the access token is for user \"ada\", not for channel \"bob\""},
      {"clientKey=sandbox-client-key", "not json", Code::policyViolation, "JSON object"},
      {"clientKey=sandbox-client-key", R"({"action":"unsubscribe"})", Code::policyViolation,
       "unknown action \"unsubscribe\""},
      {"clientKey=sandbox-client-key", R"({"action":"subscribe","data":{"event":"*"}})",
       Code::policyViolation, "\"channel\" must name the user"},
      {"clientKey=sandbox-client-key",
       R"({"action":"subscribe","data":{"channel":"ada","clientKey":"stolen"}})",
       Code::policyViolation, "not this account's client key"},
  };
  for (const auto& c : cases) {
    Client client(sandbox, c.query);
    client.send(c.frame);
    const auto error = client.nextError();
    EXPECT_EQ(error.code(), platform::posix_error::socketNotConnected) << c.frame << error.what();
    EXPECT_EQ(client.task().closeCode(), c.code) << c.frame;
    EXPECT_NE(client.task().closeReason().value_or("").find(c.reason), std::string::npos)
        << c.frame << ": " << client.task().closeReason().value_or("(none)");
  }
  // The client key may subscribe to anyone; the token's own user is taken.
  Client key(sandbox, "clientKey=sandbox-client-key");
  key.subscribe("bob");
  Client own(sandbox, "auth=" + jwt);
  own.subscribe("ada");
  awaitSubscribed(sandbox, "bob");
  awaitSubscribed(sandbox, "ada");
}

TEST(SandboxRealtime, MessagesReachTheirUsersAndEventsTheOtherConnections) {
  Sandbox sandbox;
  const auto jwt = tokenFor(sandbox, "ada");
  Client first(sandbox, "auth=" + jwt), second(sandbox, "clientKey=sandbox-client-key"),
      tenant(sandbox, "clientKey=sandbox-client-key"), bob(sandbox, "clientKey=sandbox-client-key");
  first.subscribe("ada", R"(,"clientSourceId":"first")");
  second.subscribe("ada", R"(,"clientSourceId":"second")");
  tenant.subscribe("ada", R"(,"clientSourceId":"tenant","accountId":"t1")");
  bob.subscribe("bob");
  awaitSubscribed(sandbox, "ada", 3);
  awaitSubscribed(sandbox, "bob");

  const auto added = post(sandbox, "/_sandbox/users/ada/messages",
                          R"({"title":"Hi","body":"there","data":{"k":[1]},"actions":[{"content":"Open","href":"kelvara://x"}]})");
  ASSERT_EQ(added.status, 200) << added.body;
  const auto frame = platform::parseJSON(first.nextText()).as_object();
  EXPECT_EQ(frame.at("type"), "message");
  EXPECT_EQ(frame.at("messageId"), "i1");
  EXPECT_EQ(frame.at("title"), "Hi");
  EXPECT_EQ(frame.at("body"), "there");
  EXPECT_TRUE(frame.at("preview").is_null());
  EXPECT_EQ(frame.at("data"), json::parse(R"({"k":[1]})"));
  EXPECT_EQ(frame.at("actions").at(0).at("href"), "kelvara://x");
  EXPECT_EQ(frame.at("trackingIds"), added.object().at("trackingIds"));
  EXPECT_EQ(frame.at("created"), added.object().at("created"));
  EXPECT_TRUE(frame.at("read").is_null());
  EXPECT_EQ(platform::parseJSON(second.nextText()).at("messageId"), "i1");
  // A message of tenant t1 reaches the connection that named t1; the one without did not.
  ASSERT_EQ(post(sandbox, "/_sandbox/users/ada/messages", R"({"title":"t","tenant":"t1"})").status,
            200);
  EXPECT_EQ(platform::parseJSON(tenant.nextText()).at("messageId"), "i2");
  EXPECT_EQ(platform::parseJSON(first.nextText()).at("messageId"), "i2");
  EXPECT_EQ(platform::parseJSON(second.nextText()).at("messageId"), "i2");

  const Headers asFirst{{"x-herald-user-id", "ada"},
                        {"Authorization", "Bearer " + jwt},
                        {"x-herald-client-source-id", "first"}};
  for (const auto& [mutation, event] : std::vector<std::pair<std::string, std::string>>{
           {R"(read(messageId: \"i1\"))", R"({"type":"event","event":"read","messageId":"i1"})"},
           {R"(unread(messageId: \"i1\"))", R"({"type":"event","event":"unread","messageId":"i1"})"},
           {R"(opened(messageId: \"i1\"))", R"({"type":"event","event":"opened","messageId":"i1"})"},
           {R"(clicked(messageId: \"i1\"))", R"({"type":"event","event":"click","messageId":"i1"})"},
           {R"(archive(messageId: \"i1\"))",
            R"({"type":"event","event":"archive","messageId":"i1"})"},
           {"markAllRead", R"({"type":"event","event":"mark-all-read"})"}}) {
    const auto answer =
        post(sandbox, "/inbox/q", R"({"query":"mutation { )" + mutation + R"( }"})", asFirst);
    ASSERT_EQ(answer.status, 200) << answer.body;
    EXPECT_EQ(second.nextText(), event);
  }
  // mark-all-read reaches every tenant; an event of a message without one does not reach t1.
  EXPECT_EQ(tenant.nextText(), R"({"type":"event","event":"mark-all-read"})");
  // A mutation that fails (no such message) tells nobody; one without a source id everybody.
  EXPECT_EQ(post(sandbox, "/inbox/q", R"({"query":"mutation { read(messageId: \"i9\") }"})", asFirst)
                .firstError(),
            "User \"ada\" has no message \"i9\".");
  ASSERT_EQ(post(sandbox, "/inbox/q", R"({"query":"mutation { read(messageId: \"i2\") }"})",
                 {{"x-herald-user-id", "ada"}, {"x-herald-client-key", "sandbox-client-key"}})
                .status,
            200);
  const auto read2 = R"({"type":"event","event":"read","messageId":"i2"})";
  EXPECT_EQ(first.nextText(), read2);  // not the events "first" made, nor the failed one
  EXPECT_EQ(second.nextText(), read2);
  EXPECT_EQ(tenant.nextText(), read2);

  // A push sent to ada becomes an inbox message on her sockets, and bob heard nothing of all
  // this: his first frame is his own.
  ASSERT_EQ(call(sandbox.url() + "/users/ada/tokens/0aff", "PUT",
                 R"({"provider_key":"apn","device":{}})", {{"Authorization", "Bearer " + jwt}})
                .status,
            204);
  ASSERT_EQ(post(sandbox, "/_sandbox/send",
                 R"({"user":"ada","push":{"aps":{"alert":{"title":"Sent"}}}})")
                .status,
            200);
  EXPECT_EQ(platform::parseJSON(second.nextText()).at("title"), "Sent");
  ASSERT_EQ(post(sandbox, "/_sandbox/realtime/bob", R"({"text":"yours"})").status, 200);
  EXPECT_EQ(bob.nextText(), "yours");
}

TEST(SandboxRealtime, TheJournalHoldsEveryFrameAsItWent) {
  Sandbox sandbox;
  Client client(sandbox, "clientKey=sandbox-client-key");
  const std::string subscribe =
      "{ \"action\" : \"subscribe\",\n \"data\": {\"channel\":\"ada\", \"version\": 5} }";
  client.send(R"({"action":"keepAlive"})");
  client.send(subscribe);
  awaitSubscribed(sandbox, "ada");  // and so the keep-alive before it was read
  ASSERT_EQ(post(sandbox, "/_sandbox/realtime/ada", R"({"binary":"00ff7f"})").status, 200);
  ASSERT_EQ(client.next().index(), 0u);

  std::vector<json::object> frames;
  for (const auto& entry : sandbox.journal())
    if (entry.at("method") == "FRAME") frames.push_back(entry.as_object());
  ASSERT_EQ(frames.size(), 3u) << json::serialize(sandbox.journal());
  EXPECT_EQ(frames[0].at("body"), R"({"action":"keepAlive"})");
  EXPECT_EQ(frames[1].at("body").as_string(), subscribe);
  EXPECT_EQ(frames[1].at("direction"), "received");
  EXPECT_EQ(frames[1].at("kind"), "text");
  EXPECT_EQ(frames[1].at("path"), "/realtime/");
  EXPECT_EQ(frames[2].at("direction"), "sent");
  EXPECT_EQ(frames[2].at("kind"), "binary");
  EXPECT_EQ(frames[2].at("body"), "00ff7f");
  const auto listed = connections(sandbox).at(0).as_object();
  EXPECT_EQ(listed.at("framesIn"), 2);
  EXPECT_EQ(listed.at("framesOut"), 1);
  EXPECT_EQ(listed.at("keepAlives"), 1);
}

TEST(SandboxRealtime, TroubleOnRequest) {
  Sandbox sandbox;
  EXPECT_EQ(post(sandbox, "/_sandbox/realtime/ada", R"({"text":"x"})").status, 404);
  for (const auto& body : {R"({})", R"({"text":"a","reset":true})", R"({"close":{"code":1005}})",
                           R"({"binary":"0g"})", R"({"size":3})", R"({"stall":true,"repeat":2})"})
    EXPECT_EQ(post(sandbox, "/_sandbox/realtime/ada", body).status, 400) << body;

  {
    Client client(sandbox, "clientKey=sandbox-client-key");
    client.subscribe("ada");
    awaitSubscribed(sandbox, "ada");
    EXPECT_EQ(post(sandbox, "/_sandbox/realtime/ada", R"({"text":"not json"})").body,
              R"({"connections":1})");
    EXPECT_EQ(client.nextText(), "not json");
    ASSERT_EQ(post(sandbox, "/_sandbox/realtime/ada", R"({"frame":{"n":[1,2]},"repeat":3})").status,
              200);
    ASSERT_EQ(post(sandbox, "/_sandbox/realtime/ada", R"({"frame":"last"})").status, 200);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(client.nextText(), R"({"n":[1,2]})");
    EXPECT_EQ(client.nextText(), R"("last")");
    ASSERT_EQ(post(sandbox, "/_sandbox/realtime/ada", R"({"size":5000000})").status, 200);
    const auto large = client.nextText();
    EXPECT_EQ(large.size(), 5'000'000u);
    EXPECT_TRUE(platform::tryParseJSON(large).has_value());
    ASSERT_EQ(post(sandbox, "/_sandbox/realtime/ada", R"({"close":{"code":4000,"reason":"go"}})")
                  .status,
              200);
    EXPECT_EQ(client.nextError().code(), platform::posix_error::socketNotConnected);
    EXPECT_EQ(static_cast<int>(client.task().closeCode()), 4000);
    EXPECT_EQ(client.task().closeReason(), "go");
  }
  {
    Client client(sandbox, "clientKey=sandbox-client-key");
    client.subscribe("bob");
    awaitSubscribed(sandbox, "bob");
    ASSERT_EQ(post(sandbox, "/_sandbox/realtime/bob", R"({"reset":true})").status, 200);
    const auto error = client.nextError();
    EXPECT_EQ(error.code(), platform::url_error::networkConnectionLost) << error.what();
  }
  {
    platform::WebSocketConfiguration quick;
    quick.idleTimeout = std::chrono::seconds(2);
    Client client(sandbox, "clientKey=sandbox-client-key", quick);
    client.subscribe("cy");
    awaitSubscribed(sandbox, "cy");
    ASSERT_EQ(post(sandbox, "/_sandbox/realtime/cy", R"({"stall":true})").status, 200);
    ASSERT_EQ(post(sandbox, "/_sandbox/realtime/cy", R"({"text":"never"})").status, 200);
    EXPECT_TRUE(connections(sandbox).back().at("stalled").as_bool());
    // No pong answers the client's ping, and no frame comes: its idle time-out ends it.
    const auto error = client.nextError(std::chrono::seconds(20));
    EXPECT_EQ(error.code(), platform::url_error::timedOut) << error.what();
  }
}

// SIGTERM ends the service with status 0 whatever its connections are doing: open but not
// subscribed, subscribed (several to one user), or stalled; each client then sees its
// connection end rather than a frame.
TEST(SandboxRealtime, SigtermEndsEveryConnectionAndTheServiceExitsCleanly) {
  Sandbox sandbox;
  std::vector<std::unique_ptr<Client>> clients;
  for (const auto* user : {"", "ada", "ada", "bob", "cy"}) {
    clients.push_back(std::make_unique<Client>(sandbox, "clientKey=sandbox-client-key"));
    if (*user) clients.back()->subscribe(user);
  }
  awaitSubscribed(sandbox, "ada", 2);
  awaitSubscribed(sandbox, "bob");
  awaitSubscribed(sandbox, "cy");
  ASSERT_EQ(post(sandbox, "/_sandbox/realtime/cy", R"({"stall":true})").status, 200);
  ASSERT_EQ(connections(sandbox).size(), 5u);

  EXPECT_EQ(sandbox.stop(), 0);
  for (auto& client : clients) EXPECT_NE(client->next().index(), 0u);
}

// A certificate for 127.0.0.1 made for the test, and a key of another one.
TEST(SandboxRealtime, TLSServesHTTPSAndTheSecureSocket) {
  testing_support::Certificates tls;
  const auto cert = tls.path("server.pem"), key = tls.path("server.key");
  const auto refused = run({program("herald-sandbox"), "--tls-cert", cert.string(),
                            "--tls-key", tls.path("other.key").string()});
  EXPECT_EQ(refused.exitCode, 2);
  EXPECT_EQ(lines(refused.err).size(), 1u) << refused.err;
  EXPECT_NE(refused.err.find("is not the key of the certificate"), std::string::npos)
      << refused.err;

  Sandbox sandbox({"--tls-cert", cert.string(), "--tls-key", key.string()});
  ASSERT_TRUE(sandbox.url().starts_with("https://127.0.0.1:")) << sandbox.url();
  const auto plain = rawExchange(sandbox.port(), "GET /_sandbox/realtime HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_TRUE(plain.starts_with("HTTP/1.1 400")) << plain;
  EXPECT_NE(plain.find("use " + sandbox.url()), std::string::npos) << plain;

  platform::WebSocketConfiguration trusting;
  trusting.caFile = tls.path("ca.pem");
  Client client(sandbox, "clientKey=sandbox-client-key", trusting);
  client.subscribe("ada");
  // The routes over HTTPS: curl, trusting the same certificate.
  const auto curl = [&](const std::string& method, const std::string& path,
                        const std::string& body) {
    return run({"/usr/bin/curl", "-s", "--cacert", tls.path("ca.pem").string(), "-X", method,
                "-d", body,
                sandbox.url() + path});
  };
  for (int i = 0; i < 1000 && curl("GET", "/_sandbox/realtime", "").out.find("\"subscribed\":true") ==
                                  std::string::npos;
       ++i)
    ::usleep(10'000);
  EXPECT_EQ(curl("POST", "/_sandbox/users/ada/messages", R"({"title":"secure"})").exitCode, 0);
  EXPECT_EQ(platform::parseJSON(client.nextText()).at("title"), "secure");
  // A secure connection ends with the service as a plain one does.
  EXPECT_EQ(sandbox.stop(), 0);
}

}  // namespace
