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
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <deque>
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

/// Whether the live inbox is live, as its listeners hear it (`onConnectionChanged`).
enum class InboxConnectionState {
  /// A start is under way: the first pages, the count and the socket.
  connecting,
  /// Loaded, and the socket is up: what the service changes arrives here.
  live,
  /// The connection was lost; the state stays as it was and a restart comes in `retryIn`.
  reconnecting,
  /// Not trying: the application is in the background, nobody is signed in, or the service
  /// refused the credentials (401, 403). A refresh, the foreground or a sign-in starts again.
  offline
};
/// "connecting", "live", "reconnecting", "offline".
std::string_view toString(InboxConnectionState state);

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
  /// The state and, while reconnecting, the seconds until the next start (else 0).
  using OnConnectionChanged = std::function<void(InboxConnectionState state, double retryIn)>;

  /// The callbacks, in the order the facade takes them; name the ones you need.
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
    OnConnectionChanged onConnectionChanged;
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
  const OnConnectionChanged onConnectionChanged;

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

/// How the live inbox keeps itself live.
struct InboxConnectionOptions {
  /// Restart n after a loss waits a random time from 0 to min(retryCap, retryBase * 2^(n-1))
  /// ("full jitter": devices that lost one service do not come back all at once).
  std::chrono::milliseconds retryBase{std::chrono::seconds(1)};
  std::chrono::milliseconds retryCap{std::chrono::seconds(30)};
  /// A connection that stayed live this long starts the back-off over.
  std::chrono::milliseconds stablePeriod{std::chrono::seconds(10)};
  /// The socket's limits. Its `idleTimeout` is the dead-peer time-out: with nothing heard for
  /// half of it a ping goes out (the ping interval), and with nothing for all of it, not even
  /// the pong, the connection is lost. 20 s notices a dead service within 30 s.
  platform::WebSocketConfiguration socket = liveSocket();
  /// The wait, in seconds, for a ceiling in seconds; uniform from 0 to the ceiling when unset.
  std::function<double(double ceiling)> jitter;

  static platform::WebSocketConfiguration liveSocket() {
    auto configuration = platform::WebSocketConfiguration::defaultConfiguration();
    configuration.idleTimeout = std::chrono::seconds(20);
    return configuration;
  }
};

/// The requests and the realtime socket of the inbox. An actor.
class InboxRepository {
 public:
  InboxRepository(std::weak_ptr<Herald> herald, platform::WebSocketConfiguration configuration);

  /// The feed's first page, the archive's first page and (with `withCount`) the unread count,
  /// as requests in flight at once; the state once all have answered. Throws the first
  /// failure.
  boost::asio::awaitable<std::shared_ptr<HeraldInboxData>> loadFirstPages(std::int64_t limit,
                                                                         bool withCount = true);
  /// The service's unread count on its own.
  boost::asio::awaitable<std::int64_t> loadUnreadCount();
  /// A fresh socket for the signed-in client (the previous one closed), connected, subscribed
  /// and kept alive every 300 s. Each frame goes to `onFrame`, in arrival order; the end of
  /// the connection that this side did not ask for (a close frame of the service, the end of
  /// the stream, a reset, silence, a refused upgrade) to `onLost`, possibly more than once
  /// for one end. Both run on the web-socket thread. Throws "Herald Inbox is not
  /// initialized" without a client, and what the connect or the subscribe fails with.
  boost::asio::awaitable<std::shared_ptr<InboxSocket>> connectSocket(
      std::function<void(SocketFrame)> onFrame, std::function<void(HeraldError)> onLost);
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
///
/// It keeps itself live: a connection lost in any way (see `InboxConnectionState`) is told
/// once to every `onError`, and the inbox starts again after a back-off until it is live, the
/// user signs out or the application goes to the background. Every start is an epoch: what
/// an older epoch still brings (a late load, a page, an old socket's frame, a stale timer)
/// changes nothing.
class InboxModule : public std::enable_shared_from_this<InboxModule> {
 public:
  static std::shared_ptr<InboxModule> create(std::weak_ptr<Herald> herald,
                                             InboxConnectionOptions options = {});

  /// Replaces the options; the next connection uses them.
  boost::asio::awaitable<void> setOptions(InboxConnectionOptions options);

  // ---- listeners -------------------------------------------------------------------------

  /// Registers a listener and brings it up to date: the error "No user signed in" when
  /// nobody is, the state when there is one (no request), else a start of the inbox, whose
  /// end it waits for.
  boost::asio::awaitable<std::shared_ptr<HeraldInboxListener>> addListener(
      HeraldInboxListener::Callbacks callbacks);
  /// Removes every entry that is this very listener.
  boost::asio::awaitable<void> removeListener(std::shared_ptr<HeraldInboxListener> listener);
  boost::asio::awaitable<void> removeAllListeners();
  boost::asio::awaitable<std::size_t> listenerCount();

  // ---- the state -------------------------------------------------------------------------

