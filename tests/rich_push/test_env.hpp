#pragma once
// Shared pieces of the rich-push tests: a private caches directory per test, a server whose
// answers wait at a gate the test opens, a bounded drain of the main queue, and a fixture
// that hands rich pushes to the service and records what is delivered.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>

#include "platform/main_queue.hpp"
#include "rich_push/rich_push_service.hpp"
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
      : server_([opened = opened_, handler](const auto& request) {
          opened.wait_for(10s);
          return handler(request);
        }) {}
  ~GatedServer() { open(); }

  void open() {
    std::call_once(once_, [this] { gate_.set_value(); });
  }
  testing_support::HttpServer& server() { return server_; }
  std::string url(const std::string& path) const { return server_.baseURL() + path; }

 private:
  std::promise<void> gate_;
  std::shared_future<void> opened_ = gate_.get_future().share();
  std::once_flag once_;
  testing_support::HttpServer server_;
};

inline bool drainUntil(const std::function<bool()>& done) {
  return platform::MainQueue::shared().runUntil(done, 10s);
}

inline platform::NotificationRequest richPush(const std::string& url,
                                              std::optional<std::string> type) {
  platform::MutableNotificationContent content;
  content.title = "New filters";
  boost::json::object att{{"url", url}};
  if (type) att["type"] = *type;
  content.userInfo["rp"] = boost::json::object{{"att", att}};
  return {"id-1", content.copy()};
}

class RichPushTest : public TempCachesTest {
 protected:
  // Handles `request`, waits for the handler and a little longer (a second call would show).
  bool handle(const platform::NotificationRequest& request) {
    const auto before = delivered.size();
    const bool taken = rich_push::richPushHandle(
        request, [this](const platform::NotificationContent& c) { delivered.push_back(c); },
        client);
    if (taken) {
      EXPECT_TRUE(drainUntil([&] { return delivered.size() > before; }));
    }
    platform::MainQueue::shared().runFor(50ms);
    return taken;
  }

  std::filesystem::path cacheFolder() const { return caches() / rich_push::kCacheFolderName; }

  rich_push::AssetsClient client = rich_push::AssetsClient::live(rich_push::url_session::uncached(),
                                                                 rich_push::mainQueue(), 300ms);
  std::vector<platform::NotificationContent> delivered;
};

}  // namespace rich_push_test
