// The sandbox's inbox GraphQL route, asked with the very texts the inbox client sends.
#include <gtest/gtest.h>

#include <atomic>
#include <boost/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/url_loading.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

// The inbox client's texts, pieced together as the client does.
const std::string kPageTail =
    "\n    ) {\n        count(params: $params)\n        messages(params: $params, limit: $limit, "
    "after: $after) {\n            totalCount\n            pageInfo {\n                "
    "startCursor\n                hasNextPage\n            }\n            nodes {\n               "
    " messageId\n                read\n                archived\n                created\n     "
    "           opened\n                title\n                preview\n                data\n   "
    "             actions {\n                    content\n                    data\n             "
    "       href\n                }\n                trackingIds {\n                    "
    "clickTrackingId\n                }\n            }\n        }\n    }";

using Maybe = std::optional<std::string>;

// The feed's page, or the archive's (named apart, and filtered by "archived: true").
std::string pageQuery(int limit, const Maybe& tenant, const Maybe& cursor, bool archive = false) {
  std::string filter = tenant ? "accountId: \"" + *tenant + "\"" : "";
  if (archive) filter += (tenant ? ", " : "") + std::string("archived: true");
  return std::string("    query ") + (archive ? "GetArchivedMessages" : "GetMessages") +
         "(\n        $params: FilterParamsInput " + (filter.empty() ? "" : "= { " + filter + " }") +
         "\n        $limit: Int = " + std::to_string(limit) + "\n        $after: String " +
         (cursor ? "= \"" + *cursor + "\"" : "") + kPageTail;
}
std::string feedQuery(int limit, const Maybe& tenant = {}, const Maybe& cursor = {}) {
  return pageQuery(limit, tenant, cursor);
}
std::string archiveQuery(const Maybe& tenant = {}) {
  return pageQuery(10, tenant, {}, true);
}

// Fragments in pairs, each spreading both of the next pair: 2^levels paths to `leaf`.
std::string pairs(int levels, const std::string& leaf) {
  std::string text = "{ ...F0a ...F0b }";
  for (int i = 0; i <= levels; ++i)
    for (const char* side : {"a", "b"})
      text +=
          " fragment F" + std::to_string(i) + side + " on Query { " +
          (i == levels ? leaf
                       : "...F" + std::to_string(i + 1) + "a ...F" + std::to_string(i + 1) + "b") +
          " }";
  return text;
}

// 865 aliased pages of 100.
std::string costlyPages() {
  std::string pages = "{";
  for (int i = 0; i < 865; ++i)
    pages += " p" + std::to_string(i) + ": messages(limit: 100) { nodes { messageId } }";
  return pages + " }";
}

const std::string kDeepVariable =
    "query Q($v: " + std::string(30000, '[') + "Int" + std::string(30000, ']') + ") { count }";

const auto str = [](const json::value& v) { return std::string(v.as_string()); };
const auto says = [](const Answer& answer, const std::string& text) {
  return answer.firstError().find(text) != std::string::npos;
};

std::string unreadCountQuery(const Maybe& tenant = {}) {
  const auto filter = tenant ? "{ accountId: \"" + *tenant + "\", status: \"unread\" }"
                             : std::string("{ status: \"unread\" }");
  return "    query GetMessages(\n        $params: FilterParamsInput = " + filter +
         "\n    ) {\n        count(params: $params)\n    }";
}

std::string getMessageQuery(const std::string& id) {
  return "    query GetInboxMessage {\n        message(messageId: \"" + id +
         "\") {\n            messageId\n            read\n            archived\n            "
         "created\n            opened\n            data\n            trackingIds {\n             "
         "   clickTrackingId\n            }\n            content {\n                title\n      "
         "          preview\n                actions {\n                    background_color\n   "
         "                 content\n                    href\n                    style\n        "
         "        }\n            }\n        }\n    }";
}

std::string mutation(const std::string& field, const std::string& id) {
  return "    mutation TrackEvent {\n        " + field + "(messageId: \"" + id + "\")\n    }";
}