  /// Loads the inbox anew (every listener's `onLoading`, three first loads, then the socket)
  /// and hands the state to the listeners; a failure goes to every `onError`, and the inbox
  /// tries again after the back-off. Clears the paging flags first. Returns once this start
  /// has ended, or was overtaken by a stop or another start.
  boost::asio::awaitable<void> start();
  /// `start`, whose failure (also told to every listener) the caller gets as well: for a
  /// caller that loads the inbox without listening to it.
  boost::asio::awaitable<std::optional<HeraldError>> load();
  /// Begins a start without waiting for it; `wait` then waits for its end. For a caller that
  /// holds a gate of its own while beginning and must not hold it while the network answers.
  boost::asio::awaitable<std::uint64_t> begin();
  boost::asio::awaitable<std::optional<HeraldError>> wait(std::uint64_t epoch);
  /// Drops the state, cancels what is in flight and closes the socket; the listeners stay.
  /// Never waits on the network.
  boost::asio::awaitable<void> stop();
  /// Cancels what is in flight and closes the socket, keeping the state (the application
  /// went to the background): offline until the next start. Never waits on the network.
  boost::asio::awaitable<void> closeSocket();

  /// The next page of a list, added to the state and posted as `onPageAdded`; empty when no
  /// state exists yet or nothing was asked for. A failure is thrown and told to every
  /// `onError`.
  boost::asio::awaitable<std::vector<InboxMessagePtr>> fetchNextPage(InboxMessageFeed feed);
  /// The messages of a list now (empty without a state).
  boost::asio::awaitable<std::vector<InboxMessagePtr>> messages(InboxMessageFeed feed);
  /// A copy of the whole state, or none.
  boost::asio::awaitable<std::shared_ptr<const HeraldInboxData>> snapshot();
  /// The connection's state now.
  boost::asio::awaitable<InboxConnectionState> connectionState();

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
  /// refusal thrown. A message in neither list ends quietly, without a request. Changes are
  /// sent one after another, in the order made; one still in flight is made again on the
  /// state of a restart, and its undo still works there.
  boost::asio::awaitable<void> change(std::string messageId, InboxEventType event,
                                      Origin origin = Origin::application);
  /// Marks every unread message of both lists read (count 0), then tells the service.
  boost::asio::awaitable<void> readAll(Origin origin = Origin::application);
  /// Runs an event of the realtime socket as the operation it names.
  boost::asio::awaitable<void> apply(MessageEvent event);
  /// A message that arrived on the socket: at the top of the feed, the count one higher;
  /// nothing when a message of that id is held already.
  boost::asio::awaitable<void> insertArrived(InboxMessagePtr message);

 private:
  struct Undo;
  struct Pending;
  struct Waiter;
  enum class Phase { idle, loading, live, reconnecting, offline };
  InboxModule(std::weak_ptr<Herald> herald, InboxConnectionOptions options);

  // Bodies that run on the strand.
  std::uint64_t beginHere(bool automatic, const HeraldInboxListener* alreadyLoading);
  boost::asio::awaitable<void> attempt(std::uint64_t epoch, bool subscribeFirst);
  boost::asio::awaitable<std::optional<HeraldError>> waitHere(std::uint64_t epoch);
  void finish(std::uint64_t epoch, std::optional<HeraldError> failure);
  void lost(std::uint64_t epoch, HeraldError error);
  void received(std::uint64_t epoch, SocketFrame frame);
  void applyFrame(SocketFrame frame);
  /// Ends the current epoch's work without a network wait: in-flight loads cancelled, the
  /// retry timer stopped, the socket closed.
  void cancelHere();
  void setPhase(Phase phase, double retryIn = 0);
  /// The signed-in client, or "No user signed in" / "Herald Inbox is not initialized".
  boost::asio::awaitable<std::shared_ptr<HeraldClient>> checkReady() const;
  void insertHere(InboxMessagePtr message);
  std::optional<std::pair<InboxMessageFeed, std::size_t>> find(std::string_view messageId) const;
  /// Makes a change here (one message, or read-all without an id) and records its undo.
  Undo changeHere(InboxEventType event, const std::optional<std::string>& messageId);
  Undo applyHere(InboxMessageFeed feed, std::size_t index, InboxEventType event);
  Undo readAllHere();
  /// Sends a change made here, after every change before it; undoes it when refused.
  boost::asio::awaitable<void> sendInOrder(std::shared_ptr<Pending> pending);
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
  void postConnection(const std::shared_ptr<HeraldInboxListener>& listener) const;

  platform::Actor actor_;
  const std::weak_ptr<Herald> herald_;
  InboxRepository repo_;
  // On actor_'s strand only.
  InboxConnectionOptions options_;
  std::vector<std::shared_ptr<HeraldInboxListener>> listeners_;
  std::shared_ptr<HeraldInboxData> data_;
  // Counts starts and stops: whatever carries an older epoch changes nothing.
  std::uint64_t epoch_ = 0;
  Phase phase_ = Phase::idle;
  // The current epoch is a restart nobody asked for: its failure is not told again.
  bool automatic_ = false;
  // The last epoch that ended, and how: for a wait that comes after the end.
  std::uint64_t finishedEpoch_ = 0;
  std::optional<HeraldError> finishedFailure_;
  double retryIn_ = 0;
  // Losses since the connection last stayed up for `stablePeriod`.
  int attempt_ = 0;
  std::chrono::steady_clock::time_point liveSince_;
  boost::asio::steady_timer retryTimer_;
  std::shared_ptr<boost::asio::cancellation_signal> cancel_;
  std::shared_ptr<InboxSocket> socket_;
  // While the first pages load: the socket's frames wait here, in arrival order.
  std::vector<SocketFrame> pending_;
  std::vector<std::shared_ptr<Waiter>> waiters_;
  // Changes made here whose mutation has not been answered yet, in the order made; the
  // first is the one being sent.
  std::deque<std::shared_ptr<Pending>> outbox_;
  // Muted while changes still in flight are made again on a fresh state, before it is shown.
  bool muted_ = false;
};

}  // namespace herald
