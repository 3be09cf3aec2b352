// What the inbox socket puts on the wire and how it reads what comes back, without a
// connection. The socket against the local service is in tests/integration.
#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include "herald/herald_agent.hpp"
#include "herald/inbox_socket.hpp"

namespace {

herald::HeraldClient::Options options(std::optional<std::string> jwt,
                                      std::optional<std::string> clientKey) {
  return {std::move(jwt), std::move(clientKey), "ada", std::nullopt, std::nullopt, false};
}

}  // namespace

TEST(InboxSocket, URLCarriesTheTokenOverTheClientKeyAndNothingWithoutEither) {
  const std::string endpoint = "wss://realtime.example";
  EXPECT_EQ(herald::InboxSocket::socketURL(endpoint, options("a.b.c", "key")),
            "wss://realtime.example/?auth=a.b.c");
  EXPECT_EQ(herald::InboxSocket::socketURL(endpoint, options(std::nullopt, "k y&")),
            "wss://realtime.example/?clientKey=k y&");
  EXPECT_EQ(herald::InboxSocket::socketURL(endpoint, options(std::nullopt, std::nullopt)),
            endpoint);
}

TEST(InboxSocket, SubscribeMessageHasItsOptionalMembersLastAndInOrder) {
  herald::HeraldAgent::setCurrent(herald::HeraldAgent::flutterIOS("2.0.1"));
  auto bare = options("jwt", std::nullopt);
  EXPECT_EQ(boost::json::serialize(herald::InboxSocket::subscribeMessage(bare, 5)),
            R"({"action":"subscribe","data":{"userAgent":"herald-flutter-ios/2.0.1",)"
            R"("channel":"ada","event":"*","version":5}})");
  auto full = options("jwt", "key");
  full.connectionId = "conn-1";
  full.tenantId = "tenant-9";
  EXPECT_EQ(boost::json::serialize(herald::InboxSocket::subscribeMessage(full, 5)),
            R"({"action":"subscribe","data":{"userAgent":"herald-flutter-ios/2.0.1",)"
            R"("channel":"ada","event":"*","version":5,"clientKey":"key",)"
            R"("clientSourceId":"conn-1","accountId":"tenant-9"}})");
  herald::HeraldAgent::setCurrent(herald::HeraldAgent::nativeIOS("5.5.5"));
}

TEST(InboxSocket, FramesDecodeAsEventsOrMessagesAndAnythingElseNamesWhatIsWrong) {
  const auto event = herald::decodeSocketFrame(R"({"type":"event","event":"mark-all-read"})");
  ASSERT_TRUE(std::holds_alternative<herald::MessageEvent>(event));
  EXPECT_EQ(std::get<herald::MessageEvent>(event),
            (herald::MessageEvent{herald::InboxEventType::markAllRead, std::nullopt, "event"}));

  const auto message = herald::decodeSocketFrame(
      R"({"type":"message","messageId":"i7","title":"Hi","read":"2026-01-01T00:00:00Z"})");
  ASSERT_TRUE(std::holds_alternative<herald::InboxMessagePtr>(message));
  const auto& decoded = *std::get<herald::InboxMessagePtr>(message);
  EXPECT_EQ(decoded.messageId, "i7");
  EXPECT_EQ(decoded.title, "Hi");
  EXPECT_TRUE(decoded.isRead());

  const auto failure = [](std::string_view text) -> std::string {
    try {
      herald::decodeSocketFrame(text);
    } catch (const core::DecodingError& e) {
      return e.what();
    }
    return "decoded";
  };
  EXPECT_EQ(failure(R"({"type":"presence"})"),
            R"("type": "presence" is not one of "event", "message")");
  EXPECT_EQ(failure(R"({"type":"event","event":"starred","messageId":"i1"})").substr(0, 28),
            R"("event": "starred" is not on)");
  EXPECT_EQ(failure(R"({"type":"message","title":"no id"})").substr(0, 11), R"("messageId")");
  EXPECT_EQ(failure(R"({"event":"read"})").substr(0, 6), R"("type")");
  EXPECT_NE(failure("not json"), "decoded");
  EXPECT_NE(failure(R"(["type","event"])"), "decoded");
}
