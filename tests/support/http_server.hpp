#pragma once
// A small HTTP/1.1 server on 127.0.0.1 for tests: it records every request exactly as it
// arrived (method, target, headers in order, body) and answers with what the test scripts.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace testing_support {

struct RecordedRequest {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  std::optional<std::string> header(std::string_view name) const;
};

struct ScriptedResponse {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  /// Wait this long before answering (a stalled server).
  std::chrono::milliseconds delay{0};
  /// Announce the whole body but close after this many bytes (a cut-short response).
  std::optional<std::size_t> truncateAfter;
  /// Close the connection without answering, after the whole request was read (a server
  /// that drops a kept-alive connection).
  bool dropConnection = false;
  /// After the headers, send `body` again and again, without a length, until the client
  /// goes away (bounded at a few gigabytes).
  bool endless = false;
};

class HttpServer {
 public:
  using Handler = std::function<ScriptedResponse(const RecordedRequest&)>;

  explicit HttpServer(Handler handler = {});
  ~HttpServer();

  /// "http://127.0.0.1:PORT"
  std::string baseURL() const;
  int port() const { return port_; }

  void setHandler(Handler handler);
  std::vector<RecordedRequest> requests() const;
  /// Waits (bounded) until at least `n` requests have arrived.
  bool waitForRequests(std::size_t n, std::chrono::milliseconds limit = std::chrono::seconds(5));

 private:
  void acceptLoop();
  void serve(int fd);

  int listener_ = -1;
  int port_ = 0;
  bool stopping_ = false;
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  Handler handler_;
  std::vector<RecordedRequest> requests_;
  std::vector<std::thread> workers_;
  std::vector<int> openSockets_;
  std::thread acceptor_;
};

}  // namespace testing_support
