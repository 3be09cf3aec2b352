// The inbox socket against the local service's realtime endpoint: what goes on the wire,
// what comes back, and how each way of ending or failing reaches the socket's callbacks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <boost/json/serialize.hpp>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "herald/endpoints.hpp"
#include "herald/herald.hpp"
#include "herald/inbox_client.hpp"
#include "herald/inbox_socket.hpp"
#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/main_queue.hpp"
#include "platform/system_log.hpp"
#include "platform/tls.hpp"
#include "platform/user_defaults.hpp"
#include "support/certificates.hpp"

namespace {

using namespace integration;
namespace json = boost::json;
using Clock = std::chrono::steady_clock;
using Code = platform::WebSocketCloseCode;

// Everything the socket's callbacks and the SDK's log said, for bounded waits.
class Recorder {
 public:
  void attach(herald::InboxSocket& socket) {
    socket.receivedMessage = [this](herald::InboxMessagePtr m) { add([&] { messages.push_back(m); }); };
    socket.receivedMessageEvent = [this](const herald::MessageEvent& e) {
      add([&] { events.push_back(e); });
    };
    socket.onOpen = [this] { add([&] { ++opens; }); };
    socket.onClose = [this](Code code, std::optional<std::string> reason) {
      add([&] { closes.emplace_back(code, reason.value_or("")); });
    };
    socket.onError = [this](const platform::Error& e) { add([&] { errors.push_back(e); }); };
  }
  platform::LogSink sink() {
    return [this](const platform::LogRecord& r) {
      add([&] { logs.push_back(std::string(platform::toString(r.type)) + ": " + r.message); });
    };
  }

  /// Waits (at most 10 s) until `done` holds; the recorder is locked while it is asked.
  template <class Done>
  bool waitFor(Done done) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), done);
  }
  std::size_t count(std::string_view logLine) {
    std::lock_guard lock(mutex);
    return std::count_if(logs.begin(), logs.end(),
                         [&](const auto& l) { return l.find(logLine) != std::string::npos; });
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<herald::InboxMessagePtr> messages;
  std::vector<herald::MessageEvent> events;
  std::vector<std::pair<Code, std::string>> closes;
  std::vector<platform::Error> errors;
  std::vector<std::string> logs;
  int opens = 0;

 private:
  template <class Change>
  void add(Change change) {
    {
      std::lock_guard lock(mutex);
      change();
    }
    changed.notify_all();
  }
};

class InboxSocketTest : public ::testing::Test {
 protected:
  explicit InboxSocketTest(std::vector<std::string> sandboxArgs = {}) : sandbox_(sandboxArgs) {
    herald::Endpoints::setCurrent(herald::Endpoints::localService(sandbox_.url()));
  }
  ~InboxSocketTest() override {
    herald::Endpoints::setCurrent(std::nullopt);
    platform::setTrustedCertificates(std::nullopt);
  }

