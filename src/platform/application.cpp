#include "platform/application.hpp"

#include <cstdio>

#include "platform/main_queue.hpp"

namespace platform {
namespace {

// The phone's code when a simulator asks for a device token.
constexpr long kRemoteNotificationsUnavailable = 3010;

}  // namespace

// ---- Application ---------------------------------------------------------------------

Application& Application::shared() {
  // Never destroyed: outcomes posted to the main queue may run while statics are torn down.
  static Application* app = new Application();
  return *app;
}

void Application::setDelegate(ApplicationDelegate* delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

ApplicationDelegate* Application::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void Application::setRemoteNotificationRegistrar(std::function<RemoteRegistration()> registrar) {
  std::lock_guard lock(mutex_);
  registrar_ = std::move(registrar);
}

void Application::registerForRemoteNotifications() {
  std::function<RemoteRegistration()> registrar;
  {
    std::lock_guard lock(mutex_);
    ++registrationRequests_;
    registrar = registrar_;
  }
  // The registrar is the host's code: called outside the lock so that it may use the
  // application itself.
  auto registration = registrar ? registrar()
                                : RemoteRegistration::failure(Error(
                                      "NSCocoaErrorDomain", kRemoteNotificationsUnavailable,
                                      "remote notifications are not available on this machine"));
  MainQueue::shared().post([this, registration = std::move(registration)] {
    // The delegate of this moment: one that unset itself meanwhile may be gone.
    auto* target = delegate();
    if (!target) return;
    if (const auto* token = std::get_if<std::string>(&registration.outcome))
      target->didRegisterForRemoteNotifications(*token);
    else
      target->didFailToRegisterForRemoteNotifications(std::get<Error>(registration.outcome));
  });
}

int Application::registrationRequests() const {
  std::lock_guard lock(mutex_);
  return registrationRequests_;
}

bool Application::open(std::string_view url) {
  std::function<bool(std::string_view)> opener;
  {
    std::lock_guard lock(mutex_);
    opener = opener_;
  }
  if (opener) return opener(url);
  const auto line = "open: " + std::string(url) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  return true;
}

void Application::setURLOpener(std::function<bool(std::string_view url)> opener) {
  std::lock_guard lock(mutex_);
  opener_ = std::move(opener);
}

// ---- user notifications --------------------------------------------------------------

std::string_view toString(AuthorizationStatus status) {
  switch (status) {
    case AuthorizationStatus::notDetermined:
      return "notDetermined";
    case AuthorizationStatus::denied:
      return "denied";
    case AuthorizationStatus::authorized:
      return "authorized";
    case AuthorizationStatus::provisional:
      return "provisional";
    case AuthorizationStatus::ephemeral:
      return "ephemeral";
  }
  return "notDetermined";
}

const boost::json::object& UserNotification::userInfo() const {
  static const boost::json::object empty;
  return request.content ? request.content->userInfo : empty;
}

UserNotificationCenter& UserNotificationCenter::current() {
  static UserNotificationCenter* center = new UserNotificationCenter();
  return *center;
}

void UserNotificationCenter::setDelegate(UserNotificationCenterDelegate* delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = delegate;
}

UserNotificationCenterDelegate* UserNotificationCenter::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_;
}

void UserNotificationCenter::setAuthorizationDecider(
    std::function<AuthorizationStatus(AuthorizationOptions)> decider) {
  std::lock_guard lock(mutex_);
  decider_ = std::move(decider);
}

boost::asio::awaitable<bool> UserNotificationCenter::requestAuthorization(
    AuthorizationOptions options) {
  // Two requests at once still ask only once: the second waits for the first's answer.
  std::lock_guard asking(asking_);
  std::function<AuthorizationStatus(AuthorizationOptions)> decider;
  AuthorizationStatus status;
  {
    std::lock_guard lock(mutex_);
    lastRequested_ = options;
    status = status_;
    decider = decider_;
  }
  if (status == AuthorizationStatus::notDetermined) {
    // Called without mutex_ held: the host's decider may look at the center.
    status = decider ? decider(options) : AuthorizationStatus::denied;
    // A decider that cannot make up its mind leaves nobody to ask again: no is the answer.
    if (status == AuthorizationStatus::notDetermined) status = AuthorizationStatus::denied;
    std::lock_guard lock(mutex_);
    status_ = status;
  }
  co_return status == AuthorizationStatus::authorized ||
      status == AuthorizationStatus::provisional || status == AuthorizationStatus::ephemeral;
}

boost::asio::awaitable<AuthorizationStatus> UserNotificationCenter::authorizationStatus() {
  std::lock_guard lock(mutex_);
  co_return status_;
}

AuthorizationOptions UserNotificationCenter::lastRequestedOptions() const {
  std::lock_guard lock(mutex_);
  return lastRequested_;
}

void UserNotificationCenter::reset() {
  std::lock_guard lock(mutex_);
  status_ = AuthorizationStatus::notDetermined;
  lastRequested_ = 0;
}

void UserNotificationCenter::present(const UserNotification& notification,
                                     std::function<void(PresentationOptions)> completion) {
  if (auto* target = delegate())
    target->willPresent(notification, std::move(completion));
  else
    completion(0);
}

void UserNotificationCenter::open(const UserNotificationResponse& response,
                                  std::function<void()> completion) {
  if (auto* target = delegate())
    target->didReceive(response, std::move(completion));
  else
    completion();
}

}  // namespace platform
