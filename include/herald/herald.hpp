#pragma once
/// `Herald`: the one facade of the service client. It signs a user in and out, keeps the
/// credentials in user defaults so that they outlive the process, tells listeners when the
/// user changes, and owns the push-token cache and the live inbox (herald/inbox_module.hpp).
///
///   auto& herald = herald::Herald::shared();
///   co_await herald.signIn("user-1", std::nullopt, jwt, std::nullopt, /*showLogs=*/true);
///   co_await herald.setToken(herald::HeraldPushProvider::firebaseFcm, "f00d");
///   herald.userId();   // "user-1" (read from the store, also in the next process)
///   co_await herald.signOut();
///
/// Every operation runs on the facade's own strand; sign-in, sign-out and the token setters
/// never interleave. Listeners are called on the main queue (`platform::MainQueue`), one
/// work item each, in registration order. From a plain thread, use the completion variants
/// or `platform::blockOn`.

#include <boost/asio/awaitable.hpp>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "herald/herald_agent.hpp"
#include "herald/herald_client.hpp"
#include "herald/herald_error.hpp"
#include "herald/inbox_module.hpp"
#include "herald/token_client.hpp"
#include "herald/token_module.hpp"
#include "herald/user_manager.hpp"
#include "platform/actor.hpp"
#include "platform/application.hpp"
#include "platform/notification_center.hpp"

namespace herald {

class Herald;

/// A registered interest in sign-in and sign-out; `onChange` gets the new user id (none
/// after sign-out). Removed by identity.
class HeraldAuthenticationListener {
 public:
  using OnChange = std::function<void(std::optional<std::string> userId)>;
  explicit HeraldAuthenticationListener(OnChange onChange) : onChange(std::move(onChange)) {}
  const OnChange onChange;
};

/// Passes the application's life-cycle notifications to the facade (which passes them to the
/// inbox): became-active as "didEnterForeground", entered-background as
/// "didEnterBackground". Holds the facade weakly; unregisters itself when destroyed.
class HeraldNotificationProxy {
 public:
  HeraldNotificationProxy() = delete;
  HeraldNotificationProxy(std::weak_ptr<Herald> herald, platform::NotificationCenter& center);
  ~HeraldNotificationProxy();
  HeraldNotificationProxy(const HeraldNotificationProxy&) = delete;
  HeraldNotificationProxy& operator=(const HeraldNotificationProxy&) = delete;

  void didEnterForeground(const platform::Notification& notification);
  void didEnterBackground(const platform::Notification& notification);

  const std::weak_ptr<Herald> herald;

 private:
  platform::NotificationCenter& center_;
  platform::NotificationCenter::ObserverToken foreground_ = 0;
  platform::NotificationCenter::ObserverToken background_ = 0;
};

class Herald : public std::enable_shared_from_this<Herald> {
 public:
  using Completion = std::function<void()>;
  using ErrorCompletion = std::function<void(std::optional<HeraldError>)>;

  /// The process's facade, over `UserManager::shared()` and the default notification center.
  static Herald& shared();
  /// Another facade over `users` (tests, a second account in one process).
  static std::shared_ptr<Herald> create(
      UserManager& users,
      platform::NotificationCenter& center = platform::NotificationCenter::defaultCenter());
  ~Herald();

  /// The calling SDK, sent as "User-Agent" (`HeraldAgent::current()`).
  static HeraldAgent agent();
  static void setAgent(HeraldAgent agent);

  // ---- session ---------------------------------------------------------------------------

  /// Signs `userId` in: a full sign-out of whoever is signed in, a new client with a fresh
  /// connection id, the credentials stored, every cached push token uploaded, the inbox
  /// restarted, the listeners told. Never throws: a failed token upload is logged (and
  /// kept, see `lastTokenUploads`); credentials that cannot be stored are logged at error
  /// level and leave the user signed out. An empty `accessToken` means none.
  boost::asio::awaitable<void> signIn(std::string userId, std::optional<std::string> tenantId,
                                      std::string accessToken,
                                      std::optional<std::string> clientKey = std::nullopt,
                                      bool showLogs = false);
  void signIn(std::string userId, std::optional<std::string> tenantId, std::string accessToken,
              std::optional<std::string> clientKey, bool showLogs, Completion completion);

