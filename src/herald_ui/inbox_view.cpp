#include "herald_ui/inbox_view.hpp"

#include <algorithm>

namespace herald_ui {

using herald::InboxMessageFeed;

namespace {

void clampCursor(MessageList& list) {
  const auto size = list.messages.size();
  if (list.selected >= size) list.selected = size ? size - 1 : 0;
  if (list.top > list.selected) list.top = list.selected;
}

}  // namespace

void InboxView::replace(InboxMessageFeed feed, const herald::InboxMessageSet& set) {
  auto& l = list(feed);
  l.messages = set.messages;
  l.canPaginate = set.canPaginate;
  // A new state: what was asked of the old one no longer counts.
  l.pageRequested = false;
  l.pageError.reset();
  clampCursor(l);
  loaded = true;
}

void InboxView::addPage(InboxMessageFeed feed, const herald::InboxMessageSet& page) {
  auto& l = list(feed);
  l.messages.insert(l.messages.end(), page.messages.begin(), page.messages.end());
  l.canPaginate = page.canPaginate;
  // A page came after all (another caller's, say): paging works, whatever was said before.
  l.pageError.reset();
}

void InboxView::change(InboxMessageFeed feed, std::int64_t index,
                       const herald::InboxMessagePtr& message) {
  auto& l = list(feed);
  if (index >= 0 && static_cast<std::size_t>(index) < l.messages.size())
    l.messages[static_cast<std::size_t>(index)] = message;
}

void InboxView::add(InboxMessageFeed feed, std::int64_t index,
                    const herald::InboxMessagePtr& message) {
  auto& l = list(feed);
  const auto at = static_cast<std::size_t>(
      std::clamp<std::int64_t>(index, 0, static_cast<std::int64_t>(l.messages.size())));
  const bool wasEmpty = l.messages.empty();
  // A person at the head of the list is watching what comes in: the cursor stays on the
  // head, or new messages would push it down until the list scrolled them out of sight.
  const bool atHead = l.selected == 0 && l.top == 0;
  l.messages.insert(l.messages.begin() + static_cast<std::ptrdiff_t>(at), message);
  if (wasEmpty || (atHead && at == 0)) return;
  if (at <= l.selected) ++l.selected;
  // What was at the top stays there; a message added above it shows once the user looks.
  if (at < l.top || (at == l.top && l.top > 0)) ++l.top;
}

void InboxView::remove(InboxMessageFeed feed, std::int64_t index) {
  auto& l = list(feed);
  if (index < 0 || static_cast<std::size_t>(index) >= l.messages.size()) return;
  const auto at = static_cast<std::size_t>(index);
  l.messages.erase(l.messages.begin() + static_cast<std::ptrdiff_t>(at));
  if (at < l.selected) --l.selected;
  if (at < l.top) --l.top;
  clampCursor(l);
}

void InboxView::move(InboxMessageFeed feed, long delta) {
  auto& l = list(feed);
  const long last = static_cast<long>(l.messages.size()) - 1;
  if (last < 0) return;
  l.selected = static_cast<std::size_t>(std::clamp(static_cast<long>(l.selected) + delta, 0L, last));
}

void InboxView::moveTo(InboxMessageFeed feed, std::size_t index) {
  auto& l = list(feed);
  if (l.messages.empty()) return;
  l.selected = std::min(index, l.messages.size() - 1);
}

}  // namespace herald_ui
