#include "herald/inbox_client.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "herald/endpoints.hpp"
#include "herald/herald_client.hpp"
#include "herald/herald_error.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "platform/system_log.hpp"
#include "support/http_server.hpp"

using herald::HeraldError;
using herald::InboxClient;
using testing_support::HttpServer;
using testing_support::ScriptedResponse;
using Headers = std::vector<std::pair<std::string, std::string>>;

namespace {

InboxClient inbox(std::optional<std::string> tenantId = std::nullopt,
                  std::optional<std::string> connectionId = "CONN-1",
                  std::optional<std::string> jwt = "jwt-1",
                  std::optional<std::string> clientKey = "key-1") {
  return InboxClient({jwt, clientKey, "user-1", connectionId, tenantId, false});
}

// Points the client at `server` for the life of the object.
struct LocalInbox {
  explicit LocalInbox(const HttpServer& server) {
    herald::Endpoints::setCurrent(herald::Endpoints::localService(server.baseURL()));
  }
  ~LocalInbox() { herald::Endpoints::setCurrent(std::nullopt); }
};

std::string sentQuery(const testing_support::RecordedRequest& request) {
  const auto body = platform::parseJSON(request.body).as_object();
  EXPECT_EQ(body.at("variables"), "{}");
  return std::string(body.at("query").as_string());
}

// The page selection, written out as the service expects it.
const std::string kPageTail = R"(
    ) {
        count(params: $params)
        messages(params: $params, limit: $limit, after: $after) {
            totalCount
            pageInfo {
                startCursor
                hasNextPage
            }
            nodes {
                messageId
                read
                archived
                created
                opened
                title
                preview
                data
                actions {
                    content
                    data
                    href
                }
                trackingIds {
                    clickTrackingId
                }
            }
        }
    })";

}  // namespace

TEST(InboxQueries, PageQueriesCarryTheTenantAndCursorDefaultsOnlyWhenGiven) {
  EXPECT_EQ(inbox().getMessagesQuery(24, std::nullopt), R"(    query GetMessages(
        $params: FilterParamsInput 
        $limit: Int = 24
        $after: String )" + kPageTail);
  EXPECT_EQ(inbox("acme").getMessagesQuery(-3, "c-9"), R"(    query GetMessages(
        $params: FilterParamsInput = { accountId: "acme" }
        $limit: Int = -3
        $after: String = "c-9")" + kPageTail);
  EXPECT_EQ(inbox().getArchivedMessagesQuery(10, "c-1"), R"(    query GetArchivedMessages(
        $params: FilterParamsInput = { archived: true }
        $limit: Int = 10
        $after: String = "c-1")" + kPageTail);
  EXPECT_EQ(inbox("acme").getArchivedMessagesQuery(0, std::nullopt),
            R"(    query GetArchivedMessages(
        $params: FilterParamsInput = { accountId: "acme", archived: true }
        $limit: Int = 0
        $after: String )" +
                kPageTail);
}

TEST(InboxQueries, CountOneMessageAndMutationTextsAreExact) {
  EXPECT_EQ(inbox().unreadMessageCountQuery(), R"(    query GetMessages(
        $params: FilterParamsInput = { status: "unread" }
    ) {
        count(params: $params)
    })");
  EXPECT_EQ(inbox("acme").unreadMessageCountQuery(), R"(    query GetMessages(
        $params: FilterParamsInput = { accountId: "acme", status: "unread" }
    ) {
        count(params: $params)
    })");
  EXPECT_EQ(InboxClient::getMessageQuery("m-1"), R"(    query GetInboxMessage {
        message(messageId: "m-1") {
            messageId
            read
            archived
            created
            opened
            data
            trackingIds {
                clickTrackingId
            }
            content {
                title
                preview
                actions {
                    background_color
                    content
                    href
                    style
                }
            }
        }
    })");
  EXPECT_EQ(InboxClient::clickMutation("m-1", "t-1"), R"(    mutation TrackEvent {
        clicked(messageId: "m-1", trackingId: "t-1")
    })");
  EXPECT_EQ(InboxClient::readMutation("m-1"),
            "    mutation TrackEvent {\n        read(messageId: \"m-1\")\n    }");
  EXPECT_EQ(InboxClient::unreadMutation("m-1"),
            "    mutation TrackEvent {\n        unread(messageId: \"m-1\")\n    }");
  EXPECT_EQ(InboxClient::openMutation("m-1"),
            "    mutation TrackEvent {\n        opened(messageId: \"m-1\")\n    }");
  EXPECT_EQ(InboxClient::archiveMutation("m-1"),
            "    mutation TrackEvent {\n        archive(messageId: \"m-1\")\n    }");
  EXPECT_EQ(InboxClient::readAllMutation(), "    mutation TrackEvent {\n      markAllRead\n    }");
}

