#pragma once
// Shared pieces of the rich-push tests: a private caches directory per test, a server whose
// answers wait at a gate the test opens, and a bounded drain of the main queue.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/main_queue.hpp"
#include "support/http_server.hpp"

namespace rich_push_test {

using namespace std::chrono_literals;

// Points XDG_CACHE_HOME at a fresh folder for the test and removes it afterwards.
class TempCachesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = std::filesystem::temp_directory_path() /
           ("rich_push_test_" + std::to_string(::getpid()) + "_" +
            ::testing::UnitTest::GetInstance()->current_test_info()->name());
    std::filesystem::remove_all(root);
    std::filesystem::create_directories(root / "caches");
    ::setenv("XDG_CACHE_HOME", (root / "caches").c_str(), 1);
  }
  void TearDown() override { std::filesystem::remove_all(root); }

  std::filesystem::path caches() const { return root / "caches"; }

  std::filesystem::path root;
};

// Holds every answer until `open()`; the destructor opens it so the server can stop.
class GatedServer {
 public:
  explicit GatedServer(testing_support::HttpServer::Handler handler)
      : gate_(std::make_shared<Gate>()), server_([gate = gate_, handler](const auto& request) {
          gate->wait();
          return handler(request);
        }) {}
  ~GatedServer() { gate_->open(); }

  void open() { gate_->open(); }
  testing_support::HttpServer& server() { return server_; }
  std::string url(const std::string& path) const { return server_.baseURL() + path; }

 private:
  struct Gate {
    std::mutex mutex;
    std::condition_variable opened;
    bool isOpen = false;
    void wait() {
      std::unique_lock lock(mutex);
      opened.wait_for(lock, 10s, [&] { return isOpen; });
    }
    void open() {
      {
        std::lock_guard lock(mutex);
        isOpen = true;
      }
      opened.notify_all();
    }
  };
  std::shared_ptr<Gate> gate_;
  testing_support::HttpServer server_;
};

inline bool drainUntil(const std::function<bool()>& done) {
  return platform::MainQueue::shared().runUntil(done, 10s);
}

}  // namespace rich_push_test
