#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "core/constants.hpp"
#include "herald/endpoints.hpp"
#include "herald/herald_agent.hpp"
#include "herald/herald_api_client.hpp"
#include "herald/herald_error.hpp"
#include "platform/executor.hpp"
#include "platform/system_log.hpp"
#include "support/http_server.hpp"

using herald::HeraldApiClient;
using herald::HeraldError;
using testing_support::HttpServer;
using testing_support::ScriptedResponse;
using Headers = std::vector<std::pair<std::string, std::string>>;

namespace {

HeraldApiClient client(std::optional<std::string> jwt, std::optional<std::string> clientKey,
                       bool showLogs = false) {
  return HeraldApiClient({jwt, clientKey, "user-1", "CONN-1", std::nullopt, showLogs});
}

std::string send(const HeraldApiClient& c, platform::URLRequest r, std::vector<int> accepted) {
  return platform::blockOn(c.sendRequest(std::move(r), std::move(accepted)));
}

HeraldError refusal(const HeraldApiClient& c, platform::URLRequest r, std::vector<int> accepted) {
  try {
    send(c, std::move(r), std::move(accepted));
  } catch (const HeraldError& e) {
    return e;
  }
  ADD_FAILURE() << "the request was accepted";
  return HeraldError(0, "");
}

}  // namespace

TEST(RequestFrame, GraphQLCarriesTheBearerTokenOrElseTheClientKeyNeverBoth) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, "{}"}; });
  auto wire = [&](const HeraldApiClient& c) {
    send(c, c.makeGraphQLRequest(server.baseURL() + "/client/q", {"query { brand }"}), {200});
    return server.requests().back();
  };

  const auto both = wire(client("jwt-1", "key-1"));
  EXPECT_EQ(both.method, "POST");
  EXPECT_EQ(both.headers, (Headers{{"Host", "127.0.0.1:" + std::to_string(server.port())},
                                   {"x-herald-user-id", "user-1"},
                                   {"Authorization", "Bearer jwt-1"},
                                   {"User-Agent", "herald-ios/5.5.5"},
                                   {"Content-Type", "application/json"},
                                   {"Content-Length", std::to_string(both.body.size())}}));
  // variables travels as the string "{}", not as an object.
  EXPECT_EQ(both.body, R"({"query":"query { brand }","variables":"{}"})");

  const auto keyOnly = wire(client(std::nullopt, "key-1"));
  EXPECT_EQ(keyOnly.header("x-herald-client-key"), "key-1");
  EXPECT_FALSE(keyOnly.header("Authorization"));

  const auto neither = wire(client(std::nullopt, std::nullopt));
  EXPECT_FALSE(neither.header("x-herald-client-key") || neither.header("Authorization"));
}

TEST(RequestFrame, RestCallsNeverCarryTheClientKeyOrUserAndOnlyAcceptTheCallersCodes) {
  HttpServer server([](const auto&) { return ScriptedResponse{204}; });
  const std::string url = server.baseURL() + "/users/user-1/tokens/t";
  const auto keyOnly = client(std::nullopt, "key-1");
  EXPECT_EQ(send(keyOnly, keyOnly.makeRequest(url, "DELETE"), {200, 204}), "");
  EXPECT_EQ(server.requests().back().headers,
            (Headers{{"Host", "127.0.0.1:" + std::to_string(server.port())},
                     {"User-Agent", "herald-ios/5.5.5"},
                     {"Content-Type", "application/json"}}));

  // The agent is read per request, so a host that names itself is seen on the next call.
  herald::HeraldAgent::setCurrent(herald::HeraldAgent::flutterIOS("2.0.1"));
  const auto withJwt = client("jwt-1", "key-1");
  send(withJwt, withJwt.makeBodyRequest(url, boost::json::object{{"provider", "apn"}}), {200, 204});
  herald::HeraldAgent::setCurrent(herald::HeraldAgent::nativeIOS("5.5.5"));
  const auto put = server.requests().back();
  EXPECT_EQ(put.method, "PUT");
  EXPECT_EQ(put.body, R"({"provider":"apn"})");
  EXPECT_EQ(put.header("Authorization"), "Bearer jwt-1");
  EXPECT_EQ(put.header("User-Agent"), "herald-flutter-ios/2.0.1");
  EXPECT_FALSE(put.header("x-herald-client-key") || put.header("x-herald-user-id"));

  // The same 204 refuses a call that accepts only 200.
  EXPECT_EQ(refusal(withJwt, withJwt.makeGraphQLRequest(server.baseURL(), {"q"}), {200}),
            HeraldError(204, "Unknown Error"));
}