TEST(InboxClientWire, EveryOperationPostsItsQueryWithTheHeadersInOrder) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, R"({"data":{}})"}; });
  LocalInbox local(server);
  const auto client = inbox("acme");
  platform::blockOn(client.getMessages(5, "c"));
  platform::blockOn(client.getArchivedMessages(5, std::nullopt));
  EXPECT_EQ(platform::blockOn(client.getUnreadMessageCount()), 0);
  platform::blockOn(client.getMessage("m"));
  platform::blockOn(client.click("m", "t"));
  platform::blockOn(client.read("m"));
  platform::blockOn(client.unread("m"));
  platform::blockOn(client.open("m"));
  platform::blockOn(client.archive("m"));
  platform::blockOn(client.readAll());

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 10u);
  const std::vector<std::string> expected{
      client.getMessagesQuery(5, "c"),      client.getArchivedMessagesQuery(5, std::nullopt),
      client.unreadMessageCountQuery(),     InboxClient::getMessageQuery("m"),
      InboxClient::clickMutation("m", "t"), InboxClient::readMutation("m"),
      InboxClient::unreadMutation("m"),     InboxClient::openMutation("m"),
      InboxClient::archiveMutation("m"),    InboxClient::readAllMutation()};
  for (std::size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(requests[i].method, "POST");
    EXPECT_EQ(requests[i].target, "/inbox/q");
    EXPECT_EQ(sentQuery(requests[i]), expected[i]);
  }
  // With both a jwt and a client key only the bearer token goes out.
  EXPECT_EQ(requests[0].headers,
            (Headers{{"Host", "127.0.0.1:" + std::to_string(server.port())},
                     {"x-herald-user-id", "user-1"},
                     {"x-herald-client-source-id", "CONN-1"},
                     {"Authorization", "Bearer jwt-1"},
                     {"User-Agent", "herald-ios/5.5.5"},
                     {"Content-Type", "application/json"},
                     {"Content-Length", std::to_string(requests[0].body.size())}}));

  // Without a connection id the header is left out, not sent empty.
  platform::blockOn(inbox(std::nullopt, std::nullopt, std::nullopt, "key-1").readAll());
  const auto keyOnly = server.requests().back();
  EXPECT_EQ(keyOnly.headers[1],
            (std::pair<std::string, std::string>{"x-herald-user-id", "user-1"}));
  EXPECT_EQ(keyOnly.headers[2],
            (std::pair<std::string, std::string>{"x-herald-client-key", "key-1"}));
  EXPECT_FALSE(keyOnly.header("x-herald-client-source-id"));
  EXPECT_FALSE(keyOnly.header("Authorization"));
}

