#pragma once
/// The live inbox: one state shared by every listener, kept current by pages, the realtime
/// socket and the application's own changes. Reached through the facade:
///
///   auto& herald = herald::Herald::shared();
///   auto listener = co_await herald.addInboxListener({
///       .onFeedChanged = [](const herald::InboxMessageSet& feed) { show(feed); },
///       .onMessageAdded = [](herald::InboxMessageFeed, std::int64_t index,
///                            const herald::InboxMessagePtr& message) { insert(index, message); },
///   });
///   co_await herald.readMessage("m1");   // changed here at once, then told to the service
///   co_await listener->remove();
///
/// Two actors do the work: `InboxModule` keeps the state and the listeners, `InboxRepository`
/// makes the requests and owns the socket. Every listener callback is posted to the main
/// queue (`platform::MainQueue`), one work item each, in the order the changes were made.
///
/// A message handed to a listener is never changed afterwards: a change replaces the message
/// in its list with a changed copy, so a listener may keep what it was given and read it on
/// the main queue while the inbox goes on.

#include <boost/asio/awaitable.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "herald/herald_error.hpp"
#include "herald/inbox_message.hpp"
#include "herald/inbox_socket.hpp"
#include "platform/actor.hpp"

namespace herald {

class Herald;
class InboxModule;

/// A registered interest in the inbox. Every callback is optional and runs on the main queue.
class HeraldInboxListener : public std::enable_shared_from_this<HeraldInboxListener> {
 public:
  using OnLoading = std::function<void()>;
  using OnError = std::function<void(const HeraldError&)>;
  using OnUnreadCountChanged = std::function<void(std::int64_t count)>;
  using OnSetChanged = std::function<void(const InboxMessageSet& set)>;
  using OnPageAdded = std::function<void(InboxMessageFeed feed, const InboxMessageSet& page)>;
  using OnMessage = std::function<void(InboxMessageFeed feed, std::int64_t index,
                                       const InboxMessagePtr& message)>;

  /// The nine callbacks, in the order the facade takes them; name the ones you need.
  struct Callbacks {
    OnLoading onLoading;
    OnError onError;
    OnUnreadCountChanged onUnreadCountChanged;
    OnSetChanged onFeedChanged;
    OnSetChanged onArchiveChanged;
    OnPageAdded onPageAdded;
    OnMessage onMessageChanged;
    OnMessage onMessageAdded;
    OnMessage onMessageRemoved;
  };

  HeraldInboxListener(Callbacks callbacks, std::weak_ptr<InboxModule> module);

  const OnLoading onLoading;
  const OnError onError;
  const OnUnreadCountChanged onUnreadCountChanged;
  const OnSetChanged onFeedChanged;
  const OnSetChanged onArchiveChanged;
  const OnPageAdded onPageAdded;
  const OnMessage onMessageChanged;
  const OnMessage onMessageAdded;
  const OnMessage onMessageRemoved;

  /// False until the loading step has run; read it on the main queue only.
  bool isInitialized() const { return isInitialized_; }

  /// Posts `onLoading`, after which the listener counts as initialized.
  void loading();
  /// Posts the state to an initialized listener: `onFeedChanged`, `onArchiveChanged`,
  /// `onUnreadCountChanged`, in that order. A listener that has not been through its loading
  /// step hears nothing.
  void load(std::shared_ptr<const HeraldInboxData> data);
  /// Unregisters this listener, as `Herald::removeInboxListener` does.
  boost::asio::awaitable<void> remove();

 private:
  const std::weak_ptr<InboxModule> module_;
  bool isInitialized_ = false;  // main queue only
};

/// The requests and the realtime socket of the inbox. An actor.
class InboxRepository {
 public:
  InboxRepository(std::weak_ptr<Herald> herald, platform::WebSocketConfiguration configuration);

  /// The feed's first page, the archive's first page and the unread count, as three
  /// requests in flight at once; the state once all three have answered. Throws the first
  /// failure.
  boost::asio::awaitable<std::shared_ptr<HeraldInboxData>> loadFirstPages(std::int64_t limit);
  /// A fresh socket for the signed-in client (the previous one closed), connected, subscribed
  /// and kept alive every 300 s. New messages go to `onMessage`, events to `onEvent`, a
  /// failure of the connection once it is up to `onFailure`, all on the web-socket thread.
  /// Throws "Herald Inbox is not initialized" without a client.
  boost::asio::awaitable<void> connectSocket(std::function<void(InboxMessagePtr)> onMessage,
                                             std::function<void(MessageEvent)> onEvent,
                                             std::function<void(HeraldError)> onFailure);
  boost::asio::awaitable<void> closeSocket();

  /// The page after `current` of the named list, or none when nothing is to be asked: the
  /// list cannot paginate, or a page of it is already in flight, or an earlier page request
  /// of it failed (that list asks for no more pages until the inbox restarts).
  boost::asio::awaitable<std::optional<InboxMessageSet>> fetchNextPage(
      InboxMessageFeed feed, bool canPaginate, std::optional<std::string> cursor,
      std::int64_t limit);
  /// Forgets the paging flags (a restart of the inbox).
  boost::asio::awaitable<void> resetPaging();

  /// Tells the service of one change through `client`; `trackingId` is the click's. Throws
  /// the refusal.
  boost::asio::awaitable<void> send(std::shared_ptr<HeraldClient> client, InboxEventType event,
                                    std::string messageId,
                                    std::optional<std::string> trackingId);

  InboxSocketManager& socketManager() { return socketManager_; }

