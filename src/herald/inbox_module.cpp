#include "herald/inbox_module.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/as_tuple.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cmath>
#include <cstdio>
#include <random>

#include "core/dates.hpp"
#include "herald/herald.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"

namespace herald {
namespace {

template <class T>
using awaitable = boost::asio::awaitable<T>;

// The registry lines go to standard output whatever the log settings say, one write each so
// that they never interleave with another thread's output.
void printLine(std::string line) {
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

// When a change happened here: "2026-11-23T18:04:05+0100", in the process's zone.
std::string nowText() {
  static const core::DateFormatter formatter("yyyy-MM-dd'T'HH:mm:ssZ", {}, "en_US_POSIX");
  return formatter.string(std::chrono::system_clock::now());
}

std::optional<std::size_t> indexOf(const InboxMessageSet& set, std::string_view messageId) {
  const auto& messages = set.messages;
  const auto found = std::find_if(messages.begin(), messages.end(),
                                  [&](const auto& m) { return m->messageId == messageId; });
  if (found == messages.end()) return std::nullopt;
  return static_cast<std::size_t>(found - messages.begin());
}

// Where `message` is now, by identity: another change may have replaced it meanwhile.
std::optional<std::size_t> indexOfSame(const InboxMessageSet& set, const InboxMessagePtr& message) {
  const auto index = indexOf(set, message->messageId);
  if (index && set.messages[*index] == message) return index;
  return std::nullopt;
}

}  // namespace

// ---- the listener ---------------------------------------------------------------------------

HeraldInboxListener::HeraldInboxListener(Callbacks callbacks, std::weak_ptr<InboxModule> module)
    : onLoading(std::move(callbacks.onLoading)),
      onError(std::move(callbacks.onError)),
      onUnreadCountChanged(std::move(callbacks.onUnreadCountChanged)),
      onFeedChanged(std::move(callbacks.onFeedChanged)),
      onArchiveChanged(std::move(callbacks.onArchiveChanged)),
      onPageAdded(std::move(callbacks.onPageAdded)),
      onMessageChanged(std::move(callbacks.onMessageChanged)),
      onMessageAdded(std::move(callbacks.onMessageAdded)),
      onMessageRemoved(std::move(callbacks.onMessageRemoved)),
      onConnectionChanged(std::move(callbacks.onConnectionChanged)),
      module_(std::move(module)) {}

void HeraldInboxListener::loading() {
  platform::MainQueue::shared().post([self = shared_from_this()] {
    if (self->onLoading) self->onLoading();
    self->isInitialized_ = true;
  });
}

void HeraldInboxListener::load(std::shared_ptr<const HeraldInboxData> data) {
  platform::MainQueue::shared().post([self = shared_from_this(), data = std::move(data)] {
    if (!self->isInitialized_) return;
    if (self->onFeedChanged) self->onFeedChanged(data->feed);
    if (self->onArchiveChanged) self->onArchiveChanged(data->archived);
    if (self->onUnreadCountChanged) self->onUnreadCountChanged(data->unreadCount);
  });
}

awaitable<void> HeraldInboxListener::remove() {
  // Not declared in the condition: GCC 12 mishandles a variable with a destructor there in a
  // coroutine.
  const auto module = module_.lock();
  auto self = shared_from_this();
  if (module) co_await module->removeListener(std::move(self));
}

// ---- the module ------------------------------------------------------------------------------

// What one change did, so that a refusal undoes exactly that and nothing that happened since.
struct InboxModule::Undo {
  std::uint64_t epoch = 0;
  struct Replaced {
    InboxMessageFeed feed;
    InboxMessagePtr before;
    InboxMessagePtr after;
    std::int64_t countDelta = 0;
  };
  // Messages changed in place, with what each did to the unread count.
  std::vector<Replaced> replaced;
  // An archived message: `before` left the feed at `index`, `after` went to the archive.
  struct Moved {
    InboxMessagePtr before;
    InboxMessagePtr after;
    std::size_t index = 0;
    std::optional<std::string> precedingId;
    std::optional<std::string> followingId;
    std::int64_t countDelta = 0;
  };
  std::optional<Moved> moved;
  // Unread-count changes not tied to one message (read-all).
  std::int64_t countDelta = 0;

