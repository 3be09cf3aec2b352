#include "herald/inbox_module.hpp"

#include <algorithm>
#include <array>
#include <boost/asio/post.hpp>
#include <cstdio>

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
  std::uint64_t generation = 0;
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

InboxModule::InboxModule(std::weak_ptr<Herald> herald,
                         platform::WebSocketConfiguration configuration)
    : herald_(herald), repo_(std::move(herald), std::move(configuration)) {}

std::shared_ptr<InboxModule> InboxModule::create(std::weak_ptr<Herald> herald,
                                                 platform::WebSocketConfiguration configuration) {
  return std::shared_ptr<InboxModule>(new InboxModule(std::move(herald), std::move(configuration)));
}

template <class Call>
void InboxModule::post(Call call) const {
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

// ---- listeners ------------------------------------------------------------------------------

awaitable<std::shared_ptr<HeraldInboxListener>> InboxModule::addListener(
    HeraldInboxListener::Callbacks callbacks) {
  // Exclusive with starts and stops: a listener added while the inbox loads waits for the
  // state rather than loading it a second time.
  return actor_.exclusive([self = shared_from_this(), callbacks = std::move(callbacks)]() mutable
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
      co_return listener;
    }
    // A failure reaches the listener through its onError.
    [[maybe_unused]] const auto failure = co_await self->startHere(listener.get());
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

awaitable<void> InboxModule::start() {
  return actor_.exclusive([self = shared_from_this()]() -> awaitable<void> {
    // Named, not discarded: a failure goes to the listeners, and GCC 12 mishandles a
    // discarded awaited value that has a destructor.
    [[maybe_unused]] const auto failure = co_await self->startHere(nullptr);
  });
}

awaitable<std::optional<HeraldError>> InboxModule::load() {
  return actor_.exclusive(
      [self = shared_from_this()]() -> awaitable<std::optional<HeraldError>> {
        auto failure = co_await self->startHere(nullptr);
        co_return failure;
      });
}

awaitable<std::optional<HeraldError>> InboxModule::startHere(
    const HeraldInboxListener* alreadyLoading) {
  const auto generation = ++generation_;
  starting_ = true;
  arrivals_.clear();
  for (const auto& listener : listeners_) {
    if (listener.get() != alreadyLoading) listener->loading();
  }

  std::optional<HeraldError> failure;
  try {
    co_await repo_.resetPaging();
    const auto herald = herald_.lock();
    if (!herald) throw HeraldError::inboxNotInitialized();
    const auto limit = co_await herald->inboxPaginationLimit();
    auto data = co_await repo_.loadFirstPages(limit);

    // Only a loaded inbox goes live. Arrivals from here on wait in `arrivals_` until the
    // state they belong to is stored.
    // The handlers are named, not temporaries of the co_await: GCC 12 destroys such
    // temporaries twice (here: each weak reference released twice, the module freed early).
    std::weak_ptr<InboxModule> weakSelf = weak_from_this();
    std::function<void(InboxMessagePtr)> onMessage = [weakSelf](InboxMessagePtr message) {
      if (const auto self = weakSelf.lock()) self->arrive(std::move(message));
    };
    std::function<void(MessageEvent)> onEvent = [weakSelf](MessageEvent event) {
      platform::spawnDetached([weakSelf, event = std::move(event)]() -> awaitable<void> {
        const auto self = weakSelf.lock();
        if (!self) co_return;
        // What the operation throws stays here: the service already knows of the change.
        try {
          co_await self->apply(event);
        } catch (const std::exception&) {
        }
      });
    };
    std::function<void(HeraldError)> onFailure = [weakSelf](HeraldError error) {
      if (const auto self = weakSelf.lock()) self->notifyFailure(std::move(error));
    };
    co_await repo_.connectSocket(std::move(onMessage), std::move(onEvent), std::move(onFailure));

    data_ = std::move(data);
    starting_ = false;
    for (const auto& listener : listeners_) listener->load(data_->copy());
    auto arrivals = std::move(arrivals_);
    arrivals_.clear();
    for (auto& message : arrivals) insertHere(std::move(message));
  } catch (...) {
    failure = HeraldError::from(std::current_exception());
  }
  if (failure && generation == generation_) {
    starting_ = false;
    arrivals_.clear();
    notifyError(*failure);
  }
  co_return failure;
}

awaitable<void> InboxModule::stop() {
  return actor_.exclusive([self = shared_from_this()]() -> awaitable<void> {
    ++self->generation_;
    self->data_.reset();
    self->starting_ = false;
    self->arrivals_.clear();
    // The line goes through the options of the session that is ending: at sign-out the
    // facade has already let go of its client.
    const auto socket = co_await self->repo_.socketManager().shared();
    co_await self->repo_.closeSocket();
    co_await self->repo_.resetPaging();
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
  return actor_.exclusive(
      [self = shared_from_this()]() -> awaitable<void> { co_await self->repo_.closeSocket(); });
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
    const auto generation = self->generation_;
    const auto& set = self->data_->messageSet(feed);
    const bool canPaginate = set.canPaginate;
    auto cursor = set.paginationCursor;
    auto page = co_await self->repo_.fetchNextPage(feed, canPaginate, std::move(cursor), limit);
    if (!page) co_return std::vector<InboxMessagePtr>{};
    // A restart while the page was on its way made a state this page does not continue.
    if (generation == self->generation_ && self->data_) {
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

void InboxModule::arrive(InboxMessagePtr message) {
  // Straight onto the strand from the socket's thread, so that messages keep their order.
  platform::detail::taskStarted();
  boost::asio::co_spawn(
      actor_.strand(),
      [self = shared_from_this(), message = std::move(message)]() mutable -> awaitable<void> {
        self->insertHere(std::move(message));
        co_return;
      },
      [](std::exception_ptr error) { platform::detail::taskFinished(error); });
}

awaitable<void> InboxModule::insertArrived(InboxMessagePtr message) {
  return actor_.run([self = shared_from_this(), message]() mutable -> awaitable<void> {
    self->insertHere(std::move(message));
    co_return;
  });
}

void InboxModule::insertHere(InboxMessagePtr message) {
  if (starting_) {
    arrivals_.push_back(std::move(message));
    return;
  }
  if (!data_) return;
  data_->addMessage(message, 0, InboxMessageFeed::feed);
  data_->feed.totalCount += 1;
  postAdded(InboxMessageFeed::feed, 0, message);
  postUnreadCount();
}

// ---- changes ----------------------------------------------------------------------------------

awaitable<void> InboxModule::apply(MessageEvent event) {
  if (event.event == InboxEventType::markAllRead) {
    co_await readAll(Origin::otherDevice);
    co_return;
  }
  if (!event.messageId) co_return;
  switch (event.event) {
    case InboxEventType::read:
    case InboxEventType::unread:
    case InboxEventType::opened:
    case InboxEventType::archive:
    case InboxEventType::click:
      co_await change(std::move(*event.messageId), event.event, Origin::otherDevice);
      break;
    default:
      break;
  }
}

void InboxModule::notifyFailure(HeraldError error) {
  boost::asio::post(actor_.strand(), [self = shared_from_this(), error = std::move(error)] {
    self->notifyError(error);
  });
}

awaitable<std::shared_ptr<HeraldClient>> InboxModule::checkReady() const {
  const auto herald = herald_.lock();
  if (!herald || !herald->isUserSignedIn()) throw HeraldError::noUserSignedIn();
  auto client = co_await herald->client();
  if (!client) throw HeraldError::inboxNotInitialized();
  co_return client;
}

awaitable<void> InboxModule::change(std::string messageId, InboxEventType event,
                                    Origin origin) {
  return actor_.run([self = shared_from_this(), messageId = std::move(messageId), event,
                     origin]() -> awaitable<void> {
    const auto client = co_await self->checkReady();
    if (!self->data_) co_return;
    auto feed = InboxMessageFeed::feed;
    auto index = indexOf(self->data_->feed, messageId);
    if (!index) {
      feed = InboxMessageFeed::archived;
      index = indexOf(self->data_->archived, messageId);
    }
    if (!index) co_return;
    const auto message = self->data_->messageSet(feed).messages[*index];
    std::optional<std::string> trackingId;
    if (message->trackingIds) trackingId = message->trackingIds->clickTrackingId;

    const auto undo = self->applyHere(feed, *index, event);
    if (origin == Origin::otherDevice && undo.empty()) co_return;
    try {
      co_await self->repo_.send(client, event, messageId, trackingId);
    } catch (...) {
      self->undoChange(undo);
      throw;
    }
  });
}

awaitable<void> InboxModule::readAll(Origin origin) {
  return actor_.run([self = shared_from_this(), origin]() -> awaitable<void> {
    const auto client = co_await self->checkReady();
    Undo undo;
    undo.generation = self->generation_;
    if (self->data_) {
      auto& data = *self->data_;
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
          self->postChanged(feed, i, read);
        }
      }
      undo.countDelta = -data.unreadCount;
      data.unreadCount = 0;
      self->postUnreadCount();
    }
    if (origin == Origin::otherDevice && undo.empty()) co_return;
    try {
      co_await self->repo_.send(client, InboxEventType::markAllRead, std::string(), std::nullopt);
    } catch (...) {
      self->undoChange(undo);
      throw;
    }
  });
}

InboxModule::Undo InboxModule::applyHere(InboxMessageFeed feed, std::size_t index,
                                         InboxEventType event) {
  auto& data = *data_;
  Undo undo;
  undo.generation = generation_;
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
  if (undo.empty() || undo.generation != generation_ || !data_) return;
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