std::string clickMutation(const std::string& id, const std::string& trackingId) {
  return "    mutation TrackEvent {\n        clicked(messageId: \"" + id + "\", trackingId: \"" +
         trackingId + "\")\n    }";
}

const std::string kReadAll = "    mutation TrackEvent {\n      markAllRead\n    }";

class InboxGraphQL : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto minted = call(url("/_sandbox/users/ada/token"), "POST", std::nullopt);
    ASSERT_EQ(minted.status, 200) << minted.body;
    jwt_ = str(minted.object().at("jwt"));
  }
  std::string url(const std::string& path) const { return sandbox_.url() + path; }
  Headers ada() const { return {{"x-herald-user-id", "ada"}, {"Authorization", "Bearer " + jwt_}}; }

  // As the client sends it: "variables" is the string "{}".
  Answer ask(const std::string& query, const Headers& headers) const {
    return call(url("/inbox/q"), "POST",
                platform::toJSON(json::object{{"query", query}, {"variables", "{}"}}), headers);
  }
  Answer ask(const std::string& query) const { return ask(query, ada()); }

  json::object add(const std::string& body, const std::string& user = "ada") const {
    const auto added = call(url("/_sandbox/users/" + user + "/messages"), "POST", body);
    EXPECT_EQ(added.status, 200) << added.body;
    return added.object();
  }
  std::string addWith(const std::string& created, const std::string& extra = "") const {
    return str(
        add(R"({"title": "T", "created": ")" + created + "\"" + extra + "}").at("messageId"));
  }
  std::vector<std::string> ids(const json::value& page) const {
    std::vector<std::string> result;
    for (const auto& node : page.at("nodes").as_array())
      result.emplace_back(node.at("messageId").as_string());
    return result;
  }

  Sandbox sandbox_;
  std::string jwt_;
};