TEST(RequestFrame, RefusalsTakeMessageAndTypeOnlyWhenTheyAreStrings) {
  ScriptedResponse next;
  HttpServer server([&](const auto&) { return next; });
  const auto c = client("jwt-1", std::nullopt);
  auto refused = [&](ScriptedResponse response) {
    next = std::move(response);
    return refusal(c, c.makeRequest(server.baseURL() + "/x", "GET"), {200});
  };

  EXPECT_EQ(refused({401, {}, R"({"message":"Token expired","type":"authentication_error"})"}),
            HeraldError(401, "Token expired", "authentication_error"));
  EXPECT_EQ(refused({400, {}, R"({"message":42,"type":"invalid_request_error"})"}),
            HeraldError(400, "Unknown Error", "invalid_request_error"));
  EXPECT_EQ(refused({502, {}, "<html>Bad gateway</html>"}), HeraldError(502, "Unknown Error"));
  // Deep nesting elsewhere in the body does not hide the message.
  const std::string deep = std::string(100, '[') + std::string(100, ']');
  EXPECT_EQ(refused({422, {}, R"({"detail":)" + deep + R"(,"message":"Too deep?","type":"t"})"}),
            HeraldError(422, "Too deep?", "t"));
  // A body far larger than any answer of the service is an error of its own.
  try {
    refused({500, {}, std::string(K::Limits::serviceResponseBytes + 1, ' ')});
    ADD_FAILURE() << "an oversized body was taken";
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::dataLengthExceedsMaximum);
  }
}

TEST(RequestFrame, CredentialsWithLineBreaksAreRefusedBeforeAnythingIsSent) {
  HttpServer server;
  const std::string url = server.baseURL() + "/client/q";
  auto refusedHeader = [&](const std::function<void()>& build) {
    try {
      build();
    } catch (const platform::Error& e) {
      return std::string(e.what());
    }
    return std::string("accepted");
  };
  const auto badJwt = client("jwt\r\nX-Admin: true", std::nullopt);
  EXPECT_NE(refusedHeader([&] { badJwt.makeRequest(url, "GET"); }).find("\"Authorization\""),
            std::string::npos);
  EXPECT_NE(refusedHeader([&] { badJwt.makeGraphQLRequest(url, {"q"}); }).find("Authorization"),
            std::string::npos);
  const HeraldApiClient badUser(
      {std::nullopt, "key", "u\nX-Admin: true", "C", std::nullopt, false});
  EXPECT_NE(refusedHeader([&] { badUser.makeGraphQLRequest(url, {"q"}); }).find("x-herald-user-id"),
            std::string::npos);
  EXPECT_TRUE(server.requests().empty());
}

TEST(RequestFrame, InvalidURLsFailBeforeSendingAndANonHttpLoadIs420) {
  const auto c = client("jwt-1", std::nullopt);
  for (const std::string url : {"", "http://127.0.0.1/with space"}) {
    try {
      c.makeGraphQLRequest(url, {"q"});
      ADD_FAILURE() << "accepted \"" << url << "\"";
    } catch (const platform::Error& e) {
      EXPECT_EQ(std::make_pair(e.domain(), e.code()),
                std::make_pair(std::string("Invalid URL"), -1L));
    }
  }

  const auto path = std::filesystem::temp_directory_path() / "herald_frame_test.json";
  std::ofstream(path) << R"({"message":"from a file"})";
  EXPECT_EQ(refusal(c, c.makeRequest("file://" + path.string(), "GET"), {200}),
            HeraldError(420, "from a file"));
  std::filesystem::remove(path);
}

