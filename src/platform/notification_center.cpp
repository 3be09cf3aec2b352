#include "platform/notification_center.hpp"

#include <algorithm>
#include <exception>

#include "platform/error.hpp"
#include "platform/system_log.hpp"

namespace platform {

NotificationCenter& NotificationCenter::defaultCenter() {
  // Never destroyed: observers may still be removed by objects torn down at exit.
  static NotificationCenter* center = new NotificationCenter();
  return *center;
}

NotificationCenter::ObserverToken NotificationCenter::addObserver(std::string_view name,
                                                                  Observer observer) {
  std::lock_guard lock(mutex_);
  const auto token = next_++;
  registrations_.push_back(
      {token, std::string(name), std::make_shared<Observer>(std::move(observer))});
  return token;
}

void NotificationCenter::removeObserver(ObserverToken token) {
  std::shared_ptr<Observer> released;
  {
    std::lock_guard lock(mutex_);
    auto it = std::find_if(registrations_.begin(), registrations_.end(),
                           [&](const Registration& r) { return r.token == token; });
    if (it == registrations_.end()) return;
    released = std::move(it->observer);
    registrations_.erase(it);
  }
  // `released` dies here, outside the lock: the observer's captures may remove others.
}

void NotificationCenter::post(std::string_view name, boost::json::object userInfo) {
  std::vector<std::pair<ObserverToken, std::shared_ptr<Observer>>> targets;
  {
    std::lock_guard lock(mutex_);
    for (const auto& r : registrations_)
      if (r.name == name) targets.emplace_back(r.token, r.observer);
  }
  const Notification notification{std::string(name), std::move(userInfo)};
  for (const auto& [token, observer] : targets) {
    {
      // An earlier observer of this post may have removed this one.
      std::lock_guard lock(mutex_);
      const bool registered =
          std::any_of(registrations_.begin(), registrations_.end(),
                      [&, token = token](const Registration& r) { return r.token == token; });
      if (!registered) continue;
    }
    try {
      (*observer)(notification);
    } catch (const std::exception& e) {
      SystemLog("platform", "NotificationCenter")
          .error("An observer of " + notification.name + " threw " + typeName(e) + ": " + e.what());
    } catch (...) {
      SystemLog("platform", "NotificationCenter")
          .error("An observer of " + notification.name + " threw a non-standard exception");
    }
  }
}

std::size_t NotificationCenter::observerCount(std::string_view name) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(registrations_.begin(), registrations_.end(),
                    [&](const Registration& r) { return r.name == name; }));
}

}  // namespace platform
