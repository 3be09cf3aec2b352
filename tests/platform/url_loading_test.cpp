#include "platform/url_loading.hpp"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "platform/executor.hpp"
#include "support/http_server.hpp"

using namespace std::chrono_literals;
using platform::URLRequest;
using platform::URLSession;
using testing_support::HttpServer;
using testing_support::RecordedRequest;
using testing_support::ScriptedResponse;

TEST(URLLoading, SendsExactlyTheHeadersAddedInOrderWithMethodAndBody) {
  HttpServer server([](const auto&) {
    return ScriptedResponse{201, {{"Content-Type", "text/plain; charset=utf-8"}}, "made"};
  });
  auto request = URLRequest::make(server.baseURL() + "/things?x=1");
  request.method = "PUT";
  request.addValue("b-value", "X-B");
  request.addValue("a-value", "X-A");
  request.body = R"({"k":1})";

  auto result = URLSession::shared().dataSync(request);

  EXPECT_EQ(result.data, "made");
  EXPECT_EQ(result.response.statusCode, 201);
  EXPECT_EQ(result.response.mimeType(), "text/plain");
  ASSERT_EQ(server.requests().size(), 1u);
  const auto seen = server.requests()[0];
  EXPECT_EQ(seen.method, "PUT");
  EXPECT_EQ(seen.target, "/things?x=1");
  EXPECT_EQ(seen.body, R"({"k":1})");
  std::vector<std::string> names;
  for (const auto& [k, v] : seen.headers) names.push_back(k);
  // Host and Content-Length are the transport's; nothing else is added (no Accept, no Expect).
  EXPECT_EQ(names, (std::vector<std::string>{"Host", "X-B", "X-A", "Content-Length"}));
}

TEST(URLLoading, AHttpErrorStatusIsAResponseNotAnError) {
  HttpServer server([](const auto&) { return ScriptedResponse{404, {}, "missing"}; });
  auto result = URLSession::shared().dataSync(URLRequest::make(server.baseURL() + "/nope"));
  EXPECT_EQ(result.response.statusCode, 404);
  EXPECT_EQ(result.data, "missing");
}

TEST(URLLoading, FileLoadsHaveNoHttpStatusAndMissingFilesFail) {
  const auto path = std::filesystem::temp_directory_path() / "url_loading_test.txt";
  std::ofstream(path) << "on disk";
  auto result = URLSession::shared().dataSync(URLRequest::make("file://" + path.string()));
  EXPECT_EQ(result.data, "on disk");
  EXPECT_FALSE(result.response.statusCode.has_value());
  std::filesystem::remove(path);
  try {
    URLSession::shared().dataSync(URLRequest::make("file://" + path.string()));
    FAIL() << "a missing file must fail";
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::fileDoesNotExist);
  }
}

TEST(URLLoading, FailuresAreClearPlatformErrors) {
  EXPECT_THROW(URLRequest::make("not a url"), platform::Error);
  EXPECT_THROW(URLRequest::make(""), platform::Error);
  try {
    URLRequest::make("");
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.domain(), "Invalid URL");
    EXPECT_EQ(e.code(), -1);
  }

  int closedPort;
  {
    HttpServer gone;
    closedPort = gone.port();
  }
  try {
    URLSession::shared().dataSync(
        URLRequest::make("http://127.0.0.1:" + std::to_string(closedPort) + "/"));
    FAIL();
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::cannotConnectToHost);
  }

  HttpServer stalled([](const auto&) { return ScriptedResponse{200, {}, "late", 1500ms}; });
  auto request = URLRequest::make(stalled.baseURL() + "/slow");
  request.timeout = 300ms;
  try {
    URLSession::shared().dataSync(request);
    FAIL();
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::timedOut);
  }

  HttpServer cut([](const auto&) {
    ScriptedResponse r{200, {}, std::string(10000, 'x')};
    r.truncateAfter = 100;
    return r;
  });
  try {
    URLSession::shared().dataSync(URLRequest::make(cut.baseURL() + "/cut"));
    FAIL();
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::networkConnectionLost);
  }
}