TEST_F(InboxGraphQL, TheFeedPagesNewestFirstWithACursorThatOutlastsNewMessages) {
  const auto oldest = addWith("2026-01-01T10:00:00.000Z");
  const auto tieFirst = addWith("2026-01-02T10:00:00.000+02:00");
  const auto tieSecond = addWith("2026-01-02T08:00:00Z");  // the same instant, come later
  const auto newest = addWith(
      "2026-01-03T10:00:00.500Z",
      R"(, "preview": "P", "data": {"k": [1]}, "actions": [{"content": "Open", "href": "app://x", "style": "bold"}])");

  const auto first = ask(feedQuery(2));
  ASSERT_EQ(first.status, 200) << first.body;
  const auto data = first.data();
  EXPECT_EQ(data.at("count"), 4);
  const auto& page = data.at("messages");
  EXPECT_EQ(page.at("totalCount"), 4);
  EXPECT_EQ(ids(page), (std::vector<std::string>{newest, tieSecond}));
  EXPECT_EQ(page.at("pageInfo"), (json::object{{"startCursor", tieSecond}, {"hasNextPage", true}}));

  // Exactly the selected fields, in the order asked, nested ones too.
  const auto& node = page.at("nodes").at(0).as_object();
  std::vector<std::string> keys;
  for (const auto& [key, value] : node) keys.emplace_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"messageId", "read", "archived", "created", "opened",
                                            "title", "preview", "data", "actions", "trackingIds"}));
  EXPECT_EQ(node.at("read"), nullptr);
  EXPECT_EQ(node.at("data"), platform::parseJSON(R"({"k": [1]})"));
  EXPECT_EQ(node.at("actions"),
            platform::parseJSON(R"([{"content": "Open", "data": null, "href": "app://x"}])"));
  const auto& tracking = node.at("trackingIds").as_object();
  ASSERT_EQ(tracking.size(), 1u);
  EXPECT_TRUE(std::string(tracking.at("clickTrackingId").as_string()).starts_with(url("/track/")));

  addWith("2026-02-01T00:00:00Z");  // arrives on top; the next page is not shifted by it
  const auto second = ask(feedQuery(2, {}, tieSecond)).data().at("messages");
  EXPECT_EQ(ids(second), (std::vector<std::string>{tieFirst, oldest}));
  EXPECT_EQ(second.at("pageInfo").at("hasNextPage"), false);
  const auto past = ask(feedQuery(2, {}, oldest)).data().at("messages");
  EXPECT_TRUE(ids(past).empty());
  EXPECT_EQ(past.at("pageInfo").at("startCursor"), nullptr);

  // A cursor that names no message is a field error beside the rest of the data.
  const auto unknown = ask(feedQuery(2, {}, "nope"));
  EXPECT_EQ(unknown.status, 200);
  EXPECT_EQ(unknown.data().at("messages"), nullptr);
  EXPECT_EQ(unknown.data().at("count"), 5);
  EXPECT_TRUE(says(unknown, "\"nope\""));
  EXPECT_EQ(unknown.object().at("errors").at(0).at("path"), (json::array{"messages"}));
  EXPECT_EQ(ask(feedQuery(-1)).data().at("messages"), nullptr);
}

TEST_F(InboxGraphQL, EachMutationChangesTheStoredMessageAndTheFiltersSeeIt) {
  const auto a = addWith("2026-01-01T00:00:00Z"), b = addWith("2026-01-02T00:00:00Z"),
             c = addWith("2026-01-03T00:00:00Z");
  auto unread = [&] { return ask(unreadCountQuery()).data().at("count"); };
  EXPECT_EQ(unread(), 3);

  const auto read = ask(mutation("read", a));
  ASSERT_EQ(read.status, 200) << read.body;
  EXPECT_EQ(read.object(), (json::object{{"data", json::object{{"read", true}}}}));
  EXPECT_EQ(unread(), 2);
  auto node = [&](const std::string& id) {
    const auto data = ask(feedQuery(10)).data();
    for (const auto& n : data.at("messages").at("nodes").as_array())
      if (n.at("messageId") == json::value(json::string(id))) return n;
    return json::value(nullptr);
  };
  EXPECT_TRUE(node(a).at("read").is_string());
  EXPECT_EQ(ask(mutation("unread", a)).status, 200);
  EXPECT_EQ(node(a).at("read"), nullptr);
  EXPECT_EQ(ask(mutation("opened", b)).status, 200);
  EXPECT_TRUE(node(b).at("opened").is_string());

  // Archiving moves a message from the feed to the archive, and out of the unread count.
  EXPECT_EQ(ask(mutation("archive", c)).status, 200);
  EXPECT_EQ(node(c), nullptr);
  const auto archive = ask(archiveQuery()).data();
  EXPECT_EQ(ids(archive.at("messages")), std::vector<std::string>{c});
  EXPECT_EQ(archive.at("count"), 1);
  EXPECT_TRUE(archive.at("messages").at("nodes").at(0).at("archived").is_string());
  EXPECT_EQ(unread(), 2);

  EXPECT_EQ(ask(kReadAll).object(), (json::object{{"data", json::object{{"markAllRead", true}}}}));
  EXPECT_EQ(unread(), 0);

  const auto clickId = str(node(a).at("trackingIds").at("clickTrackingId"));
  EXPECT_EQ(ask(clickMutation(a, clickId)).data().at("clicked"), true);
  const auto wrongClick = ask(clickMutation(a, "someone-else's"));
  EXPECT_EQ(wrongClick.data().at("clicked"), nullptr);
  EXPECT_TRUE(says(wrongClick, "click tracking id"));

  // A message of another user is no message of this one.
  const auto bobs = str(add(R"({"title": "B"})", "bob").at("messageId"));
  const auto missing = ask(mutation("read", bobs));
  EXPECT_EQ(missing.status, 200);
  EXPECT_EQ(missing.data().at("read"), nullptr);
  EXPECT_TRUE(says(missing, "no message \"" + bobs + "\""));
  EXPECT_EQ(ask(getMessageQuery(bobs)).data().at("message"), nullptr);
}

TEST_F(InboxGraphQL, ATenantSeesOnlyItsOwnMessagesWhileTheUserSeesAll) {
  const auto acme = addWith("2026-01-01T00:00:00Z", R"(, "tenant": "acme")");
  const auto globex = addWith("2026-01-02T00:00:00Z", R"(, "tenant": "globex")");
  addWith("2026-01-03T00:00:00Z");
  EXPECT_EQ(ids(ask(feedQuery(10, "acme")).data().at("messages")), std::vector<std::string>{acme});
  EXPECT_EQ(ask(unreadCountQuery("globex")).data().at("count"), 1);
  EXPECT_EQ(ask(unreadCountQuery()).data().at("count"), 3);
  ask(mutation("archive", globex));
  EXPECT_EQ(ids(ask(archiveQuery("globex")).data().at("messages")),
            std::vector<std::string>{globex});
  EXPECT_TRUE(ids(ask(archiveQuery("acme")).data().at("messages")).empty());
}

TEST_F(InboxGraphQL, OneMessageAnswersWhatItsQueryAsksUnderContent) {
  const auto id = str(add(R"({"title": "Hello", "preview": "Pre", "body": "Body",
      "actions": [{"content": "Go", "href": "app://go", "background_color": "#fff"}]})")
                          .at("messageId"));
  const auto answer = ask(getMessageQuery(id));
  ASSERT_EQ(answer.status, 200) << answer.body;
  const auto data = answer.data();
  const auto& message = data.at("message").as_object();
  // Title and preview come only inside "content", where the query asked for them.
  EXPECT_FALSE(message.contains("title"));
  EXPECT_EQ(message.at("content"), platform::parseJSON(R"({"title": "Hello", "preview": "Pre",
      "actions": [{"background_color": "#fff", "content": "Go", "href": "app://go", "style": null}]})"));
  EXPECT_EQ(message.at("messageId"), json::value(json::string(id)));
}