  bool empty() const { return replaced.empty() && !moved && countDelta == 0; }
};

// A change made here whose mutation is on its way or waits for the one before it.
struct InboxModule::Pending {
  Pending(boost::asio::any_io_executor executor, InboxEventType event,
          std::optional<std::string> messageId, std::optional<std::string> trackingId)
      : event(event),
        messageId(std::move(messageId)),
        trackingId(std::move(trackingId)),
        turn(std::move(executor)) {}
  const InboxEventType event;
  const std::optional<std::string> messageId;
  const std::optional<std::string> trackingId;
  // Replaced when a restart makes the change again on the new state.
  Undo undo;
  // Woken (cancelled) when this change is first in line, or when the line is dropped.
  boost::asio::steady_timer turn;
  bool dropped = false;
};

// Somebody waiting for the end of one start.
struct InboxModule::Waiter {
  Waiter(boost::asio::any_io_executor executor, std::uint64_t epoch)
      : epoch(epoch), woken(std::move(executor)) {}
  const std::uint64_t epoch;
  boost::asio::steady_timer woken;
  std::optional<HeraldError> failure;
};

std::string_view toString(InboxConnectionState state) {
  switch (state) {
    case InboxConnectionState::connecting:
      return "connecting";
    case InboxConnectionState::live:
      return "live";
    case InboxConnectionState::reconnecting:
      return "reconnecting";
    case InboxConnectionState::offline:
      return "offline";
  }
  return "offline";
}

namespace {

// Refused credentials do not get better by asking again: the inbox waits for a new start.
bool isCredentialRefusal(const HeraldError& error) {
  if (error.code == 401 || error.code == 403 || error.type == "authentication_error") return true;
  // A refused upgrade comes as the platform's "answered the upgrade with 401 ...".
  return error.message.find("upgrade with 401") != std::string::npos ||
         error.message.find("upgrade with 403") != std::string::npos;
}

double fullJitter(double ceiling) {
  thread_local std::mt19937_64 random{std::random_device{}()};
  return std::uniform_real_distribution<double>(0, ceiling)(random);
}

template <class Timer>
boost::asio::awaitable<void> sleepUntilWoken(Timer& timer) {
  timer.expires_at(Timer::time_point::max());
  [[maybe_unused]] auto [ignored] = co_await timer.async_wait(
      boost::asio::as_tuple(boost::asio::use_awaitable));
}

}  // namespace

InboxModule::InboxModule(std::weak_ptr<Herald> herald, InboxConnectionOptions options)
    : herald_(herald),
      repo_(std::move(herald), options.socket),
      options_(std::move(options)),
      retryTimer_(actor_.strand()) {}

std::shared_ptr<InboxModule> InboxModule::create(std::weak_ptr<Herald> herald,
                                                 InboxConnectionOptions options) {
  return std::shared_ptr<InboxModule>(new InboxModule(std::move(herald), std::move(options)));
}

awaitable<void> InboxModule::setOptions(InboxConnectionOptions options) {
  return actor_.run([self = shared_from_this(), options]() mutable -> awaitable<void> {
    co_await self->repo_.socketManager().setConfiguration(options.socket);
    self->options_ = std::move(options);
  });
}

template <class Call>
void InboxModule::post(Call call) const {
  if (muted_) return;
  for (const auto& listener : listeners_) {
    platform::MainQueue::shared().post([listener, call] { call(*listener); });
  }
}

void InboxModule::postChanged(InboxMessageFeed feed, std::size_t index,
                              InboxMessagePtr message) const {
  post([feed, index = static_cast<std::int64_t>(index), message](HeraldInboxListener& l) {
    if (l.onMessageChanged) l.onMessageChanged(feed, index, message);
  });
}

void InboxModule::postAdded(InboxMessageFeed feed, std::size_t index,
                            InboxMessagePtr message) const {
  post([feed, index = static_cast<std::int64_t>(index), message](HeraldInboxListener& l) {
    if (l.onMessageAdded) l.onMessageAdded(feed, index, message);
  });
}

void InboxModule::postRemoved(InboxMessageFeed feed, std::size_t index,
                              InboxMessagePtr message) const {
  post([feed, index = static_cast<std::int64_t>(index), message](HeraldInboxListener& l) {
    if (l.onMessageRemoved) l.onMessageRemoved(feed, index, message);
  });
}

void InboxModule::postUnreadCount() const {
  post([count = data_->unreadCount](HeraldInboxListener& l) {
    if (l.onUnreadCountChanged) l.onUnreadCountChanged(count);
  });
}

void InboxModule::notifyError(const HeraldError& error) const {
  post([error](HeraldInboxListener& l) {
    if (l.onError) l.onError(error);
  });
}

namespace {
InboxConnectionState shown(int phase) {
  // idle, loading, live, reconnecting, offline
  constexpr std::array states{InboxConnectionState::offline, InboxConnectionState::connecting,
                              InboxConnectionState::live, InboxConnectionState::reconnecting,
                              InboxConnectionState::offline};
  return states[static_cast<std::size_t>(phase)];
}
}  // namespace

void InboxModule::postConnection(const std::shared_ptr<HeraldInboxListener>& listener) const {
  platform::MainQueue::shared().post(
      [listener, state = shown(static_cast<int>(phase_)), retryIn = retryIn_] {
        if (listener->onConnectionChanged) listener->onConnectionChanged(state, retryIn);
      });
}

void InboxModule::setPhase(Phase phase, double retryIn) {
  const bool changed = shown(static_cast<int>(phase)) != shown(static_cast<int>(phase_)) ||
                       phase == Phase::reconnecting;
  phase_ = phase;
  retryIn_ = retryIn;
  if (!changed) return;
  for (const auto& listener : listeners_) postConnection(listener);
}

// ---- listeners ------------------------------------------------------------------------------

awaitable<std::shared_ptr<HeraldInboxListener>> InboxModule::addListener(
    HeraldInboxListener::Callbacks callbacks) {
  return actor_.run([self = shared_from_this(), callbacks = std::move(callbacks)]() mutable
                    -> awaitable<std::shared_ptr<HeraldInboxListener>> {
    auto listener = std::make_shared<HeraldInboxListener>(std::move(callbacks), self);
    listener->loading();
    self->listeners_.push_back(listener);
    printLine("Herald Inbox Listener Registered. Total Listeners: " +
              std::to_string(self->listeners_.size()));

    const auto herald = self->herald_.lock();
    if (!herald || !herald->isUserSignedIn()) {
      sdkLog().info(
          "User is not signed in. Please call Herald.shared.signIn(...) to setup the inbox "
          "listener.");
      platform::MainQueue::shared().post([listener, error = HeraldError::noUserSignedIn()] {
        if (listener->onError) listener->onError(error);
      });
      co_return listener;
    }
    if (self->data_) {
      listener->load(self->data_->copy());
      self->postConnection(listener);
      co_return listener;
    }
    // A start under way hands its state to every listener, this one too: wait for it rather
    // than load a second time.
    const auto epoch = self->phase_ == Phase::loading ? self->epoch_
                                                      : self->beginHere(false, listener.get());
    // A failure reaches the listener through its onError.
    [[maybe_unused]] const auto failure = co_await self->waitHere(epoch);
    co_return listener;
  });
}

awaitable<void> InboxModule::removeListener(std::shared_ptr<HeraldInboxListener> listener) {
  return actor_.run([self = shared_from_this(), listener]() -> awaitable<void> {
    std::erase(self->listeners_, listener);
    printLine("Herald Inbox Listener Unregistered. Total Listeners: " +
              std::to_string(self->listeners_.size()));
    co_return;
  });
}

awaitable<void> InboxModule::removeAllListeners() {
  return actor_.run([self = shared_from_this()]() -> awaitable<void> {
    self->listeners_.clear();
    printLine("Herald Inbox Listeners Removed. Total Listeners: 0");
    co_return;
  });
}

awaitable<std::size_t> InboxModule::listenerCount() {
  return actor_.run(
      [self = shared_from_this()]() -> awaitable<std::size_t> { co_return self->listeners_.size(); });
}

// ---- start and stop -------------------------------------------------------------------------
//
// A start is an epoch: `beginHere` cancels whatever the last one still does and spawns the
// new one's work, which nobody needs to await (sign-out and the background never wait on the
// network); callers that want its end wait for the epoch. A loss of the live connection, or a
// start that fails, schedules the next start after the back-off.

awaitable<void> InboxModule::start() {
  return actor_.run([self = shared_from_this()]() -> awaitable<void> {
    // Named, not discarded: GCC 12 mishandles a discarded awaited value with a destructor.
    [[maybe_unused]] const auto failure = co_await self->waitHere(self->beginHere(false, nullptr));
  });
}

awaitable<std::optional<HeraldError>> InboxModule::load() {
  return actor_.run([self = shared_from_this()]() -> awaitable<std::optional<HeraldError>> {
    auto failure = co_await self->waitHere(self->beginHere(false, nullptr));
    co_return failure;
  });
}

awaitable<std::uint64_t> InboxModule::begin() {
  return actor_.run([self = shared_from_this()]() -> awaitable<std::uint64_t> {
    co_return self->beginHere(false, nullptr);
  });
}

awaitable<std::optional<HeraldError>> InboxModule::wait(std::uint64_t epoch) {
  return actor_.run([self = shared_from_this(), epoch]() -> awaitable<std::optional<HeraldError>> {
    auto failure = co_await self->waitHere(epoch);
    co_return failure;
  });
}

std::uint64_t InboxModule::beginHere(bool automatic, const HeraldInboxListener* alreadyLoading) {
  cancelHere();
  const auto epoch = ++epoch_;
  automatic_ = automatic;
  // A restart that nobody asked for keeps showing the old state until the new one is in.
  if (!automatic) {
    attempt_ = 0;
    for (const auto& listener : listeners_) {
      if (listener.get() != alreadyLoading) listener->loading();
    }
  }
  setPhase(Phase::loading);
  auto signal = std::make_shared<boost::asio::cancellation_signal>();
  cancel_ = signal;
  boost::asio::co_spawn(
      actor_.strand(),
      [self = shared_from_this(), epoch, automatic] { return self->attempt(epoch, automatic); },
      boost::asio::bind_cancellation_slot(signal->slot(), [signal](std::exception_ptr) {}));
  return epoch;
}

awaitable<void> InboxModule::attempt(std::uint64_t epoch, bool subscribeFirst) {
  // Frames of this epoch's socket come onto the strand in the order they arrived, each tagged
  // with the epoch it belongs to.
  std::weak_ptr<InboxModule> weakSelf = weak_from_this();
  std::function<void(SocketFrame)> onFrame = [weakSelf, epoch](SocketFrame frame) {
    if (const auto self = weakSelf.lock())
      boost::asio::post(self->actor_.strand(), [self, epoch, frame = std::move(frame)]() mutable {
        self->received(epoch, std::move(frame));
      });
  };
  std::function<void(HeraldError)> onLost = [weakSelf, epoch](HeraldError error) {
    if (const auto self = weakSelf.lock())
      boost::asio::post(self->actor_.strand(), [self, epoch, error = std::move(error)] {
        self->lost(epoch, error);
      });
  };
  const auto connect = [&]() -> awaitable<void> {
    // The handlers are named, not temporaries of the co_await: GCC 12 destroys such
    // temporaries twice.
    auto socket = co_await repo_.connectSocket(onFrame, onLost);
    if (epoch == epoch_)
      socket_ = std::move(socket);
    else
      socket->disconnect();
  };

  try {
    co_await repo_.resetPaging();
    const auto herald = herald_.lock();
    if (!herald) throw HeraldError::inboxNotInitialized();
    const auto limit = co_await herald->inboxPaginationLimit();
    // A restart subscribes before it loads: a message created between the load and the
    // subscribe would otherwise be in neither. Frames wait in `pending_` until the state is in.
    std::shared_ptr<HeraldInboxData> data;
    // Frames that came before the count was asked for are in the service's count already.
    std::size_t counted = 0;
    if (subscribeFirst) {
      co_await connect();
      if (epoch != epoch_) co_return;
      // The count is asked for after the pages: asked beside them, it may miss a message the
      // page holds, and the frame of that message is dropped as one held already.
      data = co_await repo_.loadFirstPages(limit, false);
      if (epoch != epoch_) co_return;
      counted = pending_.size();
      const auto count = co_await repo_.loadUnreadCount();
      data->unreadCount = count;
    } else {
      data = co_await repo_.loadFirstPages(limit);
      if (epoch != epoch_) co_return;
      co_await connect();
    }
    if (epoch != epoch_) co_return;

    data_ = std::move(data);
    const auto serviceCount = data_->unreadCount;
    // Changes still on their way are made again on the new state before anyone sees it, so
    // that it shows them and their undo works there.
    muted_ = true;
    for (const auto& pending : outbox_) pending->undo = changeHere(pending->event, pending->messageId);
    const auto outboxDelta = data_->unreadCount - serviceCount;
    auto frames = std::move(pending_);
    pending_.clear();
    // What the frames before the count did is in that count: their changes are made here,
    // the count is the service's.
    for (std::size_t i = 0; i < counted; ++i) applyFrame(std::move(frames[i]));
    if (counted > 0) data_->unreadCount = serviceCount + outboxDelta;
    muted_ = false;
    for (const auto& listener : listeners_) listener->load(data_->copy());
    liveSince_ = std::chrono::steady_clock::now();
    setPhase(Phase::live);
    for (std::size_t i = counted; i < frames.size(); ++i) applyFrame(std::move(frames[i]));
    finish(epoch, std::nullopt);
  } catch (...) {
    if (epoch != epoch_) co_return;
    const auto failure = HeraldError::from(std::current_exception());
    finish(epoch, failure);
    lost(epoch, failure);
  }
}

awaitable<std::optional<HeraldError>> InboxModule::waitHere(std::uint64_t epoch) {
  if (epoch == finishedEpoch_) co_return finishedFailure_;
  if (epoch != epoch_ || phase_ != Phase::loading) co_return std::nullopt;  // overtaken
  auto waiter = std::make_shared<Waiter>(actor_.strand(), epoch);
  waiters_.push_back(waiter);
  co_await sleepUntilWoken(waiter->woken);
  co_return waiter->failure;
}

void InboxModule::finish(std::uint64_t epoch, std::optional<HeraldError> failure) {
  finishedEpoch_ = epoch;
  finishedFailure_ = failure;
  for (const auto& waiter : waiters_) {
    if (waiter->epoch != epoch) continue;
    waiter->failure = failure;
    waiter->woken.cancel();
  }
  std::erase_if(waiters_, [&](const auto& waiter) { return waiter->epoch == epoch; });
}

void InboxModule::cancelHere() {
  if (cancel_) {
    cancel_->emit(boost::asio::cancellation_type::all);
    cancel_.reset();
  }
  retryTimer_.cancel();
  if (socket_) {
    socket_->disconnect();
    socket_.reset();
  }
  pending_.clear();
  // Whoever waited for the epoch that ends here is answered: it was overtaken.
  for (const auto& waiter : waiters_) waiter->woken.cancel();
  waiters_.clear();
}

void InboxModule::lost(std::uint64_t epoch, HeraldError error) {
  // One end of a connection can come several ways (a close frame, then the end of the
  // stream; a refused upgrade, then the failed subscribe): the first one moves the epoch on.
  if (epoch != epoch_ || (phase_ != Phase::loading && phase_ != Phase::live)) return;
  const bool wasLive = phase_ == Phase::live;
  const auto now = std::chrono::steady_clock::now();
  if (wasLive && now - liveSince_ >= options_.stablePeriod) attempt_ = 0;
  cancelHere();
  const auto next = ++epoch_;
  // Failed retries only move the next one on: the loss itself was told already. Refused
  // credentials end the retries, and that is news.
  const bool refused = isCredentialRefusal(error);
  if (wasLive || !automatic_ || refused) notifyError(error);
  if (refused) {
    setPhase(Phase::offline);
    return;
  }
  ++attempt_;
  using Seconds = std::chrono::duration<double>;
  const double ceiling =
      std::min(Seconds(options_.retryCap).count(),
               Seconds(options_.retryBase).count() * std::pow(2.0, std::min(attempt_ - 1, 30)));
  const double delay = std::clamp(options_.jitter ? options_.jitter(ceiling) : fullJitter(ceiling),
                                  0.0, ceiling);
  setPhase(Phase::reconnecting, delay);
  retryTimer_.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      Seconds(delay)));
  retryTimer_.async_wait([weakSelf = weak_from_this(), next](boost::system::error_code error) {
    const auto self = weakSelf.lock();
    if (error || !self || next != self->epoch_ || self->phase_ != Phase::reconnecting) return;
    self->beginHere(true, nullptr);
  });
}