platform::Error loadError(URLRequest request) {
  try {
    URLSession::shared().dataSync(std::move(request));
  } catch (const platform::Error& e) {
    return e;
  }
  ADD_FAILURE() << "the load succeeded";
  return platform::Error("", 0, "");
}

TEST(URLLoading, EveryBodyHasALimitAndStopsAsSoonAsItPassesIt) {
  HttpServer server([](const RecordedRequest& r) {
    if (r.target == "/endless") return ScriptedResponse{.endless = true};
    return ScriptedResponse{200, {}, std::string(64 * 1024, 'x')};
  });
  auto big = URLRequest::make(server.baseURL() + "/big");
  big.maxResponseBytes = 1000;
  EXPECT_EQ(loadError(big).code(), platform::url_error::dataLengthExceedsMaximum);

  // A body that never ends, and a file that never ends, meet the default limit.
  auto endless = URLRequest::make(server.baseURL() + "/endless");
  ASSERT_EQ(endless.maxResponseBytes, platform::kDefaultMaxResponseBytes);
  EXPECT_EQ(loadError(endless).code(), platform::url_error::dataLengthExceedsMaximum);
  EXPECT_EQ(loadError(URLRequest::make("file:///dev/zero")).code(),
            platform::url_error::dataLengthExceedsMaximum);

  // A caller who wants only the start of the body gets it, status and all.
  endless.maxResponseBytes = 4096;
  endless.responseOverflow = platform::ResponseOverflow::truncate;
  const auto start = URLSession::shared().dataSync(endless);
  EXPECT_EQ(start.data, std::string(4096, 'x'));
  EXPECT_EQ(start.response.statusCode, 200);
  EXPECT_TRUE(start.response.truncated);
}

// The server reads each request and drops the kept-alive connection instead of answering the
// first time it sees a path; it answers the second time.
TEST(URLLoading, ARequestWhoseBodyMayHaveBeenReadIsNeverSentTwice) {
  std::mutex mutex;
  std::map<std::string, int> seen;
  HttpServer server([&](const RecordedRequest& r) {
    std::lock_guard lock(mutex);
    if (r.target != "/warm" && seen[r.method + r.target]++ == 0)
      return ScriptedResponse{.dropConnection = true};
    return ScriptedResponse{200, {}, "ok"};
  });
  auto load = [&](const std::string& method, const std::string& path) {
    URLSession::shared().dataSync(URLRequest::make(server.baseURL() + "/warm"));
    auto request = URLRequest::make(server.baseURL() + path);
    request.method = method;
    if (method != "GET") request.body = R"({"event":"DELIVERED"})";
    return URLSession::shared().dataSync(request);
  };

  try {
    load("POST", "/track");
    ADD_FAILURE() << "the POST was answered";
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::networkConnectionLost) << e.what();
  }
  // Requests that may be repeated are, on a fresh connection.
  EXPECT_EQ(load("GET", "/again").data, "ok");
  EXPECT_EQ(load("PUT", "/token").data, "ok");

  std::vector<std::string> wire;
  for (const auto& r : server.requests())
    if (r.target != "/warm") wire.push_back(r.method + " " + r.target);
  EXPECT_EQ(wire, (std::vector<std::string>{"POST /track", "GET /again", "GET /again", "PUT /token",
                                            "PUT /token"}));
  EXPECT_EQ(server.requests().back().body, R"({"event":"DELIVERED"})");
}

