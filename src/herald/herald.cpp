#include "herald/herald.hpp"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>

#include "core/clamping.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"
#include "platform/paths.hpp"

namespace herald {
namespace {

template <class T>
using awaitable = boost::asio::awaitable<T>;

// Runs `task` as a new task and hands its outcome to `completion` (on a thread of the shared
// executor); a completion that throws is reported like any escaping task error.
template <class Task, class Completion>
void completeLater(Task task, Completion completion) {
  platform::spawnDetached(
      [task = std::move(task), completion = std::move(completion)]() mutable -> awaitable<void> {
        std::optional<HeraldError> error;
        try {
          co_await task();
        } catch (...) {
          error = HeraldError::from(std::current_exception());
        }
        completion(std::move(error));
      });
}

}  // namespace

// ---- the notification proxy ----------------------------------------------------------------

HeraldNotificationProxy::HeraldNotificationProxy(std::weak_ptr<Herald> herald,
                                                 platform::NotificationCenter& center)
    : herald(std::move(herald)), center_(center) {
  foreground_ = center_.addObserver(platform::applicationDidBecomeActiveNotification,
                                    [this](const platform::Notification& n) {
                                      didEnterForeground(n);
                                    });
  background_ = center_.addObserver(platform::applicationDidEnterBackgroundNotification,
                                    [this](const platform::Notification& n) {
                                      didEnterBackground(n);
                                    });
}

HeraldNotificationProxy::~HeraldNotificationProxy() {
  center_.removeObserver(foreground_);
  center_.removeObserver(background_);
}

// The task holds only the facade's weak reference: a notification that arrives while the
// facade goes away ends quietly.
void HeraldNotificationProxy::didEnterForeground(const platform::Notification&) {
  platform::spawnDetached([weak = herald]() -> awaitable<void> {
    if (auto facade = weak.lock()) co_await facade->didEnterForeground();
  });
}

void HeraldNotificationProxy::didEnterBackground(const platform::Notification&) {
  platform::spawnDetached([weak = herald]() -> awaitable<void> {
    if (auto facade = weak.lock()) co_await facade->didEnterBackground();
  });
}

// ---- the facade ----------------------------------------------------------------------------

Herald::Herald(UserManager& users) : users_(users) {}

Herald::~Herald() = default;

std::shared_ptr<Herald> Herald::create(UserManager& users, platform::NotificationCenter& center) {
  std::shared_ptr<Herald> herald(new Herald(users));
  herald->attachProxy(center);
  return herald;
}

Herald& Herald::shared() {
  // Never destroyed: pool threads may still finish a task of the facade while the program
  // exits.
  static std::shared_ptr<Herald>* const holder =
      new std::shared_ptr<Herald>(create(UserManager::shared()));
  return **holder;
}

void Herald::attachProxy(platform::NotificationCenter& center) {
  notificationProxy_ = std::make_unique<HeraldNotificationProxy>(weak_from_this(), center);
}

HeraldAgent Herald::agent() { return HeraldAgent::current(); }
void Herald::setAgent(HeraldAgent agent) { HeraldAgent::setCurrent(std::move(agent)); }

std::optional<std::string> Herald::userId() const { return users_.userId(); }
std::optional<std::string> Herald::tenantId() const { return users_.tenantId(); }
bool Herald::isUserSignedIn() const { return users_.userId().has_value(); }

TokenModule& Herald::tokenModule() {
  if (!tokenModule_) tokenModule_ = std::make_unique<TokenModule>(users_);
  return *tokenModule_;
}

void Herald::logWithClient(std::string_view message) const {
  if (client_) client_->log(message);
}

void Herald::notifyListeners(const std::optional<std::string>& userId) const {
  for (const auto& listener : authListeners_) {
    platform::MainQueue::shared().post([listener, userId] {
      if (listener->onChange) listener->onChange(userId);
    });
  }
}

// ---- sign-in and sign-out ------------------------------------------------------------------

awaitable<void> Herald::signIn(std::string userId, std::optional<std::string> tenantId,
                               std::string accessToken, std::optional<std::string> clientKey,
                               bool showLogs) {
  const auto self = shared_from_this();
  auto body = [self, userId = std::move(userId), tenantId = std::move(tenantId),
               accessToken = std::move(accessToken), clientKey = std::move(clientKey),
               showLogs]() mutable -> awaitable<std::optional<std::uint64_t>> {
    auto epoch = co_await self->signInOnActor(std::move(userId), std::move(tenantId),
                                              std::move(accessToken), std::move(clientKey),
                                              showLogs);
    co_return epoch;
  };
  // The inbox's load is awaited outside the gate: a sign-out must not wait on the network.
  const auto epoch = co_await actor_.exclusive(std::move(body));
  if (epoch) co_await self->inboxModule()->wait(*epoch);
}

void Herald::signIn(std::string userId, std::optional<std::string> tenantId,
                    std::string accessToken, std::optional<std::string> clientKey, bool showLogs,
                    Completion completion) {
  completeLater(
      [self = shared_from_this(), userId = std::move(userId), tenantId = std::move(tenantId),
       accessToken = std::move(accessToken), clientKey = std::move(clientKey), showLogs] {
        return self->signIn(userId, tenantId, accessToken, clientKey, showLogs);
      },
      [completion = std::move(completion)](std::optional<HeraldError>) {
        if (completion) completion();
      });
}

awaitable<std::optional<std::uint64_t>> Herald::signInOnActor(
    std::string userId, std::optional<std::string> tenantId, std::string accessToken,
    std::optional<std::string> clientKey, bool showLogs) {
  if (users_.userId()) co_await signOutOnActor();

  // An empty access token is no token: the client then sends no "Authorization" at all.
  std::optional<std::string> jwt;
  if (!accessToken.empty()) jwt = accessToken;
  client_ = std::make_shared<HeraldClient>(jwt, clientKey, userId, platform::newUUID(), tenantId,
                                           showLogs);
  client_->log("Signing user in\nUser Id: " + userId + "\nTenant Id: " +
               tenantId.value_or("Not set") + "\nAccess Token: " + accessToken +
               "\nClient Key: " + clientKey.value_or("Not set"));

  try {
    users_.setCredentials(userId, accessToken, clientKey, tenantId);
  } catch (const std::exception& e) {
    // Without stored credentials the user is not signed in: nothing is uploaded and nobody
    // is told otherwise. The error line is written whatever showLogs says.
    sdkLog().error("Could not store the credentials of " + userId + ": " + e.what());
    client_.reset();
    co_return std::nullopt;
  }

  lastTokenUploads_ = co_await tokenModule().putAllTokens(client_);
  auto epoch = co_await restartInbox();
  notifyListeners(userId);
  co_return epoch;
}

awaitable<void> Herald::signOut() {
  return actor_.exclusive([self = shared_from_this()]() -> awaitable<void> {
    co_await self->signOutOnActor();
  });
}

void Herald::signOut(Completion completion) {
  completeLater([self = shared_from_this()] { return self->signOut(); },
                [completion = std::move(completion)](std::optional<HeraldError>) {
                  if (completion) completion();
                });
}

awaitable<void> Herald::signOutOnActor() {
  if (!users_.userId()) {
    logWithClient(
        "No user signed into Herald. A user must be signed in on order to sign out.");
    client_.reset();
    co_return;
  }
  logWithClient("Signing user out");
  // Cleared before the token step on purpose: with no client that step only does its local
  // work, so the device's tokens stay registered for the next user of this device.
  client_.reset();
  co_await tokenModule().deleteAllTokens(nullptr);
  co_await closeInbox();
  try {
    users_.removeCredentials();
  } catch (const std::exception& e) {
    sdkLog().error(std::string("Could not remove the stored credentials: ") + e.what());
  }
  notifyListeners(std::nullopt);
}

awaitable<std::shared_ptr<HeraldClient>> Herald::client() {
  return actor_.run([self = shared_from_this()]() -> awaitable<std::shared_ptr<HeraldClient>> {
    co_return self->client_;
  });
}

// ---- listeners -----------------------------------------------------------------------------

awaitable<std::shared_ptr<HeraldAuthenticationListener>> Herald::addAuthenticationListener(
    HeraldAuthenticationListener::OnChange onChange) {
  return actor_.run([self = shared_from_this(), onChange = std::move(onChange)]() mutable
                    -> awaitable<std::shared_ptr<HeraldAuthenticationListener>> {
    auto listener = std::make_shared<HeraldAuthenticationListener>(std::move(onChange));
    self->authListeners_.push_back(listener);
    self->logWithClient("Herald Authentication Listener Registered. Total Listeners: " +
                        std::to_string(self->authListeners_.size()));
    co_return listener;
  });
}

awaitable<void> Herald::removeAuthenticationListener(
    std::shared_ptr<HeraldAuthenticationListener> listener) {
  return actor_.run([self = shared_from_this(), listener]() -> awaitable<void> {
    std::erase(self->authListeners_, listener);
    self->logWithClient("Herald Authentication Listener Unregistered. Total Listeners: " +
                        std::to_string(self->authListeners_.size()));
    co_return;
  });
}

awaitable<void> Herald::removeAllAuthenticationListeners() {
  return actor_.run([self = shared_from_this()]() -> awaitable<void> {
    self->authListeners_.clear();
    self->logWithClient("Herald Authentication Listeners Removed. Total Listeners: " +
                        std::to_string(self->authListeners_.size()));
    co_return;
  });
}

// ---- inbox settings ------------------------------------------------------------------------

awaitable<void> Herald::setPaginationLimit(long long limit) {
  return actor_.run([self = shared_from_this(), limit]() -> awaitable<void> {
    self->paginationLimit_ = static_cast<int>(core::clamped(limit, 1LL, 100LL));
    co_return;
  });
}

void Herald::setPaginationLimit(long long limit, Completion completion) {
  completeLater([self = shared_from_this(), limit] { return self->setPaginationLimit(limit); },
                [completion = std::move(completion)](std::optional<HeraldError>) {
                  if (completion) completion();
                });
}

awaitable<int> Herald::inboxPaginationLimit() {
  return actor_.run(
      [self = shared_from_this()]() -> awaitable<int> { co_return self->paginationLimit_; });
}

// ---- push tokens ---------------------------------------------------------------------------

awaitable<void> Herald::setAPNSToken(std::string rawToken) {
  return actor_.exclusive([self = shared_from_this(),
                           rawToken = std::move(rawToken)]() mutable -> awaitable<void> {
    co_await self->tokenModule().setAPNSToken(std::move(rawToken), self->client_);
  });
}

void Herald::setAPNSToken(std::string rawToken, ErrorCompletion completion) {
  completeLater(
      [self = shared_from_this(), rawToken = std::move(rawToken)] {
        return self->setAPNSToken(rawToken);
      },
      [completion = std::move(completion)](std::optional<HeraldError> error) {
        if (error) sdkLog().error(error->message);
        if (completion) completion(std::move(error));
      });
}

awaitable<void> Herald::setToken(HeraldPushProvider provider, std::string token) {
  return setToken(std::string(toString(provider)), std::move(token));
}

awaitable<void> Herald::setToken(std::string providerKey, std::string token) {
  return actor_.exclusive([self = shared_from_this(), providerKey = std::move(providerKey),
                           token = std::move(token)]() mutable -> awaitable<void> {
    co_await self->tokenModule().setToken(std::move(providerKey), std::move(token),
                                          self->client_);
  });
}

void Herald::setToken(std::string providerKey, std::string token, ErrorCompletion completion) {
  completeLater(
      [self = shared_from_this(), providerKey = std::move(providerKey),
       token = std::move(token)] { return self->setToken(providerKey, token); },
      [completion = std::move(completion)](std::optional<HeraldError> error) {
        if (completion) completion(std::move(error));
      });
}

awaitable<std::optional<std::string>> Herald::getToken(HeraldPushProvider provider) {
  return getToken(std::string(toString(provider)));
}

awaitable<std::optional<std::string>> Herald::getToken(std::string providerKey) {
  return actor_.run([self = shared_from_this(), providerKey = std::move(providerKey)]() mutable
                    -> awaitable<std::optional<std::string>> {
    co_return co_await self->tokenModule().token(std::move(providerKey));
  });
}

awaitable<std::optional<std::string>> Herald::apnsToken() {
  return actor_.run([self = shared_from_this()]() -> awaitable<std::optional<std::string>> {
    co_return co_await self->tokenModule().apnsToken();
  });
}

awaitable<std::vector<TokenUpload>> Herald::lastTokenUploads() {
  return actor_.run([self = shared_from_this()]() -> awaitable<std::vector<TokenUpload>> {
    co_return self->lastTokenUploads_;
  });
}

// ---- notification permission ---------------------------------------------------------------

awaitable<platform::AuthorizationStatus> Herald::requestNotificationPermission() {
  auto& center = platform::UserNotificationCenter::current();
  co_await center.requestAuthorization(platform::authorizationAlert |
                                       platform::authorizationSound |
                                       platform::authorizationBadge);
  co_return co_await center.authorizationStatus();
}

void Herald::requestNotificationPermission(
    std::function<void(platform::AuthorizationStatus)> completion) {
  platform::spawnDetached([completion = std::move(completion)]() -> awaitable<void> {
    auto status = co_await requestNotificationPermission();
    if (completion) completion(status);
  });
}

awaitable<platform::AuthorizationStatus> Herald::getNotificationPermissionStatus() {
  co_return co_await platform::UserNotificationCenter::current().authorizationStatus();
}

void Herald::getNotificationPermissionStatus(
    std::function<void(platform::AuthorizationStatus)> completion) {
  platform::spawnDetached([completion = std::move(completion)]() -> awaitable<void> {
    auto status = co_await getNotificationPermissionStatus();
    if (completion) completion(status);
  });
}

void Herald::openSettingsForApp() {
  platform::Application::shared().open(platform::Application::openSettingsURLString);
}

// ---- application life cycle and the inbox --------------------------------------------------

awaitable<void> Herald::didEnterForeground() {
  const auto self = shared_from_this();
  auto body = [self]() -> awaitable<std::optional<std::uint64_t>> {
    if (!self->users_.userId()) co_return std::nullopt;
    const auto module = self->inboxModule();
    const auto listeners = co_await module->listenerCount();
    if (listeners == 0) co_return std::nullopt;
    auto epoch = co_await module->begin();
    co_return epoch;
  };
  const auto epoch = co_await actor_.exclusive(std::move(body));
  if (epoch) co_await self->inboxModule()->wait(*epoch);
}

awaitable<void> Herald::didEnterBackground() {
  return actor_.exclusive([self = shared_from_this()]() -> awaitable<void> {
    std::shared_ptr<InboxModule> module;
    {
      std::lock_guard lock(self->inboxMutex_);
      module = self->inboxModule_;
    }
    if (module) co_await module->closeSocket();
  });
}

// Sign-in restarts the inbox for the new client when somebody listens (a session nobody
// watches opens no socket); sign-out stops it; the background closes only the socket; the
// foreground reloads it when it has listeners. A start is begun inside the facade's gate and
// awaited outside it, so that a sign-out never waits for a load on the network.
awaitable<std::optional<std::uint64_t>> Herald::restartInbox() {
  const auto module = inboxModule();
  const auto listeners = co_await module->listenerCount();
  if (listeners == 0) {
    co_await module->stop();
    co_return std::nullopt;
  }
  auto epoch = co_await module->begin();
  co_return epoch;
}

awaitable<void> Herald::closeInbox() {
  std::shared_ptr<InboxModule> module;
  {
    std::lock_guard lock(inboxMutex_);
    module = inboxModule_;
  }
  if (module) co_await module->stop();
}

std::shared_ptr<InboxModule> Herald::inboxModule() {
  std::lock_guard lock(inboxMutex_);
  if (!inboxModule_) inboxModule_ = InboxModule::create(weak_from_this());
  return inboxModule_;
}

// ---- the live inbox --------------------------------------------------------------------------

awaitable<std::shared_ptr<HeraldInboxListener>> Herald::addInboxListener(
    HeraldInboxListener::Callbacks callbacks) {
  return inboxModule()->addListener(std::move(callbacks));
}

awaitable<void> Herald::removeInboxListener(std::shared_ptr<HeraldInboxListener> listener) {
  return inboxModule()->removeListener(std::move(listener));
}

awaitable<void> Herald::removeAllInboxListeners() { return inboxModule()->removeAllListeners(); }

awaitable<void> Herald::refreshInbox() { return inboxModule()->start(); }

awaitable<std::vector<InboxMessagePtr>> Herald::fetchNextInboxPage(InboxMessageFeed feed) {
  return inboxModule()->fetchNextPage(feed);
}

awaitable<std::vector<InboxMessagePtr>> Herald::feedMessages() {
  return inboxModule()->messages(InboxMessageFeed::feed);
}

awaitable<std::vector<InboxMessagePtr>> Herald::archivedMessages() {
  return inboxModule()->messages(InboxMessageFeed::archived);
}

awaitable<void> Herald::readMessage(std::string messageId) {
  return inboxModule()->change(std::move(messageId), InboxEventType::read);
}

awaitable<void> Herald::unreadMessage(std::string messageId) {
  return inboxModule()->change(std::move(messageId), InboxEventType::unread);
}

awaitable<void> Herald::openMessage(std::string messageId) {
  return inboxModule()->change(std::move(messageId), InboxEventType::opened);
}

awaitable<void> Herald::clickMessage(std::string messageId) {
  return inboxModule()->change(std::move(messageId), InboxEventType::click);
}

awaitable<void> Herald::archiveMessage(std::string messageId) {
  return inboxModule()->change(std::move(messageId), InboxEventType::archive);
}

awaitable<void> Herald::readAllInboxMessages() { return inboxModule()->readAll(); }

}  // namespace herald