void InboxModule::received(std::uint64_t epoch, SocketFrame frame) {
  if (epoch != epoch_) return;  // an old socket's frame: its state is gone
  if (phase_ == Phase::loading) {
    pending_.push_back(std::move(frame));
    return;
  }
  applyFrame(std::move(frame));
}

// Applied at once, with no wait between taking a frame and applying it, so that a burst ends
// in the state of its last frame; what goes back to the service queues in the same order.
void InboxModule::applyFrame(SocketFrame frame) {
  if (!data_) return;
  if (auto* message = std::get_if<InboxMessagePtr>(&frame)) {
    insertHere(std::move(*message));
    return;
  }
  const auto& event = std::get<MessageEvent>(frame);
  switch (event.event) {
    case InboxEventType::markAllRead:
    case InboxEventType::read:
    case InboxEventType::unread:
    case InboxEventType::opened:
    case InboxEventType::archive:
      break;
    default:
      return;  // a click elsewhere changes nothing here
  }
  if (event.event != InboxEventType::markAllRead && !event.messageId) return;
  // Counted like any detached work from before the listeners hear of the change, so that a
  // host that saw the change and waits until nothing runs also sees the echo out.
  platform::detail::taskStarted();
  auto undo = changeHere(event.event, event.messageId);
  // An event that changed nothing here is not sent back: two live devices would echo each
  // other for ever.
  if (undo.empty()) {
    platform::detail::taskFinished(nullptr);
    return;
  }
  auto pending = std::make_shared<Pending>(actor_.strand(), event.event, event.messageId,
                                           std::nullopt);
  pending->undo = std::move(undo);
  outbox_.push_back(pending);
  boost::asio::co_spawn(actor_.strand(), sendInOrder(pending), [](std::exception_ptr) {
    // Refused: already undone here; the service knows its own state.
    platform::detail::taskFinished(nullptr);
  });
}