  /// Signs the user out: the client cleared, the cached tokens' local step, the inbox closed,
  /// the credentials removed, the listeners told. Push tokens stay registered on the service
  /// and cached here for the next sign-in. With nobody signed in nothing changes. Never
  /// throws.
  boost::asio::awaitable<void> signOut();
  void signOut(Completion completion);

  /// Read from the stored credentials (so also right after a restart, before any sign-in).
  std::optional<std::string> userId() const;
  std::optional<std::string> tenantId() const;
  bool isUserSignedIn() const;

  /// The signed-in user's client; none after sign-out, after a sign-in whose credentials
  /// could not be stored, and in a new process until sign-in.
  boost::asio::awaitable<std::shared_ptr<HeraldClient>> client();

  // ---- listeners -------------------------------------------------------------------------

  boost::asio::awaitable<std::shared_ptr<HeraldAuthenticationListener>>
  addAuthenticationListener(HeraldAuthenticationListener::OnChange onChange);
  boost::asio::awaitable<void> removeAuthenticationListener(
      std::shared_ptr<HeraldAuthenticationListener> listener);
  boost::asio::awaitable<void> removeAllAuthenticationListeners();

  // ---- inbox settings --------------------------------------------------------------------

  /// Stores `limit` clamped to 1…100 (32 until set).
  boost::asio::awaitable<void> setPaginationLimit(long long limit);
  /// The same as a new task; `completion` runs afterwards on a thread of the shared executor.
  void setPaginationLimit(long long limit, Completion completion);
  boost::asio::awaitable<int> inboxPaginationLimit();

  // ---- the live inbox (herald/inbox_module.hpp) ------------------------------------------

  /// Registers a listener, then: "No user signed in" to its `onError` when nobody is; the
  /// state it missed when the inbox is loaded (no request); else the inbox starts (three
  /// first loads at once, then the realtime socket) and every listener hears of it.
  boost::asio::awaitable<std::shared_ptr<HeraldInboxListener>> addInboxListener(
      HeraldInboxListener::Callbacks callbacks);
  boost::asio::awaitable<void> removeInboxListener(std::shared_ptr<HeraldInboxListener> listener);
  boost::asio::awaitable<void> removeAllInboxListeners();
  /// Loads the inbox anew and reconnects its socket; failures go to every `onError`.
  boost::asio::awaitable<void> refreshInbox();
  /// The next page of a list, also posted as `onPageAdded`. Empty when the inbox is not
  /// loaded, the list has no more pages or a page of it is on its way; after a failed page
  /// (thrown here), empty until the inbox restarts.
  boost::asio::awaitable<std::vector<InboxMessagePtr>> fetchNextInboxPage(InboxMessageFeed feed);
  /// The loaded messages (empty before the first load and after sign-out).
  boost::asio::awaitable<std::vector<InboxMessagePtr>> feedMessages();
  boost::asio::awaitable<std::vector<InboxMessagePtr>> archivedMessages();

  /// Each changes the message here at once (the listeners told), then tells the service;
  /// a refusal undoes that change (the listeners told again) and is thrown. Throws "No user
  /// signed in" without a user; an id in neither list does nothing.
  boost::asio::awaitable<void> readMessage(std::string messageId);
  boost::asio::awaitable<void> unreadMessage(std::string messageId);
  boost::asio::awaitable<void> openMessage(std::string messageId);
  /// Counts the click with the message's click tracking id; nothing changes here.
  boost::asio::awaitable<void> clickMessage(std::string messageId);
  /// Reads the message if it is unread, then moves it to the top of the archive.
  boost::asio::awaitable<void> archiveMessage(std::string messageId);
  /// Every unread message of both lists read, the unread count 0.
  boost::asio::awaitable<void> readAllInboxMessages();

