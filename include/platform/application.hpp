#pragma once
/// The application object and the user-notification center, as far as a push client needs
/// them: registration for remote notifications, notification permission, the foreground
/// presentation and the opening of a notification. On this machine there is no push service
/// and no person to ask, so the host decides every outcome:
///
///   auto& app = platform::Application::shared();
///   app.setRemoteNotificationRegistrar([] {
///     return platform::RemoteRegistration::token("\x0a\xff");   // or ::failure(error)
///   });
///   app.setDelegate(&myDelegate);
///   app.registerForRemoteNotifications();   // the delegate hears it on the main queue
///
///   auto& center = platform::UserNotificationCenter::current();
///   center.setAuthorizationDecider([](platform::AuthorizationOptions) {
///     return platform::AuthorizationStatus::authorized;
///   });
///   center.present(notification, [](platform::PresentationOptions o) { ... });
///
/// Delegates are not owned (the phone holds them weakly): a delegate unsets itself before it
/// is destroyed.

#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/error.hpp"
#include "platform/notification.hpp"

namespace platform {

// ---- remote notifications ------------------------------------------------------------

/// What registering for remote notifications gave: the device token (raw bytes) or an error.
struct RemoteRegistration {
  std::variant<std::string, Error> outcome;
  static RemoteRegistration token(std::string bytes) { return {std::move(bytes)}; }
  static RemoteRegistration failure(Error error) { return {std::move(error)}; }
};

/// The application delegate's part in remote notifications.
class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;
  virtual void didRegisterForRemoteNotifications(const std::string& deviceToken) = 0;
  virtual void didFailToRegisterForRemoteNotifications(const Error& error) = 0;
};

class Application {
 public:
  static Application& shared();

  /// The delegate that hears registration outcomes; null unsets it.
  void setDelegate(ApplicationDelegate* delegate);
  ApplicationDelegate* delegate() const;

  /// Decides what the next registrations give. Without one, registration fails with
  /// "remote notifications are not available on this machine" (domain "NSCocoaErrorDomain",
  /// code 3010, the phone's code for a simulator).
  void setRemoteNotificationRegistrar(std::function<RemoteRegistration()> registrar);
  /// Asks for a device token: the registrar is called now, and its outcome reaches the
  /// delegate set when it is delivered, later, on the main queue (none set then: nobody
  /// hears it).
  void registerForRemoteNotifications();
  /// How many times registration was asked for.
  int registrationRequests() const;

  /// Opens a URL the way the phone would (the settings page of the application, a link);
  /// the host decides what that means. Without an opener the URL is written to standard
  /// error as "open: URL" and true returned. Returns what the opener returned.
  bool open(std::string_view url);
  void setURLOpener(std::function<bool(std::string_view url)> opener);
  /// The URL of this application's page in the system settings.
  static constexpr std::string_view openSettingsURLString = "app-settings:";

 private:
  mutable std::mutex mutex_;
  ApplicationDelegate* delegate_ = nullptr;
  std::function<RemoteRegistration()> registrar_;
  std::function<bool(std::string_view)> opener_;
  int registrationRequests_ = 0;
};

// ---- user notifications --------------------------------------------------------------

/// Whether the application may show notifications (the phone's raw values).
enum class AuthorizationStatus : int {
  notDetermined = 0,
  denied = 1,
  authorized = 2,
  provisional = 3,
  ephemeral = 4,
};
/// "notDetermined", "denied", "authorized", "provisional", "ephemeral".
std::string_view toString(AuthorizationStatus status);

/// What permission is asked for: a bit set with the phone's raw values.
using AuthorizationOptions = std::uint32_t;
inline constexpr AuthorizationOptions authorizationBadge = 1;
inline constexpr AuthorizationOptions authorizationSound = 2;
inline constexpr AuthorizationOptions authorizationAlert = 4;

/// How a notification is shown while the application is in the foreground: a bit set with
/// the phone's raw values (none: not shown).
using PresentationOptions = std::uint32_t;
inline constexpr PresentationOptions presentationBadge = 1;
inline constexpr PresentationOptions presentationSound = 2;
inline constexpr PresentationOptions presentationList = 8;
inline constexpr PresentationOptions presentationBanner = 16;

/// A delivered notification.
struct UserNotification {
  NotificationRequest request;
  const boost::json::object& userInfo() const;
};

/// What the user did with a notification (opening it is the default action).
struct UserNotificationResponse {
  UserNotification notification;
  std::string actionIdentifier = "com.apple.UNNotificationDefaultActionIdentifier";
};

class UserNotificationCenterDelegate {
 public:
  virtual ~UserNotificationCenterDelegate() = default;
  /// A notification arrived while the application is in the foreground; call `completion`
  /// with how to show it (exactly once, on any thread).
  virtual void willPresent(const UserNotification& notification,
                           std::function<void(PresentationOptions)> completion) = 0;
  /// The user opened a notification; call `completion` when handled.
  virtual void didReceive(const UserNotificationResponse& response,
                          std::function<void()> completion) = 0;
};

class UserNotificationCenter {
 public:
  static UserNotificationCenter& current();

  void setDelegate(UserNotificationCenterDelegate* delegate);
  UserNotificationCenterDelegate* delegate() const;

  /// Decides what asking for permission gives; without one the answer is `denied` (nobody
  /// is there to allow it). The decider sees the options asked for. Once decided, the status
  /// stays until `reset`; asking again returns it without calling the decider, as the phone
  /// asks a person only once.
  void setAuthorizationDecider(std::function<AuthorizationStatus(AuthorizationOptions)> decider);
  /// Asks for permission; returns whether it was granted (authorized, provisional or
  /// ephemeral). A decider that answers `notDetermined` counts as `denied`.
  boost::asio::awaitable<bool> requestAuthorization(AuthorizationOptions options);
  /// The status now (`notDetermined` until asked).
  boost::asio::awaitable<AuthorizationStatus> authorizationStatus();
  /// The options of the last request for permission (0 before any).
  AuthorizationOptions lastRequestedOptions() const;
  /// Back to `notDetermined`, for tests.
  void reset();

  /// Hands `notification` to the delegate as arriving in the foreground; `completion` gets
  /// what the delegate chose (0 when there is no delegate). For hosts and tests.
  void present(const UserNotification& notification,
               std::function<void(PresentationOptions)> completion);
  /// Hands the opening of a notification to the delegate; `completion` runs once handled
  /// (at once when there is no delegate).
  void open(const UserNotificationResponse& response, std::function<void()> completion);

 private:
  mutable std::mutex mutex_;
  std::mutex asking_;  // held while the decider runs, so that it runs once
  UserNotificationCenterDelegate* delegate_ = nullptr;
  std::function<AuthorizationStatus(AuthorizationOptions)> decider_;
  AuthorizationStatus status_ = AuthorizationStatus::notDetermined;
  AuthorizationOptions lastRequested_ = 0;
};

}  // namespace platform