awaitable<void> InboxModule::stop() {
  return actor_.run([self = shared_from_this()]() -> awaitable<void> {
    self->cancelHere();
    ++self->epoch_;
    self->data_.reset();
    // Changes of the session that ends are not sent any more.
    for (const auto& pending : self->outbox_) {
      pending->dropped = true;
      pending->turn.cancel();
    }
    self->outbox_.clear();
    const bool wasRunning = self->phase_ != Phase::idle;
    self->setPhase(Phase::idle);
    // The line goes through the options of the session that is ending: at sign-out the
    // facade has already let go of its client.
    const auto socket = co_await self->repo_.socketManager().shared();
    co_await self->repo_.closeSocket();
    co_await self->repo_.resetPaging();
    if (!wasRunning) co_return;
    if (socket) {
      socket->options.log("Herald Shared Inbox Killed");
      co_return;
    }
    const auto herald = self->herald_.lock();
    if (!herald) co_return;
    const auto client = co_await herald->client();
    if (client) client->log("Herald Shared Inbox Killed");
  });
}

awaitable<void> InboxModule::closeSocket() {
  return actor_.run([self = shared_from_this()]() -> awaitable<void> {
    self->cancelHere();
    ++self->epoch_;
    if (self->phase_ != Phase::idle) self->setPhase(Phase::offline);
    co_await self->repo_.closeSocket();
  });
}