 private:
  boost::asio::awaitable<std::shared_ptr<HeraldClient>> signedInClient();

  platform::Actor actor_;
  std::weak_ptr<Herald> herald_;
  InboxSocketManager socketManager_;
  // On actor_'s strand only.
  bool isPagingFeed_ = false;
  bool isPagingArchived_ = false;
};

/// The state and the listeners of the inbox. An actor; reached through the facade.
class InboxModule : public std::enable_shared_from_this<InboxModule> {
 public:
  static std::shared_ptr<InboxModule> create(
      std::weak_ptr<Herald> herald,
      platform::WebSocketConfiguration configuration =
          platform::WebSocketConfiguration::defaultConfiguration());

  // ---- listeners -------------------------------------------------------------------------

  /// Registers a listener and brings it up to date: the error "No user signed in" when
  /// nobody is, the state when there is one (no request), else a start of the inbox.
  boost::asio::awaitable<std::shared_ptr<HeraldInboxListener>> addListener(
      HeraldInboxListener::Callbacks callbacks);
  /// Removes every entry that is this very listener.
  boost::asio::awaitable<void> removeListener(std::shared_ptr<HeraldInboxListener> listener);
  boost::asio::awaitable<void> removeAllListeners();
  boost::asio::awaitable<std::size_t> listenerCount();

  // ---- the state -------------------------------------------------------------------------

  /// Loads the inbox anew (every listener's `onLoading`, three first loads, then the socket)
  /// and hands the state to the listeners; a failure goes to every `onError`. Clears the
  /// paging flags first.
  boost::asio::awaitable<void> start();
  /// `start`, whose failure (also told to every listener) the caller gets as well: for a
  /// caller that loads the inbox without listening to it.
  boost::asio::awaitable<std::optional<HeraldError>> load();
  /// Drops the state and closes the socket; the listeners stay.
  boost::asio::awaitable<void> stop();
  /// Closes the socket and keeps the state (the application went to the background).
  boost::asio::awaitable<void> closeSocket();

  /// The next page of a list, added to the state and posted as `onPageAdded`; empty when no
  /// state exists yet or nothing was asked for.
  boost::asio::awaitable<std::vector<InboxMessagePtr>> fetchNextPage(InboxMessageFeed feed);
  /// The messages of a list now (empty without a state).
  boost::asio::awaitable<std::vector<InboxMessagePtr>> messages(InboxMessageFeed feed);
  /// A copy of the whole state, or none.
  boost::asio::awaitable<std::shared_ptr<const HeraldInboxData>> snapshot();

  // ---- changes ---------------------------------------------------------------------------

  /// Who asked for a change.
  enum class Origin {
    /// The application: the change is always sent to the service.
    application,
    /// An event of the realtime socket, a change made on another device: it is sent back to
    /// the service only when it changed something here, so that two live devices of one user
    /// do not echo each other's changes without end.
    otherDevice
  };

  /// Applies `event` to the message here, tells the listeners, then tells the service; when
  /// the service refuses, exactly this change is undone (the listeners told again) and the
  /// refusal thrown. A message in neither list ends quietly, without a request.
  boost::asio::awaitable<void> change(std::string messageId, InboxEventType event,
                                      Origin origin = Origin::application);
  /// Marks every unread message of both lists read (count 0), then tells the service.
  boost::asio::awaitable<void> readAll(Origin origin = Origin::application);
  /// Runs an event of the realtime socket as the operation it names.
  boost::asio::awaitable<void> apply(MessageEvent event);
  /// A message that arrived on the socket: at the top of the feed, the count one higher.
  boost::asio::awaitable<void> insertArrived(InboxMessagePtr message);

 private:
  struct Undo;
  InboxModule(std::weak_ptr<Herald> herald, platform::WebSocketConfiguration configuration);

  // Bodies that run on the strand.
  boost::asio::awaitable<std::optional<HeraldError>> startHere(
      const HeraldInboxListener* alreadyLoading);
  /// The signed-in client, or "No user signed in" / "Herald Inbox is not initialized".
  boost::asio::awaitable<std::shared_ptr<HeraldClient>> checkReady() const;
  void arrive(InboxMessagePtr message);
  void insertHere(InboxMessagePtr message);
  Undo applyHere(InboxMessageFeed feed, std::size_t index, InboxEventType event);
  void notifyFailure(HeraldError error);
  void undoChange(const Undo& undo);
  static std::size_t returnIndex(const InboxMessageSet& feed, const Undo& undo);

  // One main-queue work item per listener, in registration order.
  template <class Call>
  void post(Call call) const;
  void postChanged(InboxMessageFeed feed, std::size_t index, InboxMessagePtr message) const;
  void postAdded(InboxMessageFeed feed, std::size_t index, InboxMessagePtr message) const;
  void postRemoved(InboxMessageFeed feed, std::size_t index, InboxMessagePtr message) const;
  void postUnreadCount() const;
  void notifyError(const HeraldError& error) const;

  platform::Actor actor_;
  const std::weak_ptr<Herald> herald_;
  InboxRepository repo_;
  // On actor_'s strand only.
  std::vector<std::shared_ptr<HeraldInboxListener>> listeners_;
  std::shared_ptr<HeraldInboxData> data_;
  // Counts starts and stops: a page or an undo that outlived its state is not applied.
  std::uint64_t generation_ = 0;
  // While the first pages load: socket messages wait here for the state they belong to.
  bool starting_ = false;
  std::vector<InboxMessagePtr> arrivals_;
};

}  // namespace herald