TEST_F(InboxGraphQL, WhatIsNotGraphQLOrNotInTheSchemaIsRefusedWithItsPlaceAndRunsNothing) {
  const auto id = addWith("2026-01-01T00:00:00Z");
  struct Case {
    std::string query, expected;
    long line, column;
  } refused[] = {
      {"{ count(params: {archived: true) }", "Unexpected \")\"", 1, 32},
      {"query {\n  messages(limit: 2) {\n    nodes { messageId }\n", "end of document", 4, 1},
      // Ids spliced raw, as the client does: a quote or a backslash breaks the string.
      {mutation("read", "a\"b"), "Unterminated string", 2, 31},
      {getMessageQuery("x\\y"), "bad escape", 2, 30},
      {"{ count(params: {archived: 01}) }", "Invalid number", 1, 29},
      {"{ count(params: {archived: 1e999}) }", "Boolean cannot represent", 1, 28},
      {"{ messages(limit: " + std::string(400, '9') + ") { totalCount } }", "non 32-bit", 1, 19},
      {"{ message(messageId: \"" + id + "\") { messageId title { x } } }",
       "must not have a selection", 1, 46},
      {"{ message(messageId: \"" + id + "\") { subject } }",
       "Cannot query field \"subject\" on type \"Message\"", 1, 30},
      {"{ count(params: {tenant: \"x\"}) }", "Field \"tenant\" is not defined", 1, 18},
      {"{ messages(limit: \"2\") { totalCount } }", "Int cannot represent", 1, 19},
      {"query Q($n: Int) { messages(after: $n) { totalCount } }", "expecting type \"String\"", 1,
       36},
      {"{ message { messageId } }", "argument \"messageId\"", 1, 3},
      // A valid mutation beside an invalid field is not run either, nor one beside a
      // fragment never used.
      {"mutation { read(messageId: \"" + id + "\") nope }", "Cannot query field \"nope\"", 1, 34},
      {"mutation { read(messageId: \"" + id + "\") } fragment Unused on Query { count }",
       "Fragment \"Unused\" is never used.", 1, 36},
  };
  for (const auto& c : refused) {
    const auto answer = ask(c.query);
    EXPECT_EQ(answer.status, 400) << c.query;
    const auto object = answer.object();
    EXPECT_FALSE(object.contains("data")) << answer.body;
    const auto& error = object.at("errors").at(0);
    EXPECT_TRUE(says(answer, c.expected)) << c.query << "\n" << answer.body;
    // The place of the fault is the last one named (a variable's use, after its definition).
    EXPECT_EQ(error.at("locations").as_array().back(),
              (json::object{{"line", c.line}, {"column", c.column}}))
        << c.query << "\n"
        << answer.body;
  }
  EXPECT_EQ(ask(unreadCountQuery()).data().at("count"), 1);

  // Hostile sizes are refused before they cost a stack or a minute.
  EXPECT_TRUE(
      says(ask("{ count(params: " + std::string(5000, '[') + std::string(5000, ']') + ") }"),
           "deeper than"));
  std::string deepFields;
  for (int i = 0; i < 200; ++i) deepFields += "{ a ";
  EXPECT_TRUE(says(ask(deepFields + std::string(200, '}')), "deeper than"));
  EXPECT_TRUE(says(ask("{ count" + std::string(70000, ' ') + "}"), "at most"));
  EXPECT_TRUE(says(ask(kDeepVariable), "deeper than"));
  // A status the schema takes as a string but the inbox does not know is the field's error.
  const auto status = ask("{ count(params: {status: \"new\"}) }");
  EXPECT_EQ(status.status, 200);
  EXPECT_EQ(status.data().at("count"), nullptr);
  EXPECT_TRUE(says(status, "\"read\" or \"unread\""));
}