awaitable<InboxConnectionState> InboxModule::connectionState() {
  return actor_.run([self = shared_from_this()]() -> awaitable<InboxConnectionState> {
    co_return shown(static_cast<int>(self->phase_));
  });
}

// ---- pages and reading ------------------------------------------------------------------------

awaitable<std::vector<InboxMessagePtr>> InboxModule::fetchNextPage(InboxMessageFeed feed) {
  return actor_.run([self = shared_from_this(),
                     feed]() -> awaitable<std::vector<InboxMessagePtr>> {
    const auto herald = self->herald_.lock();
    if (!herald) throw HeraldError::inboxNotInitialized();
    const auto limit = co_await herald->inboxPaginationLimit();
    // Read after that wait: a stop or a restart may have replaced the state meanwhile.
    if (!self->data_) co_return std::vector<InboxMessagePtr>{};
    const auto epoch = self->epoch_;
    const auto& set = self->data_->messageSet(feed);
    const bool canPaginate = set.canPaginate;
    auto cursor = set.paginationCursor;
    std::optional<InboxMessageSet> page;
    try {
      page = co_await self->repo_.fetchNextPage(feed, canPaginate, std::move(cursor), limit);
    } catch (...) {
      if (epoch == self->epoch_) self->notifyError(HeraldError::from(std::current_exception()));
      throw;
    }
    if (!page) co_return std::vector<InboxMessagePtr>{};
    // A restart while the page was on its way made a state this page does not continue.
    if (epoch == self->epoch_ && self->data_) {
      self->data_->addPage(*page, feed);
      self->post([feed, page = std::make_shared<const InboxMessageSet>(*page)](
                     HeraldInboxListener& l) {
        if (l.onPageAdded) l.onPageAdded(feed, *page);
      });
    }
    co_return page->messages;
  });
}

