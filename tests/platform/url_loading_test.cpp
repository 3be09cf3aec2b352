#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/executor.hpp"
#include "platform/url_loading.hpp"
#include "support/http_server.hpp"

using namespace std::chrono_literals;
using platform::URLRequest;
using platform::URLSession;
using testing_support::HttpServer;
using testing_support::ScriptedResponse;

TEST(URLLoading, SendsExactlyTheHeadersAddedInOrderWithMethodAndBody) {
  HttpServer server([](const auto&) { return ScriptedResponse{201, {{"Content-Type", "text/plain; charset=utf-8"}}, "made"}; });
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
  { HttpServer gone; closedPort = gone.port(); }
  try {
    URLSession::shared().dataSync(URLRequest::make("http://127.0.0.1:" + std::to_string(closedPort) + "/"));
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

TEST(URLLoading, StopsAsSoonAsTheBodyPassesItsLimit) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, std::string(64 * 1024, 'x')}; });
  auto request = URLRequest::make(server.baseURL() + "/big");
  request.maxResponseBytes = 1000;
  try {
    URLSession::shared().dataSync(request);
    FAIL();
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), platform::url_error::dataLengthExceedsMaximum);
  }
}

TEST(URLLoading, CancellingATaskCompletesItOnceWithCancelled) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, "late", 800ms}; });
  std::promise<long> code;
  int calls = 0;
  auto task = URLSession::shared().dataTask(URLRequest::make(server.baseURL() + "/slow"),
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
  auto result = platform::blockOn(URLSession::shared().data(URLRequest::make(server.baseURL() + "/")));
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
