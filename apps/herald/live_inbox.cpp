#include "live_inbox.hpp"

#include <array>
#include <optional>

#include "herald/herald.hpp"

namespace cli {

using boost::asio::awaitable;

Failure inboxFailure(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const MessageNotFound& e) {
    return Failure{std::nullopt, e.what(), "not_found", ExitStatus::refused};
  } catch (const NothingToClick& e) {
    return Failure{std::nullopt, e.what(), "no_click_tracking", ExitStatus::refused};
  } catch (...) {
    return Failure::from(std::current_exception());
  }
}

awaitable<herald::InboxMessagePtr> findMessage(std::string messageId) {
  auto& herald = herald::Herald::shared();
  while (true) {
    const auto data = co_await herald.inboxModule()->snapshot();
    if (!data) co_return nullptr;
    // An array, not a braced list: GCC 12 mishandles initializer lists in coroutines.
    const std::array sets{&data->feed, &data->archived};
    for (const auto* set : sets) {
      for (const auto& message : set->messages)
        if (message->messageId == messageId) co_return message;
    }
    std::optional<herald::InboxMessageFeed> next;
    if (data->feed.canPaginate)
      next = herald::InboxMessageFeed::feed;
    else if (data->archived.canPaginate)
      next = herald::InboxMessageFeed::archived;
    if (!next) co_return nullptr;
    // An empty answer ends the search: a page of that list is on its way for someone else,
    // an earlier one failed (the list asks for no more), or the service says "more" and
    // sends nothing, which would otherwise be asked for forever.
    const auto page = co_await herald.fetchNextInboxPage(*next);
    if (page.empty()) co_return nullptr;
  }
}

awaitable<herald::InboxMessagePtr> changeMessage(MessageChange change, std::string messageId) {
  auto& herald = herald::Herald::shared();
  // The facade passes quietly over an id it does not hold, so the command looks first: a
  // message that is not there must not be reported as changed.
  auto message = co_await findMessage(messageId);
  if (!message) throw MessageNotFound(messageId);
  switch (change) {
    case MessageChange::read:
      co_await herald.readMessage(messageId);
      break;
    case MessageChange::unread:
      co_await herald.unreadMessage(messageId);
      break;
    case MessageChange::open:
      co_await herald.openMessage(messageId);
      break;
    case MessageChange::click:
      // Without its tracking id the facade counts nothing and says nothing.
      if (!message->trackingIds || !message->trackingIds->clickTrackingId)
        throw NothingToClick(messageId);
      co_await herald.clickMessage(messageId);
      break;
    case MessageChange::archive:
      co_await herald.archiveMessage(messageId);
      break;
  }
  co_return message;
}

}  // namespace cli