awaitable<std::vector<InboxMessagePtr>> InboxModule::messages(InboxMessageFeed feed) {
  return actor_.run([self = shared_from_this(),
                     feed]() -> awaitable<std::vector<InboxMessagePtr>> {
    if (!self->data_) co_return std::vector<InboxMessagePtr>{};
    co_return self->data_->messageSet(feed).messages;
  });
}

awaitable<std::shared_ptr<const HeraldInboxData>> InboxModule::snapshot() {
  return actor_.run(
      [self = shared_from_this()]() -> awaitable<std::shared_ptr<const HeraldInboxData>> {
        if (!self->data_) co_return nullptr;
        co_return self->data_->copy();
      });
}

// ---- arrivals ---------------------------------------------------------------------------------

awaitable<void> InboxModule::insertArrived(InboxMessagePtr message) {
  return actor_.run([self = shared_from_this(), message]() mutable -> awaitable<void> {
    self->insertHere(std::move(message));
    co_return;
  });
}

void InboxModule::insertHere(InboxMessagePtr message) {
  if (!data_) return;
  // A message that raced a reload is in the reloaded page already.
  if (find(message->messageId)) return;
  data_->addMessage(message, 0, InboxMessageFeed::feed);
  data_->feed.totalCount += 1;
  postAdded(InboxMessageFeed::feed, 0, message);
  postUnreadCount();
}

// ---- changes ----------------------------------------------------------------------------------

awaitable<void> InboxModule::apply(MessageEvent event) {
  return actor_.run([self = shared_from_this(), event = std::move(event)]() -> awaitable<void> {
    self->applyFrame(event);
    co_return;
  });
}

awaitable<std::shared_ptr<HeraldClient>> InboxModule::checkReady() const {
  const auto herald = herald_.lock();
  if (!herald || !herald->isUserSignedIn()) throw HeraldError::noUserSignedIn();
  auto client = co_await herald->client();
  if (!client) throw HeraldError::inboxNotInitialized();
  co_return client;
}