  std::string url(const std::string& path) const { return sandbox_.url() + path; }
  std::string tokenFor(const std::string& user) const {
    const auto minted = call(url("/_sandbox/users/" + user + "/token"), "POST");
    EXPECT_EQ(minted.status, 200) << minted.body;
    return std::string(minted.object().at("jwt").as_string());
  }
  herald::HeraldClient::Options options(const std::string& user,
                                        std::optional<std::string> connectionId = std::nullopt,
                                        bool showLogs = false) const {
    return {tokenFor(user), std::nullopt, user, std::move(connectionId), std::nullopt, showLogs};
  }
  // A connected, subscribed socket whose callbacks go to `recorder`.
  std::shared_ptr<herald::InboxSocket> subscribed(
      herald::HeraldClient::Options options, Recorder& recorder,
      platform::WebSocketConfiguration configuration = {}) {
    auto socket = herald::InboxSocket::create(std::move(options), configuration);
    recorder.attach(*socket);
    platform::blockOn(socket->connect());
    platform::blockOn(socket->sendSubscribe(5));
    EXPECT_TRUE(waitForConnections([](const json::array& all) {
      return !all.empty() && all.back().at("subscribed") == true;
    }));
    return socket;
  }
  // Bounded: the service's view of its connections, until `done` holds.
  template <class Done>
  bool waitForConnections(Done done) const {
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (;;) {
      const auto all = call(url("/_sandbox/realtime")).object().at("connections").as_array();
      if (done(all)) return true;
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  long trouble(const std::string& user, const std::string& body) const {
    return call(url("/_sandbox/realtime/" + user), "POST", body).status;
  }
  std::string addMessage(const std::string& user, const std::string& title) const {
    const auto added = call(url("/_sandbox/users/" + user + "/messages"), "POST",
                            platform::toJSON(json::object{{"title", title}}));
    EXPECT_EQ(added.status, 200) << added.body;
    return std::string(added.object().at("messageId").as_string());
  }
  // The frames of the journal, in order: (direction, kind, body).
  std::vector<std::vector<std::string>> frames() const {
    std::vector<std::vector<std::string>> out;
    for (const auto& entry : sandbox_.journal()) {
      const auto& e = entry.as_object();
      if (e.at("method") != "FRAME") continue;
      out.push_back({std::string(e.at("direction").as_string()),
                     std::string(e.at("kind").as_string()),
                     std::string(e.at("body").as_string())});
    }
    return out;
  }

  Sandbox sandbox_;
};

}  // namespace

namespace herald {
// Failures show the event as its JSON.
void PrintTo(const MessageEvent& event, std::ostream* out) {
  *out << boost::json::serialize(event.toJSON());
}
}  // namespace herald

TEST_F(InboxSocketTest, SubscribesByteForByteAndHearsNewMessagesAndOtherDevicesChanges) {
  auto mine = options("ada", "device-a");
  mine.clientKey = "sandbox-client-key";
  Recorder recorder;
  auto socket = subscribed(mine, recorder);
  // The token alone goes into the URL; the key travels in the subscription.
  EXPECT_EQ(socket->url, herald::Endpoints::current().realtimeSocketURL + "/?auth=" + *mine.jwt);
  ASSERT_FALSE(frames().empty());
  EXPECT_EQ(frames().front(),
            (std::vector<std::string>{
                "received", "text",
                R"({"action":"subscribe","data":{"userAgent":"herald-ios/5.5.5","channel":"ada",)"
                R"("event":"*","version":5,"clientKey":"sandbox-client-key",)"
                R"("clientSourceId":"device-a"}})"}));

  const auto id = addMessage("ada", "Hello");
  ASSERT_TRUE(recorder.waitFor([&] { return !recorder.messages.empty(); }));
  EXPECT_EQ(recorder.messages.front()->messageId, id);
  EXPECT_EQ(recorder.messages.front()->title, "Hello");
  EXPECT_FALSE(recorder.messages.front()->isRead());

  // A change made through this device's own connection id is not echoed back to it; one
  // made on another device is.
  herald::HeraldClient self(mine.jwt, std::nullopt, "ada", "device-a", std::nullopt, false);
  herald::HeraldClient other(mine.jwt, std::nullopt, "ada", "device-b", std::nullopt, false);
  platform::blockOn(self.inbox()->archive(id));
  platform::blockOn(other.inbox()->read(id));
  platform::blockOn(other.inbox()->readAll());
  ASSERT_TRUE(recorder.waitFor([&] { return recorder.events.size() >= 2; }));
  EXPECT_EQ(recorder.events[0], (herald::MessageEvent{herald::InboxEventType::read, id, "event"}));
  EXPECT_EQ(recorder.events[1],
            (herald::MessageEvent{herald::InboxEventType::markAllRead, std::nullopt, "event"}));
  EXPECT_TRUE(recorder.errors.empty());
}

TEST_F(InboxSocketTest, WithNeitherCredentialTheURLIsBareAndTheRefusalReachesOnError) {
  Recorder recorder;
  auto socket = herald::InboxSocket::create({std::nullopt, std::nullopt, "ada", std::nullopt,
                                             std::nullopt, false});
  recorder.attach(*socket);
  EXPECT_EQ(socket->url, herald::Endpoints::current().realtimeSocketURL);
  platform::blockOn(socket->connect());
  ASSERT_TRUE(recorder.waitFor([&] { return !recorder.errors.empty(); }));
  EXPECT_EQ(recorder.errors.front().code(), platform::url_error::badServerResponse);
  EXPECT_NE(std::string(recorder.errors.front().what()).find("401"), std::string::npos)
      << recorder.errors.front().what();
}

TEST_F(InboxSocketTest, FramesThatCannotBeReadAreDroppedWithAnErrorLineAndTheNextStillArrives) {
  Recorder recorder;
  platform::SystemLog::ScopedSink capture(recorder.sink());
  auto socket = subscribed(options("ada", std::nullopt, /*showLogs=*/true), recorder);
  const std::string binaryMessage = R"({"type":"message","messageId":"b1"})";
  std::string hex;
  for (unsigned char c : binaryMessage) {
    hex += "0123456789abcdef"[c >> 4];
    hex += "0123456789abcdef"[c & 0xf];
  }
  EXPECT_EQ(trouble("ada", R"({"text": "not json"})"), 200);
  EXPECT_EQ(trouble("ada", R"({"frame": {"type": "presence", "messageId": "x"}})"), 200);
  EXPECT_EQ(trouble("ada", R"({"frame": {"type": "event", "event": "starred"}})"), 200);
  EXPECT_EQ(trouble("ada", R"({"binary": "c328ff"})"), 200);
  EXPECT_EQ(trouble("ada", "{\"binary\": \"" + hex + "\"}"), 200);
  EXPECT_EQ(trouble("ada", R"({"size": 3000000})"), 200);
  const auto id = addMessage("ada", "still here");

  ASSERT_TRUE(recorder.waitFor([&] { return recorder.messages.size() == 3; }));
  EXPECT_EQ(recorder.messages[0]->messageId, "b1");
  EXPECT_EQ(recorder.messages[1]->messageId, "large");
  EXPECT_EQ(recorder.messages[2]->messageId, id);
  EXPECT_EQ(recorder.count("Inbox socket frame dropped"), 3u);
  EXPECT_EQ(recorder.count("not UTF-8"), 1u);
  EXPECT_EQ(recorder.count(R"("type": "presence" is not one of)"), 1u);
  EXPECT_TRUE(recorder.errors.empty());
  EXPECT_TRUE(recorder.closes.empty());
}

TEST_F(InboxSocketTest, ConnectingAgainClosesTheFirstConnectionWithNormalClosure) {
  Recorder recorder;
  auto socket = subscribed(options("ada"), recorder);
  const auto first = socket->webSocketTask();
  platform::blockOn(socket->connect());
  EXPECT_NE(socket->webSocketTask(), first);
  ASSERT_TRUE(waitForConnections([](const json::array& all) {
    return all.size() == 1 && all.front().at("connection") == 2;
  }));
  EXPECT_EQ(first->closeCode(), Code::normalClosure);
  bool closedWith1000 = false;
  for (const auto& entry : sandbox_.journal())
    if (entry.at("method") == "FRAME" && entry.at("connection") == 1 &&
        entry.at("kind") == "close" && entry.at("direction") == "received")
      closedWith1000 = entry.at("code") == 1000;
  EXPECT_TRUE(closedWith1000);
  // The old connection's end is no error of the new one.
  EXPECT_TRUE(recorder.errors.empty());
}

TEST_F(InboxSocketTest, TheServiceClosingEndsTheLoopQuietlyWhileAResetReachesOnError) {
  // The quiet end is logged by the signed-in client, when it logs.
  const auto store = std::filesystem::temp_directory_path() /
                     ("inbox-socket-test-" + std::to_string(::getpid()));
  platform::UserDefaults::setStandardDirectory(store);
  auto& herald = herald::Herald::shared();
  platform::blockOn(herald.signIn("ada", std::nullopt, tokenFor("ada"), std::nullopt, true));

  Recorder recorder;
  platform::SystemLog::ScopedSink capture(recorder.sink());
  auto socket = subscribed(options("ada"), recorder);
  EXPECT_EQ(trouble("ada", R"({"close": {"code": 4000, "reason": "bye"}})"), 200);
  ASSERT_TRUE(recorder.waitFor([&] { return !recorder.closes.empty(); }));
  EXPECT_EQ(recorder.closes.front(), std::make_pair(static_cast<Code>(4000), std::string("bye")));
  ASSERT_TRUE(recorder.waitFor([&] {
    return std::find(recorder.logs.begin(), recorder.logs.end(), "debug: WebSocket closed") !=
           recorder.logs.end();
  }));
  EXPECT_TRUE(recorder.errors.empty());

  Recorder second;
  auto another = subscribed(options("ada"), second);
  EXPECT_EQ(trouble("ada", R"({"reset": true})"), 200);
  ASSERT_TRUE(second.waitFor([&] { return !second.errors.empty(); }));
  EXPECT_EQ(second.errors.front().code(), platform::url_error::networkConnectionLost)
      << second.errors.front().what();
  EXPECT_TRUE(second.closes.empty());
  platform::blockOn(herald.signOut());
  platform::UserDefaults::setStandardDirectory(std::nullopt);
  std::filesystem::remove_all(store);
}

TEST_F(InboxSocketTest, KeepAlivesArriveOnTheIntervalUntilDisconnected) {
  Recorder recorder;
  auto socket = subscribed(options("ada"), recorder);
  socket->keepAlive(0.05);
  EXPECT_TRUE(socket->hasPingTimer());
  // The timer runs on the main queue, which this test drives.
  auto& main = platform::MainQueue::shared();
  EXPECT_TRUE(main.runUntil(
      [&] {
        const auto all = call(url("/_sandbox/realtime")).object().at("connections").as_array();
        return all.front().at("keepAlives").as_int64() >= 3;
      },
      std::chrono::seconds(10)));
  socket->disconnect();
  EXPECT_FALSE(socket->hasPingTimer());
  for (const auto& frame : frames()) {
    if (frame[0] == "received" && frame[2].find("keepAlive") != std::string::npos) {
      EXPECT_EQ(frame[2], R"({"action":"keepAlive"})");
    }
  }
}

TEST_F(InboxSocketTest, AFrameOverTheLimitAndAStalledServiceEndInDefinedErrors) {
  platform::WebSocketConfiguration small;
  small.maximumMessageSize = 1024 * 1024;
  small.idleTimeout = std::chrono::milliseconds(600);
  Recorder big;
  auto socket = subscribed(options("ada"), big, small);
  EXPECT_EQ(trouble("ada", R"({"size": 2000000})"), 200);
  ASSERT_TRUE(big.waitFor([&] { return !big.errors.empty(); }));
  EXPECT_EQ(big.errors.front().code(), platform::url_error::dataLengthExceedsMaximum);

  Recorder stalled;
  auto quiet = subscribed(options("bob"), stalled, small);
  EXPECT_EQ(trouble("bob", R"({"stall": true})"), 200);
  ASSERT_TRUE(stalled.waitFor([&] { return !stalled.errors.empty(); }));
  EXPECT_EQ(stalled.errors.front().code(), platform::url_error::timedOut)
      << stalled.errors.front().what();
}

class SecureInboxSocketTest : public InboxSocketTest {
 protected:
  SecureInboxSocketTest()
      : InboxSocketTest({"--tls-cert", certificates().path("server.pem").string(), "--tls-key",
                         certificates().path("server.key").string()}) {}
  static const testing_support::Certificates& certificates() {
    static const testing_support::Certificates made;
    return made;
  }
};

TEST_F(SecureInboxSocketTest, AnUntrustedCertificateIsRefusedAndATrustedOneCarriesTheInbox) {
  platform::setTrustedCertificates(certificates().path("ca.pem"));
  const auto ada = options("ada");
  ASSERT_EQ(herald::Endpoints::current().realtimeSocketURL.rfind("wss://", 0), 0u);

  platform::setTrustedCertificates(std::nullopt);
  Recorder refused;
  auto untrusted = herald::InboxSocket::create(ada);
  refused.attach(*untrusted);
  platform::blockOn(untrusted->connect());
  ASSERT_TRUE(refused.waitFor([&] { return !refused.errors.empty(); }));
  EXPECT_EQ(refused.errors.front().code(), platform::url_error::secureConnectionFailed);
  EXPECT_NE(std::string(refused.errors.front().what()).find("certificate verify failed"),
            std::string::npos)
      << refused.errors.front().what();

  platform::setTrustedCertificates(certificates().path("ca.pem"));
  Recorder recorder;
  auto socket = subscribed(ada, recorder);
  const auto id = addMessage("ada", "over TLS");
  ASSERT_TRUE(recorder.waitFor([&] { return !recorder.messages.empty(); }));
  EXPECT_EQ(recorder.messages.front()->messageId, id);
}
