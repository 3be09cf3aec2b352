#include <boost/asio/experimental/awaitable_operators.hpp>
#include <boost/asio/multiple_exceptions.hpp>
#include <tuple>

#include "herald/herald.hpp"
#include "herald/inbox_client.hpp"
#include "herald/inbox_module.hpp"

namespace herald {
namespace {

template <class T>
using awaitable = boost::asio::awaitable<T>;

constexpr std::int64_t subscriptionVersion = 5;
constexpr double keepAliveInterval = 300;

// `a && b && c` nests: the first of several failures may itself be several.
[[noreturn]] void rethrowFirst(const boost::asio::multiple_exceptions& several) {
  auto first = several.first_exception();
  for (;;) {
    try {
      std::rethrow_exception(first);
    } catch (const boost::asio::multiple_exceptions& nested) {
      first = nested.first_exception();
    }
  }
}

}  // namespace

InboxRepository::InboxRepository(std::weak_ptr<Herald> herald,
                                 platform::WebSocketConfiguration configuration)
    : herald_(std::move(herald)), socketManager_(std::move(configuration)) {}

awaitable<std::shared_ptr<HeraldClient>> InboxRepository::signedInClient() {
  const auto herald = herald_.lock();
  if (!herald) throw HeraldError::inboxNotInitialized();
  auto client = co_await herald->client();
  if (!client) throw HeraldError::inboxNotInitialized();
  co_return client;
}

awaitable<std::shared_ptr<HeraldInboxData>> InboxRepository::loadFirstPages(std::int64_t limit,
                                                                           bool withCount) {
  using namespace boost::asio::experimental::awaitable_operators;
  const auto client = co_await signedInClient();
  const auto inbox = client->inbox();
  // The requests are in flight at once; the first failure cancels the wait for the others,
  // which may fail too: the caller hears the first.
  auto feedLoad = inbox->getMessages(limit, std::nullopt);
  auto archiveLoad = inbox->getArchivedMessages(limit, std::nullopt);
  auto data = std::make_shared<HeraldInboxData>();
  try {
    if (withCount) {
      auto countLoad = inbox->getUnreadMessageCount();
      auto all = std::move(feedLoad) && std::move(archiveLoad) && std::move(countLoad);
      auto [feed, archived, count] = co_await std::move(all);
      data->feed = InboxMessageSet::fromData(feed.data.value_or(InboxData{}));
      data->archived = InboxMessageSet::fromData(archived.data.value_or(InboxData{}));
      data->unreadCount = count;
    } else {
      auto both = std::move(feedLoad) && std::move(archiveLoad);
      auto [feed, archived] = co_await std::move(both);
      data->feed = InboxMessageSet::fromData(feed.data.value_or(InboxData{}));
      data->archived = InboxMessageSet::fromData(archived.data.value_or(InboxData{}));
    }
  } catch (const boost::asio::multiple_exceptions& e) {
    rethrowFirst(e);
  }
  co_return data;
}

awaitable<std::int64_t> InboxRepository::loadUnreadCount() {
  const auto client = co_await signedInClient();
  const auto inbox = client->inbox();
  const auto count = co_await inbox->getUnreadMessageCount();
  co_return count;
}

awaitable<std::shared_ptr<InboxSocket>> InboxRepository::connectSocket(
    std::function<void(SocketFrame)> onFrame, std::function<void(HeraldError)> onLost) {
  const auto client = co_await signedInClient();
  const auto socket = co_await socketManager_.updateInstance(client->options);
  socket->receivedMessage = [onFrame](InboxMessagePtr message) { onFrame(std::move(message)); };
  socket->receivedMessageEvent = [onFrame](const MessageEvent& event) { onFrame(event); };
  // Every end this side did not ask for is a loss: a failure (a reset, silence, a refused
  // upgrade), a close frame of the service whatever its code, and a stream that just ends.
  // A close of our own takes the connection off the socket first, so none of these fire.
  socket->onError = [onLost](const platform::Error& error) { onLost(HeraldError(error)); };
  std::weak_ptr<HeraldSocket> weakSocket = socket;
  socket->onClose = [weakSocket, onLost](platform::WebSocketCloseCode code,
                                         const std::optional<std::string>& reason) {
    const auto current = weakSocket.lock();
    if (!current || !current->webSocketTask()) return;
    onLost(HeraldError(static_cast<long>(code),
                       "The service closed the realtime connection (" +
                           std::to_string(static_cast<int>(code)) +
                           (reason && !reason->empty() ? ", " + *reason : std::string()) + ")",
                       "connection_closed"));
  };
  socket->onEnd = [onLost] {
    onLost(HeraldError(0, "The realtime connection ended without a close frame",
                       "connection_closed"));
  };
  co_await socket->connect();
  co_await socket->sendSubscribe(subscriptionVersion);
  socket->keepAlive(keepAliveInterval);
  co_return socket;
}

awaitable<void> InboxRepository::closeSocket() { co_await socketManager_.closeSocket(); }

awaitable<std::optional<InboxMessageSet>> InboxRepository::fetchNextPage(
    InboxMessageFeed feed, bool canPaginate, std::optional<std::string> cursor,
    std::int64_t limit) {
  const auto herald = herald_.lock();
  if (!herald || !herald->isUserSignedIn()) throw HeraldError::noUserSignedIn();
  const auto client = co_await signedInClient();
  // A named body, not a temporary inside the co_await: GCC 12 destroys such temporaries
  // twice.
  auto body = [this, client, feed, canPaginate, cursor = std::move(cursor),
               limit]() -> awaitable<std::optional<InboxMessageSet>> {
    bool& paging = feed == InboxMessageFeed::feed ? isPagingFeed_ : isPagingArchived_;
    if (!canPaginate || paging) co_return std::nullopt;
    paging = true;
    const auto inbox = client->inbox();
    InboxResponse response;
    if (feed == InboxMessageFeed::feed)
      response = co_await inbox->getMessages(limit, cursor);
    else
      response = co_await inbox->getArchivedMessages(limit, cursor);
    // Cleared only on success: after a failure this list asks for no more pages until the
    // inbox restarts, rather than asking again a service that just refused.
    paging = false;
    co_return InboxMessageSet::fromData(response.data.value_or(InboxData{}));
  };
  auto page = co_await actor_.run(std::move(body));
  co_return page;
}

awaitable<void> InboxRepository::resetPaging() {
  return actor_.run([this]() -> awaitable<void> {
    isPagingFeed_ = false;
    isPagingArchived_ = false;
    co_return;
  });
}

awaitable<void> InboxRepository::send(std::shared_ptr<HeraldClient> client, InboxEventType event,
                                      std::string messageId,
                                      std::optional<std::string> trackingId) {
  const auto inbox = client->inbox();
  switch (event) {
    case InboxEventType::read:
      co_await inbox->read(std::move(messageId));
      break;
    case InboxEventType::unread:
      co_await inbox->unread(std::move(messageId));
      break;
    case InboxEventType::opened:
      co_await inbox->open(std::move(messageId));
      break;
    case InboxEventType::archive:
      co_await inbox->archive(std::move(messageId));
      break;
    case InboxEventType::click:
      // A message without a click tracking id has no click to count.
      if (trackingId) co_await inbox->click(std::move(messageId), std::move(*trackingId));
      break;
    case InboxEventType::markAllRead:
      co_await inbox->readAll();
      break;
    case InboxEventType::unopened:
    case InboxEventType::unarchive:
    case InboxEventType::unclick:
      break;
  }
}

}  // namespace herald