  /// The inbox's state and listeners, made on first use.
  std::shared_ptr<InboxModule> inboxModule();

  // ---- push tokens -----------------------------------------------------------------------

  /// Caches the platform's raw push token (its hex form under "apn"); when a user is signed
  /// in, replaces the registered "apn" token on the service (DELETE of the old, PUT of the
  /// new). Throws the upload's `HeraldError`; "No user signed in" is never thrown here.
  boost::asio::awaitable<void> setAPNSToken(std::string rawToken);
  /// Reports the error (logged at error level first) or none to `completion`.
  void setAPNSToken(std::string rawToken, ErrorCompletion completion);

  boost::asio::awaitable<void> setToken(HeraldPushProvider provider, std::string token);
  boost::asio::awaitable<void> setToken(std::string providerKey, std::string token);
  void setToken(std::string providerKey, std::string token, ErrorCompletion completion);

  boost::asio::awaitable<std::optional<std::string>> getToken(HeraldPushProvider provider);
  boost::asio::awaitable<std::optional<std::string>> getToken(std::string providerKey);
  /// The cached raw token.
  boost::asio::awaitable<std::optional<std::string>> apnsToken();

  /// What each token upload of the last sign-in gave (empty before any sign-in).
  boost::asio::awaitable<std::vector<TokenUpload>> lastTokenUploads();

  // ---- notification permission (the current user-notification center) -------------------

  /// Asks for alert, sound and badge (7) and returns the status that results.
  static boost::asio::awaitable<platform::AuthorizationStatus> requestNotificationPermission();
  static void requestNotificationPermission(
      std::function<void(platform::AuthorizationStatus)> completion);
  static boost::asio::awaitable<platform::AuthorizationStatus> getNotificationPermissionStatus();
  static void getNotificationPermissionStatus(
      std::function<void(platform::AuthorizationStatus)> completion);
  /// Opens the application's page in the system settings.
  static void openSettingsForApp();

  // ---- application life cycle (called by the proxy) --------------------------------------

  boost::asio::awaitable<void> didEnterForeground();
  boost::asio::awaitable<void> didEnterBackground();

 private:
  explicit Herald(UserManager& users);
  void attachProxy(platform::NotificationCenter& center);

  // Bodies that run on the strand, inside an exclusive section.
  boost::asio::awaitable<std::optional<std::uint64_t>> signInOnActor(std::string userId,
                                             std::optional<std::string> tenantId,
                                             std::string accessToken,
                                             std::optional<std::string> clientKey, bool showLogs);
  boost::asio::awaitable<void> signOutOnActor();
  void notifyListeners(const std::optional<std::string>& userId) const;
  void logWithClient(std::string_view message) const;
  TokenModule& tokenModule();

  // The inbox's part of sign-in, sign-out and the life cycle.
  /// The inbox's start begun (its epoch), or none when nobody listens.
  boost::asio::awaitable<std::optional<std::uint64_t>> restartInbox();
  boost::asio::awaitable<void> closeInbox();

  UserManager& users_;
  platform::Actor actor_;
  // Touched on actor_ only.
  std::shared_ptr<HeraldClient> client_;
  std::vector<std::shared_ptr<HeraldAuthenticationListener>> authListeners_;
  std::unique_ptr<TokenModule> tokenModule_;
  int paginationLimit_ = 32;
  std::vector<TokenUpload> lastTokenUploads_;
  std::unique_ptr<HeraldNotificationProxy> notificationProxy_;
  std::mutex inboxMutex_;
  std::shared_ptr<InboxModule> inboxModule_;  // under inboxMutex_
};

}  // namespace herald
