#pragma once
// A `Herald` facade of its own over a store in a temporary folder, for a benchmark that signs
// in and listens; it signs out and removes the folder when it goes.
//
//   struct Session : bench_support::OwnFacade {
//     Session() { herald->signIn(...); listener = ... }
//     ~Session() { close(); }
//   };

#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>

#include "herald/herald.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"
#include "platform/notification_center.hpp"
#include "platform/paths.hpp"
#include "platform/user_defaults.hpp"

namespace bench_support {

struct OwnFacade {
  OwnFacade()
      : folder(makeFolder()),
        defaults(folder / "defaults.json"),
        users(defaults),
        herald(herald::Herald::create(users, center)) {}
  ~OwnFacade() {
    close();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
  // Signs out and runs what that posts to the main queue. A derived session whose listener
  // reaches its own members calls it from its destructor, while those members still stand.
  void close() {
    if (closed_) return;
    closed_ = true;
    platform::blockOn(herald->signOut());
    platform::waitForIdle(std::chrono::seconds(5));
    platform::MainQueue::shared().runFor(std::chrono::milliseconds(10));
  }
  OwnFacade(const OwnFacade&) = delete;
  OwnFacade& operator=(const OwnFacade&) = delete;

  static std::filesystem::path makeFolder() {
    std::string pattern = (platform::temporaryDirectory() / "herald-bench-XXXXXX").string();
    return ::mkdtemp(pattern.data());
  }

  std::filesystem::path folder;
  platform::UserDefaults defaults;
  herald::UserManager users;
  platform::NotificationCenter center;
  std::shared_ptr<herald::Herald> herald;

 private:
  bool closed_ = false;
};

}  // namespace bench_support
