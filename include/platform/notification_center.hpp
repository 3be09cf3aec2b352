#pragma once
/// The default notification center: observers by name, and `post`, which calls every
/// observer of that name on the posting thread, in the order they were added.
///
///   auto& center = platform::NotificationCenter::defaultCenter();
///   auto token = center.addObserver(platform::applicationDidBecomeActiveNotification,
///                                   [](const platform::Notification&) { reload(); });
///   center.post(platform::applicationDidBecomeActiveNotification);
///   center.removeObserver(token);

#include <boost/json/object.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// The application's two life-cycle notifications.
inline constexpr std::string_view applicationDidBecomeActiveNotification =
    "UIApplicationDidBecomeActiveNotification";
inline constexpr std::string_view applicationDidEnterBackgroundNotification =
    "UIApplicationDidEnterBackgroundNotification";

struct Notification {
  std::string name;
  boost::json::object userInfo;
};

class NotificationCenter {
 public:
  using Observer = std::function<void(const Notification&)>;
  /// Names one registration; 0 is never handed out.
  using ObserverToken = std::uint64_t;

  static NotificationCenter& defaultCenter();
  NotificationCenter() = default;

  ObserverToken addObserver(std::string_view name, Observer observer);
  /// After this returns the observer is not called again (a post already running on another
  /// thread may still be inside it). An unknown token is ignored.
  void removeObserver(ObserverToken token);
  /// Calls the observers of `name` registered when the post began; an observer may add or
  /// remove observers. An exception from an observer is logged and the others still run.
  void post(std::string_view name, boost::json::object userInfo = {});
  /// How many observers `name` has.
  std::size_t observerCount(std::string_view name) const;

 private:
  struct Registration {
    ObserverToken token;
    std::string name;
    std::shared_ptr<Observer> observer;
  };
  mutable std::mutex mutex_;
  std::vector<Registration> registrations_;
  ObserverToken next_ = 1;
};

}  // namespace platform