std::optional<std::pair<InboxMessageFeed, std::size_t>> InboxModule::find(
    std::string_view messageId) const {
  if (!data_) return std::nullopt;
  if (const auto index = indexOf(data_->feed, messageId))
    return std::pair{InboxMessageFeed::feed, *index};
  if (const auto index = indexOf(data_->archived, messageId))
    return std::pair{InboxMessageFeed::archived, *index};
  return std::nullopt;
}

InboxModule::Undo InboxModule::changeHere(InboxEventType event,
                                          const std::optional<std::string>& messageId) {
  if (event == InboxEventType::markAllRead) return readAllHere();
  if (!messageId) return Undo{};
  const auto where = find(*messageId);
  if (!where) return Undo{};
  return applyHere(where->first, where->second, event);
}

awaitable<void> InboxModule::sendInOrder(std::shared_ptr<Pending> pending) {
  while (!pending->dropped && outbox_.front() != pending) co_await sleepUntilWoken(pending->turn);
  if (pending->dropped) co_return;
  std::exception_ptr refusal;
  try {
    const auto client = co_await checkReady();
    co_await repo_.send(client, pending->event, pending->messageId.value_or(std::string()),
                        pending->trackingId);
  } catch (...) {
    refusal = std::current_exception();
  }
  if (!pending->dropped) {
    outbox_.pop_front();
    if (!outbox_.empty()) outbox_.front()->turn.cancel();
    if (refusal) undoChange(pending->undo);
  }
  if (refusal) std::rethrow_exception(refusal);
}

awaitable<void> InboxModule::change(std::string messageId, InboxEventType event,
                                    Origin origin) {
  return actor_.run([self = shared_from_this(), messageId = std::move(messageId), event,
                     origin]() -> awaitable<void> {
    [[maybe_unused]] const auto client = co_await self->checkReady();
    const auto where = self->find(messageId);
    if (!where) co_return;
    const auto& message = self->data_->messageSet(where->first).messages[where->second];
    std::optional<std::string> trackingId;
    if (message->trackingIds) trackingId = message->trackingIds->clickTrackingId;

    auto undo = self->applyHere(where->first, where->second, event);
    if (origin == Origin::otherDevice && undo.empty()) co_return;
    auto pending =
        std::make_shared<Pending>(self->actor_.strand(), event, messageId, std::move(trackingId));
    pending->undo = std::move(undo);
    self->outbox_.push_back(pending);
    co_await self->sendInOrder(std::move(pending));
  });
}

awaitable<void> InboxModule::readAll(Origin origin) {
  return actor_.run([self = shared_from_this(), origin]() -> awaitable<void> {
    [[maybe_unused]] const auto client = co_await self->checkReady();
    auto undo = self->readAllHere();
    if (origin == Origin::otherDevice && undo.empty()) co_return;
    auto pending = std::make_shared<Pending>(self->actor_.strand(), InboxEventType::markAllRead,
                                             std::nullopt, std::nullopt);
    pending->undo = std::move(undo);
    self->outbox_.push_back(pending);
    co_await self->sendInOrder(std::move(pending));
  });
}

InboxModule::Undo InboxModule::readAllHere() {
  Undo undo;
  undo.epoch = epoch_;
  if (!data_) return undo;
  auto& data = *data_;
  const auto now = nowText();
  // An array, not a braced list: GCC 12 mishandles initializer lists in coroutines.
  constexpr std::array feeds{InboxMessageFeed::feed, InboxMessageFeed::archived};
  for (const auto feed : feeds) {
    auto& messages = data.messageSet(feed).messages;
    for (std::size_t i = 0; i < messages.size(); ++i) {
      if (messages[i]->isRead()) continue;
      auto read = messages[i]->copy();
      read->read = now;
      undo.replaced.push_back({feed, messages[i], read, 0});
      messages[i] = read;
      postChanged(feed, i, read);
    }
  }
  undo.countDelta = -data.unreadCount;
  data.unreadCount = 0;
  postUnreadCount();
  return undo;
}