TEST_F(InboxGraphQL, HostileDocumentsAreRefusedCheaplyAndToolsCanIntrospect) {
  // Fragments in pairs, each spreading both of the next pair, 24 levels: it used to take
  // minutes of the only thread; now it is answered.
  const auto answered = ask(pairs(24, "count"));
  ASSERT_EQ(answered.status, 200) << answered.body;
  EXPECT_EQ(answered.data().at("count"), 0);
  // 865 aliased pages of 100 are weighed and refused before anything runs.
  const auto costly = ask(costlyPages());
  EXPECT_EQ(costly.status, 400);
  EXPECT_EQ(costly.object().at("errors").at(0).at("extensions").at("code"), "QUERY_TOO_COSTLY");
  const auto schema = ask("{ __schema { queryType { name } } __type(name: \"Message\") { kind } }");
  ASSERT_EQ(schema.status, 200) << schema.body;
  EXPECT_EQ(schema.data().at("__schema").at("queryType").at("name"), "Query");
  EXPECT_EQ(schema.data().at("__type").at("kind"), "OBJECT");
}

TEST_F(InboxGraphQL, StringsMeanWhatTheirEscapesAndIndentationSay) {
  const auto id = addWith("2026-01-01T00:00:00Z");
  ASSERT_EQ(id, "i1");
  for (const std::string spelling : {R"("\u0069\u0031")", "\"\"\"\n      i1\n    \"\"\""}) {
    const auto answer =
        ask("# one message\n{ message(messageId: " + spelling + ",) { messageId }, }");
    ASSERT_EQ(answer.status, 200) << spelling << answer.body;
    EXPECT_EQ(answer.data().at("message").at("messageId"), "i1") << spelling;
  }
  // A cursor's text comes back in its error, so the decoding shows: a surrogate pair is one
  // character, half of one is no character at all.
  const auto pair = ask(R"({ messages(after: "\ud83d\ude00 \"\\") { totalCount } })");
  EXPECT_TRUE(says(pair, "\"\xF0\x9F\x98\x80 \"\\\"")) << pair.body;
  const auto block = ask(R"({ messages(after: """x\"""y""") { totalCount } })");
  EXPECT_TRUE(says(block, R"("x"""y")")) << block.body;
  const auto half = ask(R"({ messages(after: "\ud83d") { totalCount } })");
  EXPECT_EQ(half.status, 400);
  EXPECT_TRUE(says(half, "surrogate")) << half.body;
}

TEST_F(InboxGraphQL, TheBodyAndItsVariablesAreReadAsAGraphQLServerReadsThem) {
  addWith("2026-01-01T00:00:00Z");
  addWith("2026-01-02T00:00:00Z");
  const std::string query =
      "query Page($limit: Int!, $params: FilterParamsInput) "
      "{ ...Counted messages(limit: $limit, params: $params) { "
      "n: totalCount page: nodes { __typename id: messageId } } } "
      "fragment Counted on Query { count }";
  const auto answer = call(
      url("/inbox/q"), "POST",
      platform::toJSON(json::object{{"query", query}, {"variables", json::object{{"limit", 1}}}}),
      ada());
  ASSERT_EQ(answer.status, 200) << answer.body;
  EXPECT_EQ(answer.data().at("count"), 2);
  EXPECT_EQ(answer.data().at("messages").at("n"), 2);
  EXPECT_EQ(answer.data().at("messages").at("page").as_array().size(), 1u);
  EXPECT_EQ(answer.data().at("messages").at("page").at(0).at("__typename"), "Message");

  struct Case {
    std::string body, expected;
  } refused[] = {
      {"not json", "JSON object"},
      {R"({"variables": {}})", "\"query\""},
      {R"({"query": "{ count }", "variables": "[1]"})", "\"variables\""},
      {R"({"query": "query A { count } query B { count }"})", "operation name"},
      {R"({"query": "query A { count }", "operationName": "B"})", "\"B\""},
      {R"({"query": ")" + std::string("query($n: Int!) { messages(limit: $n) { totalCount } }") +
           R"("})",
       "\"$n\" of required type \"Int!\" was not provided"},
      {R"({"query": "subscription { count }"})", "Subscriptions"},
  };
  for (const auto& c : refused) {
    const auto answer = call(url("/inbox/q"), "POST", c.body, ada());
    EXPECT_EQ(answer.status, 400) << c.body;
    EXPECT_TRUE(says(answer, c.expected)) << c.body << answer.body;
  }
}

// GraphQL runs on workers: while other clients send the worst documents, many at once, a plain
// count is answered, and each hostile document gets its own refusal. (How long the count
// waits is measured by bench/graphql_bench, not asserted here.)
TEST_F(InboxGraphQL, AClientIsAnsweredWhileOthersSendTheWorstDocuments) {
  addWith("2026-01-01T00:00:00Z");
  const std::vector<std::string> worst{pairs(22, "nope"), costlyPages(), kDeepVariable};
  std::vector<std::thread> hostile;
  std::atomic<int> refused{0};
  for (int t = 0; t < 3; ++t)
    hostile.emplace_back([&, t] {
      for (int i = 0; i < 10; ++i)
        if (ask(worst[static_cast<std::size_t>(t)]).status == 400) ++refused;
    });
  int counted = 0;
  for (int i = 0; i < 20; ++i) {
    const auto answer = ask("{ count }");
    if (answer.status == 200 && answer.data().at("count") == 1) ++counted;
  }
  for (auto& thread : hostile) thread.join();
  EXPECT_EQ(counted, 20);
  EXPECT_EQ(refused.load(), 30);
}

TEST_F(InboxGraphQL, CredentialsAreThoseOfTheRestRoutesButTheClientKeyCounts) {
  const auto count = unreadCountQuery();
  EXPECT_EQ(ask(count, {{"x-herald-user-id", "ada"}, {"x-herald-client-key", "sandbox-client-key"}})
                .status,
            200);
  const auto bobJwt =
      str(call(url("/_sandbox/users/bob/token"), "POST", std::nullopt).object().at("jwt"));
  struct Case {
    Headers headers;
    long status;
  } refused[] = {
      {{{"x-herald-user-id", "ada"}}, 401},
      {{{"x-herald-user-id", "ada"}, {"x-herald-client-key", "wrong"}}, 401},
      {{{"x-herald-user-id", "ada"}, {"Authorization", "Bearer " + bobJwt}}, 403},
      // A token, once sent, is the credential: the client key beside it does not rescue it.
      {{{"x-herald-user-id", "ada"},
        {"Authorization", "Bearer " + bobJwt},
        {"x-herald-client-key", "sandbox-client-key"}},
       403},
      {{{"Authorization", "Bearer " + jwt_}}, 400},
  };
  for (const auto& c : refused) {
    const auto answer = ask(count, c.headers);
    EXPECT_EQ(answer.status, c.status) << answer.body;
    EXPECT_TRUE(answer.object().contains("message")) << answer.body;
  }
}

TEST_F(InboxGraphQL, MessagesComeFromTheSandboxRouteAndFromEverySend) {
  const auto added = add(R"({"title": "T", "tenant": "acme", "data": {"a": 1}})");
  const auto& tracking = added.at("trackingIds").as_object();
  EXPECT_EQ(tracking.size(), 6u);
  const auto click = str(tracking.at("clickTrackingId"));
  EXPECT_EQ(click, url("/track/" + str(added.at("messageId")) + "/click"));
  EXPECT_EQ(call(click, "POST", R"({"event":"CLICKED"})").status, 200);

  for (const std::string body :
       {R"({"title": 3})", R"({"subject": "x"})", R"({"created": "yesterday"})",
        R"({"created": "2026-02-30T00:00:00Z"})", R"({"actions": [{"label": "x"}]})",
        R"({"actions": {}})", R"({"data": [1]})", R"({"tenant": ""})", "[]"}) {
    const auto answer = call(url("/_sandbox/users/ada/messages"), "POST", body);
    EXPECT_EQ(answer.status, 400) << body;
    EXPECT_EQ(answer.object().at("type"), "invalid_request_error") << body;
  }

  ASSERT_EQ(call(url("/users/ada/tokens/t1"), "PUT", R"({"provider_key":"apn","device":{}})",
                 {{"Authorization", "Bearer " + jwt_}})
                .status,
            204);
  const auto sent = call(url("/_sandbox/send"), "POST",
                         R"({"user": "ada", "tenant": "acme", "push": {"aps": {"alert":
                             {"title": "Hi", "body": "There"}}, "user_name": "Ana"}})");
  ASSERT_EQ(sent.status, 200) << sent.body;
  const auto page = ask(feedQuery(10, "acme")).data().at("messages");
  ASSERT_EQ(page.at("totalCount"), 2);
  const auto& newest = page.at("nodes").at(0);
  EXPECT_EQ(newest.at("messageId"), sent.object().at("inboxMessage").at("messageId"));
  EXPECT_EQ(newest.at("title"), "Hi");
  EXPECT_EQ(newest.at("data"), (json::object{{"user_name", "Ana"}}));
}

TEST(SandboxSchema, PrintSchemaGivesEachEndpointsSchemaAsSDL) {
  using integration::program;
  const auto inbox = integration::run({program("herald-sandbox"), "--print-schema", "inbox"});
  ASSERT_EQ(inbox.exitCode, 0) << inbox.err;
  for (const char* part : {"type Query {", "type Mutation {", "input FilterParamsInput {",
                           "  nodes: [Message]\n", "scalar JSON"})
    EXPECT_NE(inbox.out.find(part), std::string::npos) << part;
  const auto brand = integration::run({program("herald-sandbox"), "--print-schema", "brand"});
  EXPECT_NE(brand.out.find("brand(\n"), std::string::npos) << brand.out;
  EXPECT_EQ(brand.out.find("Mutation"), std::string::npos);
  EXPECT_EQ(integration::run({program("herald-sandbox"), "--print-schema", "feed"}).exitCode, 2);
}

}  // namespace