TEST(RequestFrame, LogsRequestAndResponseOnlyWithShowLogs) {
  HttpServer server([](const auto&) { return ScriptedResponse{401, {}, R"({"message":"no"})"}; });
  const std::string url = server.baseURL() + "/client/q";
  platform::CapturedLog log;

  const auto quiet = client("jwt-1", std::nullopt, false);
  EXPECT_THROW(send(quiet, quiet.makeGraphQLRequest(url, {"q"}), {200}), HeraldError);
  EXPECT_TRUE(log.records().empty());

  const auto loud = client("jwt-1", std::nullopt, true);
  EXPECT_THROW(send(loud, loud.makeGraphQLRequest(url, {"q"}), {200}), HeraldError);
  loud.options().error();
  server.setHandler([](const auto&) { return ScriptedResponse{200}; });
  send(loud, loud.makeRequest(server.baseURL() + "/users/u", "GET"), {200});

  const auto records = log.records();
  ASSERT_EQ(records.size(), 5u);
  EXPECT_EQ(records[0].category, "HeraldSDK");
  EXPECT_EQ(records[0].type, platform::LogType::debug);
  EXPECT_EQ(records[0].message, "📡 New Herald API Request\nURL: " + url +
                                    "\nMethod: POST\nHeaders: {\n"
                                    "  \"x-herald-user-id\" : \"user-1\",\n"
                                    "  \"Authorization\" : \"Bearer jwt-1\",\n"
                                    "  \"User-Agent\" : \"herald-ios/5.5.5\",\n"
                                    "  \"Content-Type\" : \"application/json\"\n}"
                                    "\nBody: {\n  \"query\" : \"q\",\n  \"variables\" : \"{}\"\n}");
  EXPECT_EQ(records[1].message,
            "📡 New Herald API Response\nStatus Code: 401\nResponse JSON: {\n"
            "  \"message\" : \"no\"\n}");
  EXPECT_EQ(records[2].type, platform::LogType::error);
  EXPECT_EQ(records[2].message, "Oops, an error occurred");
  EXPECT_EQ(records[4].message,
            "📡 New Herald API Response\nStatus Code: 200\nResponse JSON: Empty");
}

TEST(HeraldError, WrapsOtherErrorsWithTheirCodeAndTypeName) {
  EXPECT_EQ(HeraldError(platform::Error("URLErrorDomain", -1001, "The request timed out.")),
            HeraldError(-1001, "The request timed out.", "platform::Error"));
  EXPECT_EQ(HeraldError(static_cast<const std::exception&>(HeraldError::noUserSignedIn())),
            HeraldError(404, "No user signed in", "authentication_error"));
}

TEST(Endpoints, ALocalBaseMovesAllThreeEndpointsAndOverridesWin) {
  const auto local = herald::Endpoints::localService("http://127.0.0.1:8080/");
  EXPECT_EQ(local.graphQLURL(), "http://127.0.0.1:8080/client/q");  // no doubled slash
  EXPECT_EQ(local.inboxGraphQLURL, "http://127.0.0.1:8080/inbox/q");
  EXPECT_EQ(local.realtimeSocketURL, "ws://127.0.0.1:8080/realtime");
  EXPECT_THROW(herald::Endpoints::localService("127.0.0.1:8080"), platform::Error);

  ::setenv("HERALD_ENDPOINT", "http://127.0.0.1:9", 1);
  EXPECT_EQ(herald::Endpoints::current().inboxGraphQLURL, "http://127.0.0.1:9/inbox/q");
  herald::Endpoints::setCurrent(local);
  EXPECT_EQ(herald::Endpoints::current().apiBaseURL, "http://127.0.0.1:8080");
  herald::Endpoints::setCurrent(std::nullopt);
  ::unsetenv("HERALD_ENDPOINT");
}