TEST(URLLoading, APostFollows307And308WithItsBodyAndRefusesTheRedirectsThatDropIt) {
  HttpServer server([](const RecordedRequest& r) {
    if (r.target.starts_with("/moved/"))
      return ScriptedResponse{std::stoi(r.target.substr(7)), {{"Location", "/target"}}, ""};
    return ScriptedResponse{200, {}, r.method + " " + r.body};
  });
  auto post = [&](int status) {
    auto request = URLRequest::make(server.baseURL() + "/moved/" + std::to_string(status));
    request.method = "POST";
    request.body = R"({"event":"CLICKED"})";
    return request;
  };
  for (int status : {307, 308})
    EXPECT_EQ(URLSession::shared().dataSync(post(status)).data, R"(POST {"event":"CLICKED"})");
  for (int status : {301, 302, 303}) {
    const auto error = loadError(post(status));
    EXPECT_EQ(error.code(), platform::url_error::badServerResponse);
    EXPECT_NE(std::string(error.what()).find(std::to_string(status)), std::string::npos)
        << error.what();
    EXPECT_NE(std::string(error.what()).find("/target"), std::string::npos) << error.what();
  }
  // A GET simply follows.
  EXPECT_EQ(URLSession::shared().dataSync(URLRequest::make(server.baseURL() + "/moved/302")).data,
            "GET ");
  std::size_t targets = 0;
  for (const auto& r : server.requests()) targets += r.target == "/target";
  EXPECT_EQ(targets, 3u);
}

TEST(URLLoading, AHeaderWithALineBreakIsRefusedBeforeAnythingIsSent) {
  HttpServer server;
  auto request = URLRequest::make(server.baseURL() + "/");
  for (const std::string& evil :
       std::vector<std::string>{"a\r\nX-Injected: 1", "a\nb", "a\rb", std::string("a\0b", 3)}) {
    EXPECT_THROW(request.addValue(evil, "Authorization"), platform::Error);
    EXPECT_THROW(request.addValue("v", evil), platform::Error);
  }
  EXPECT_TRUE(request.headers.empty());
  request.headers.emplace_back("x-herald-user-id", "u\r\nX-Injected: 1");
  const auto error = loadError(request);
  EXPECT_EQ(error.code(), platform::url_error::badURL);
  EXPECT_NE(std::string(error.what()).find("x-herald-user-id"), std::string::npos) << error.what();
  EXPECT_TRUE(server.requests().empty());
}

TEST(URLLoading, CancellingATaskCompletesItOnceWithCancelled) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, "late", 800ms}; });
  std::promise<long> code;
  int calls = 0;
  auto task =
      URLSession::shared().dataTask(URLRequest::make(server.baseURL() + "/slow"),
                                    [&](std::string, auto, std::optional<platform::Error> error) {
                                      ++calls;
                                      code.set_value(error ? error->code() : 0);
                                    });
  task->resume();
  ASSERT_TRUE(server.waitForRequests(1));
  task->cancel();
  task->cancel();
  auto f = code.get_future();
  ASSERT_EQ(f.wait_for(2s), std::future_status::ready);
  EXPECT_EQ(f.get(), platform::url_error::cancelled);
  EXPECT_EQ(calls, 1);
}

TEST(URLLoading, AwaitableFormDeliversTheBody) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, "async"}; });
  auto result =
      platform::blockOn(URLSession::shared().data(URLRequest::make(server.baseURL() + "/")));
  EXPECT_EQ(result.data, "async");
}

// A server whose Content-Length promises a hundred terabytes and sends three bytes: the body
// may not be sized from the header alone, and the short answer is a lost connection.
TEST(URLLoading, AnAnnouncedLengthIsNoPromise) {
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
  std::thread server([listener] {
    pollfd ready{listener, POLLIN, 0};
    if (::poll(&ready, 1, 5000) != 1) return;
    const int client = ::accept(listener, nullptr, nullptr);
    std::string request;
    char buffer[1024];
    while (request.find("\r\n\r\n") == std::string::npos) {
      pollfd readable{client, POLLIN, 0};
      if (::poll(&readable, 1, 5000) != 1) break;
      const auto n = ::read(client, buffer, sizeof buffer);
      if (n <= 0) break;
      request.append(buffer, static_cast<std::size_t>(n));
    }
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 100000000000000\r\n\r\nabc";
    (void)!::write(client, answer.data(), answer.size());
    ::close(client);
  });
  const auto url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/liar";
  try {
    URLSession::shared().dataSync(URLRequest::make(url));
    ADD_FAILURE() << "a cut body was delivered";
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::networkConnectionLost);
  }
  server.join();
  ::close(listener);
}
