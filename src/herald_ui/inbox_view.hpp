#pragma once
// What the inbox screen shows, kept current by the live inbox's listener callbacks: the two
// lists, the unread count, where the cursor is and which page is on its way. No drawing and
// no terminal here, so that it can be checked on its own.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "herald/inbox_message.hpp"

namespace herald_ui {

/// One tab's list as the screen has it.
struct MessageList {
  std::vector<herald::InboxMessagePtr> messages;
  bool canPaginate = false;
  /// A next page was asked for and has not come back.
  bool pageRequested = false;
  /// Why the last page failed; no page is asked for again until the inbox reloads.
  std::optional<std::string> pageError;
  /// The message under the cursor and the first one on screen (indices into `messages`).
  std::size_t selected = 0;
  std::size_t top = 0;

  /// Whether the row at the bottom that fetches the next page is there.
  bool showsPaginationRow() const { return canPaginate || pageRequested || pageError; }
  const herald::InboxMessage* selectedMessage() const {
    return selected < messages.size() ? messages[selected].get() : nullptr;
  }
};

class InboxView {
 public:
  MessageList& list(herald::InboxMessageFeed feed) {
    return feed == herald::InboxMessageFeed::feed ? feed_ : archived_;
  }
  const MessageList& list(herald::InboxMessageFeed feed) const {
    return feed == herald::InboxMessageFeed::feed ? feed_ : archived_;
  }

  // The listener's callbacks. The cursor stays on the message it was on: a message added
  // above it pushes it down, one removed above it pulls it up. At the head of the list it
  // stays at the head, on what arrives.
  void replace(herald::InboxMessageFeed feed, const herald::InboxMessageSet& set);
  void addPage(herald::InboxMessageFeed feed, const herald::InboxMessageSet& page);
  void change(herald::InboxMessageFeed feed, std::int64_t index,
              const herald::InboxMessagePtr& message);
  void add(herald::InboxMessageFeed feed, std::int64_t index,
           const herald::InboxMessagePtr& message);
  void remove(herald::InboxMessageFeed feed, std::int64_t index);

  /// Moves the cursor by `delta` messages, stopping at either end.
  void move(herald::InboxMessageFeed feed, long delta);
  void moveTo(herald::InboxMessageFeed feed, std::size_t index);

  std::int64_t unreadCount = 0;
  /// The first state has arrived.
  bool loaded = false;

 private:
  MessageList feed_, archived_;
};

}  // namespace herald_ui