InboxModule::Undo InboxModule::applyHere(InboxMessageFeed feed, std::size_t index,
                                         InboxEventType event) {
  auto& data = *data_;
  Undo undo;
  undo.epoch = epoch_;
  const auto before = data.messageSet(feed).messages[index];
  const auto replace = [&](InboxMessagePtr after, std::int64_t countDelta) {
    data.messageSet(feed).messages[index] = after;
    undo.replaced.push_back({feed, before, after, countDelta});
    postChanged(feed, index, after);
    if (countDelta != 0) {
      data.unreadCount += countDelta;
      postUnreadCount();
    }
  };

  switch (event) {
    case InboxEventType::read:
      if (before->isArchived() || before->isRead()) break;
      {
        auto after = before->copy();
        after->read = nowText();
        replace(after, -1);
      }
      break;
    case InboxEventType::unread:
      if (before->isArchived() || !before->isRead()) break;
      {
        auto after = before->copy();
        after->read.reset();
        replace(after, +1);
      }
      break;
    case InboxEventType::opened:
      if (before->isOpened()) break;
      {
        auto after = before->copy();
        after->opened = nowText();
        replace(after, 0);
      }
      break;
    case InboxEventType::unopened:
      if (!before->isOpened()) break;
      {
        auto after = before->copy();
        after->opened.reset();
        replace(after, 0);
      }
      break;
    case InboxEventType::archive: {
      if (feed != InboxMessageFeed::feed) break;
      // An unread message is read on its way to the archive.
      std::int64_t countDelta = 0;
      auto archived = before->copy();
      if (!archived->isRead()) {
        archived->read = nowText();
        auto read = archived->copy();
        data.feed.messages[index] = read;
        postChanged(feed, index, read);
        countDelta = -1;
        data.unreadCount -= 1;
        postUnreadCount();
      }
      archived->archived = nowText();
      Undo::Moved moved{before, archived, index, std::nullopt, std::nullopt, countDelta};
      auto& messages = data.feed.messages;
      if (index > 0) moved.precedingId = messages[index - 1]->messageId;
      if (index + 1 < messages.size()) moved.followingId = messages[index + 1]->messageId;
      const auto leaving = messages[index];
      messages.erase(messages.begin() + static_cast<std::ptrdiff_t>(index));
      data.feed.totalCount = std::max<std::int64_t>(0, data.feed.totalCount - 1);
      postRemoved(InboxMessageFeed::feed, index, leaving);
      data.archived.messages.insert(data.archived.messages.begin(), archived);
      data.archived.totalCount += 1;
      postAdded(InboxMessageFeed::archived, 0, archived);
      undo.moved = std::move(moved);
      break;
    }
    case InboxEventType::markAllRead:
    case InboxEventType::unarchive:
    case InboxEventType::click:
    case InboxEventType::unclick:
      break;
  }
  return undo;
}

// Where an archived message goes back to in the feed: between the neighbours it had, wherever
// they are now; without them, before the first message that is not newer (the feed is newest
// first); without a creation time, where it was.
std::size_t InboxModule::returnIndex(const InboxMessageSet& feed, const Undo& undo) {
  const auto& moved = *undo.moved;
  if (moved.precedingId) {
    if (const auto preceding = indexOf(feed, *moved.precedingId)) return *preceding + 1;
  }
  if (moved.followingId) {
    if (const auto following = indexOf(feed, *moved.followingId)) return *following;
  }
  const auto& messages = feed.messages;
  if (moved.before->created) {
    const auto when = moved.before->timestamp();
    const auto older = std::find_if(messages.begin(), messages.end(), [&](const auto& m) {
      return m->created && m->timestamp() <= when;
    });
    return static_cast<std::size_t>(older - messages.begin());
  }
  return std::min(moved.index, messages.size());
}

void InboxModule::undoChange(const Undo& undo) {
  // After a restart or a stop the state is another one: nothing of this change is in it.
  if (undo.empty() || undo.epoch != epoch_ || !data_) return;
  auto& data = *data_;
  std::int64_t countDelta = undo.countDelta;

  for (const auto& replaced : undo.replaced) {
    auto& set = data.messageSet(replaced.feed);
    const auto index = indexOfSame(set, replaced.after);
    if (!index) continue;  // changed again since, or gone: the later change stands
    set.messages[*index] = replaced.before;
    postChanged(replaced.feed, *index, replaced.before);
    countDelta += replaced.countDelta;
  }

  if (undo.moved) {
    const auto& moved = *undo.moved;
    if (const auto index = indexOfSame(data.archived, moved.after)) {
      data.archived.messages.erase(data.archived.messages.begin() +
                                   static_cast<std::ptrdiff_t>(*index));
      data.archived.totalCount = std::max<std::int64_t>(0, data.archived.totalCount - 1);
      postRemoved(InboxMessageFeed::archived, *index, moved.after);
      const auto at = returnIndex(data.feed, undo);
      auto& messages = data.feed.messages;
      messages.insert(messages.begin() + static_cast<std::ptrdiff_t>(at), moved.before);
      data.feed.totalCount += 1;
      postAdded(InboxMessageFeed::feed, at, moved.before);
      countDelta += moved.countDelta;
    }
  }

  if (countDelta != 0) {
    data.unreadCount -= countDelta;
    postUnreadCount();
  }
}

}  // namespace herald
