#pragma once
// A facade of its own for each test: its own store in a temporary folder, its own
// notification center, and every service call sent to a recording server on 127.0.0.1.

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include "herald/endpoints.hpp"
#include "herald/herald.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"
#include "platform/notification_center.hpp"
#include "platform/user_defaults.hpp"
#include "support/http_server.hpp"

namespace session_support {

class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

struct Session {
  explicit Session(testing_support::HttpServer::Handler handler = {});
  ~Session();

  TemporaryFolder folder;
  platform::UserDefaults defaults;
  herald::UserManager users;
  platform::NotificationCenter center;
  testing_support::HttpServer server;
  std::shared_ptr<herald::Herald> herald;

  template <class T>
  T await(boost::asio::awaitable<T> task) {
    return platform::blockOn(std::move(task));
  }
  /// Runs the main queue until it has nothing left to do (bounded).
  std::size_t drainMainQueue(std::chrono::milliseconds limit = std::chrono::milliseconds(20));
  /// "METHOD /path" of every request the server received.
  std::vector<std::string> wire() const;
};

}  // namespace session_support