TEST(InboxClientWire, AnswersDecodeIntoTheRecordsAndBadOnesFailClearly) {
  std::string answer;
  std::mutex mutex;
  HttpServer server([&](const auto&) {
    std::lock_guard lock(mutex);
    return ScriptedResponse{200, {}, answer};
  });
  auto answerWith = [&](std::string body) {
    std::lock_guard lock(mutex);
    answer = std::move(body);
  };
  LocalInbox local(server);
  const auto client = inbox();

  answerWith(R"({"data":{"count":3,"messages":{"pageInfo":{"startCursor":"c2","hasNextPage":true},
      "nodes":[{"messageId":"a","title":"T","data":{"k":1}},{"messageId":"b","data":"odd"}]}}})");
  const auto page = platform::blockOn(client.getMessages(2, std::nullopt));
  ASSERT_EQ(page.data->messages->nodes->size(), 2u);
  EXPECT_EQ(page.data->messages->nodes->at(0)->title, "T");
  EXPECT_FALSE(page.data->messages->nodes->at(1)->data);
  EXPECT_EQ(page.data->messages->pageInfo->startCursor, "c2");

  answerWith(R"({"data":{"messages":{"nodes":[{"messageId":"a"},{"title":"no id"}]}}})");
  try {
    platform::blockOn(client.getArchivedMessages(2, std::nullopt));
    ADD_FAILURE() << "a page with a message without id was taken";
  } catch (const core::DecodingError& e) {
    EXPECT_EQ(e.codingPath(), "data.messages.nodes[1].messageId");
  }
  answerWith(R"({"data":{"count":9}})");
  EXPECT_EQ(platform::blockOn(client.getUnreadMessageCount()), 9);
  for (const auto* body : {R"({})", R"({"data":null})", R"({"data":{"count":null}})"}) {
    answerWith(body);
    EXPECT_EQ(platform::blockOn(client.getUnreadMessageCount()), 0) << body;
  }
  for (const auto* body : {"", "[]", R"({"data":{"count":"9"}})", R"({"data":{"count":1.5}})"}) {
    answerWith(body);
    EXPECT_THROW(platform::blockOn(client.getUnreadMessageCount()), core::DecodingError) << body;
  }
  answerWith(std::string(100000, '[') + std::string(100000, ']'));
  EXPECT_THROW(platform::blockOn(client.getMessages(1, std::nullopt)), core::DecodingError);

  // The one-message query reads its fields inside "content", so they are not taken, and a
  // fault line says the operation is unfinished.
  std::vector<platform::LogRecord> lines;
  std::mutex linesMutex;
  platform::SystemLog::ScopedSink sink([&](const platform::LogRecord& record) {
    std::lock_guard lock(linesMutex);
    lines.push_back(record);
  });
  answerWith(R"({"data":{"message":{"messageId":"m","content":{"title":"T"}}}})");
  const auto one = platform::blockOn(client.getMessage("m"));
  EXPECT_EQ(one.data->message.value()->messageId, "m");
  EXPECT_FALSE(one.data->message.value()->title);
  std::lock_guard lock(linesMutex);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].type, platform::LogType::fault);
  EXPECT_EQ(lines[0].message,
            "🚧 getMessage is under construction and may result in data you do not expect");
}

TEST(InboxClientWire, RefusalsComeBackAsTheServiceWordedThem) {
  HttpServer server([](const auto& request) {
    if (request.body.find("markAllRead") != std::string::npos) return ScriptedResponse{204};
    return ScriptedResponse{401, {}, R"({"message":"Bad token","type":"auth"})"};
  });
  LocalInbox local(server);
  try {
    platform::blockOn(inbox().read("m"));
    ADD_FAILURE() << "a refused mutation succeeded";
  } catch (const HeraldError& e) {
    EXPECT_EQ(e, HeraldError(401, "Bad token", "auth"));
  }
  try {
    platform::blockOn(inbox().readAll());
    ADD_FAILURE() << "a 204 was taken for a GraphQL answer";
  } catch (const HeraldError& e) {
    EXPECT_EQ(e, HeraldError(204, "Unknown Error"));
  }
}

TEST(InboxClientWire, TheClientMakesOneInboxFromItsOptions) {
  auto client = std::make_shared<herald::HeraldClient>(std::nullopt, "key-1", "user-9",
                                                       std::nullopt, "acme", false);
  const auto first = client->inbox();
  EXPECT_EQ(first, client->inbox());
  EXPECT_EQ(first->options().tenantId, "acme");
  EXPECT_EQ(first->options().userId, "user-9");
}
