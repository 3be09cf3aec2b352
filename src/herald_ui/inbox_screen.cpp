#include "herald_ui/inbox_screen.hpp"

#include <algorithm>

#include "herald/herald.hpp"
#include "herald_ui/curses.hpp"
#include "herald_ui/text.hpp"

namespace herald_ui {

using herald::InboxMessage;
using herald::InboxMessageFeed;
using herald::InboxMessagePtr;

namespace {

int heightOf(const InboxMessage& message) {
  return 1 + (message.subtitle() ? 1 : 0) + (message.actions && !message.actions->empty() ? 1 : 0);
}

std::wstring buttons(const InboxMessage& message) {
  std::wstring text;
  if (!message.actions) return text;
  for (const auto& action : *message.actions) {
    if (!text.empty()) text += L" ";
    text += L"[ " + widen(action.content.value_or(action.href.value_or("Open"))) + L" ]";
  }
  return text;
}

// Brings the cursor's message into `rows` lines, the pagination row with the last one.
void scrollToCursor(MessageList& list, int rows) {
  if (list.messages.empty()) {
    list.top = 0;
    return;
  }
  if (list.selected < list.top) list.top = list.selected;
  const auto needed = [&] {
    int total = 0;
    for (auto i = list.top; i <= list.selected; ++i) total += heightOf(*list.messages[i]);
    if (list.selected + 1 == list.messages.size() && list.showsPaginationRow()) ++total;
    return total;
  };
  while (list.top < list.selected && needed() > rows) ++list.top;
}

}  // namespace

herald::HeraldInboxListener::Callbacks InboxScreen::callbacks() {
  // Run on the main queue; the application outlives its listener's callbacks (nothing it
  // posts runs after run() has returned).
  return {
      .onLoading =
          [this] {
            loading_ = true;
            app_.redraw();
          },
      .onError = [this](const herald::HeraldError& error) {
        loading_ = false;
        if (!view_.loaded) loadFailure_ = error.message;
        app_.inboxFailed(error);
      },
      .onUnreadCountChanged =
          [this](std::int64_t count) {
            view_.unreadCount = count;
            app_.redraw();
          },
      .onFeedChanged =
          [this](const herald::InboxMessageSet& set) {
            view_.replace(InboxMessageFeed::feed, set);
            loading_ = false;
            loadFailure_.reset();
            app_.redraw();
          },
      .onArchiveChanged =
          [this](const herald::InboxMessageSet& set) {
            view_.replace(InboxMessageFeed::archived, set);
            app_.redraw();
          },
      .onPageAdded =
          [this](InboxMessageFeed feed, const herald::InboxMessageSet& page) {
            view_.addPage(feed, page);
            app_.redraw();
          },
      .onMessageChanged =
          [this](InboxMessageFeed feed, std::int64_t index, const InboxMessagePtr& message) {
            if (opened_ && opened_->messageId == message->messageId) opened_ = message;
            view_.change(feed, index, message);
            app_.redraw();
          },
      .onMessageAdded =
          [this](InboxMessageFeed feed, std::int64_t index, const InboxMessagePtr& message) {
            view_.add(feed, index, message);
            app_.redraw();
          },
      .onMessageRemoved =
          [this](InboxMessageFeed feed, std::int64_t index, const InboxMessagePtr&) {
            view_.remove(feed, index);
            app_.redraw();
          },
      .onConnectionChanged =
          [this](herald::InboxConnectionState state, double retryIn) {
            app_.connectionChanged(state, retryIn);
          },
  };
}

void InboxScreen::drawTabs(int row, int cols) {
  const auto& theme = app_.theme();
  const std::wstring inbox = L" Inbox (" + std::to_wstring(view_.unreadCount) + L") ";
  const std::wstring archived = L" Archived ";
  const bool onFeed = tab_ == InboxMessageFeed::feed;
  put(row, 1, inbox, cols, onFeed ? theme.accentBar : theme.dim);
  put(row, 2 + columns(inbox), archived, cols, onFeed ? theme.dim : theme.accentBar);
  if (loading_) {
    const std::wstring text = L"Loading" + glyph(L"\u2026", L"...") + L" ";
    put(row, std::max(0, cols - columns(text)), text, cols, theme.dim);
  }
}

void InboxScreen::draw(int top, int bottom, int cols) {
  paginationRowShown_ = false;
  if (opened_) return drawOpened(top, bottom, cols);
  drawList(view_.list(tab_), top, bottom, cols);
}

void InboxScreen::drawList(MessageList& list, int top, int bottom, int cols) {
  const auto& theme = app_.theme();
  listRows_ = std::max(1, bottom - top);
  if (!view_.loaded && loadFailure_) {
    // Nothing to show yet: the whole reason, which the status line may have to cut.
    int row = top + std::max(0, listRows_ / 2 - 3);
    put(row++, 4, L"Could not load the inbox:", cols - 8, theme.error);
    for (const auto& line : wrap(widen(*loadFailure_), cols - 8, 4)) put(row++, 4, line, cols - 8);
    put(row + 1, 4, L"It is tried again by itself; R tries now.", cols - 8, theme.dim);
    return;
  }
  if (list.messages.empty() && !list.showsPaginationRow()) {
    const std::wstring text = !view_.loaded ? L"Loading" + glyph(L"\u2026", L"...")
                              : tab_ == InboxMessageFeed::feed ? L"No messages"
                                                               : L"Nothing archived";
    put(top + listRows_ / 2 - 1, std::max(0, (cols - columns(text)) / 2), text, cols, theme.dim);
    return;
  }
  scrollToCursor(list, listRows_);
  int row = top;
  for (auto i = list.top; i < list.messages.size() && row < bottom; ++i) {
    drawMessage(*list.messages[i], i == list.selected, row, bottom, cols);
    row += heightOf(*list.messages[i]);
  }
  if (row < bottom && list.showsPaginationRow()) {
    paginationRowShown_ = true;
    if (list.pageError)
      putPadded(row, 0, L"  Could not load more: " + widen(*list.pageError) + L" (R reloads)",
                cols, theme.error);
    else
      putPadded(row, 0, L"  Loading more" + glyph(L"\u2026", L"..."), cols, theme.dim);
  }
}

void InboxScreen::drawMessage(const InboxMessage& message, bool selected, int row, int bottom,
                              int cols) {
  const auto& theme = app_.theme();
  const auto base = selected ? theme.selected : std::uint64_t{0};
  const auto on = [&](std::uint64_t attributes) { return selected ? base : attributes; };
  const std::wstring mark = message.isRead() ? L"  " : glyph(L"\u25cf ", L"* ");
  const std::wstring time = L" " + widen(message.time()) + L" ";
  const int titleWidth = cols - 2 - columns(time);

  putPadded(row, 0, L"", cols, base);
  put(row, 1, mark, 2, on(theme.accent));
  if (message.title)
    put(row, 3, widen(*message.title), titleWidth - 1,
        message.isRead() ? base : base | theme.bold);
  else
    put(row, 3, L"(no title)", titleWidth - 1, on(theme.dim));
  put(row, cols - columns(time), time, columns(time), on(theme.dim));
  ++row;
  if (const auto subtitle = message.subtitle(); subtitle && row < bottom) {
    putPadded(row, 0, L"   " + widen(*subtitle), cols, on(theme.dim));
    ++row;
  }
  if (message.actions && !message.actions->empty() && row < bottom) {
    putPadded(row, 0, L"", cols, base);
    put(row, 3, buttons(message), cols - 4, on(theme.button));
  }
}

void InboxScreen::drawOpened(int top, int bottom, int cols) {
  const auto& theme = app_.theme();
  const auto& message = *opened_;
  const int width = cols - 2;
  drawBox(top, 1, bottom - top, width, widen(message.title.value_or("(no title)")), theme.accent,
          theme.accent);
  int row = top + 1;
  put(row++, 3, widen(message.time()) + (message.created ? L"  " + widen(*message.created) : L""),
      width - 4, theme.dim);
  ++row;
  const int actionRows = message.actions ? static_cast<int>(message.actions->size()) : 0;
  const int room = std::max(1, bottom - 2 - row - (actionRows ? actionRows + 1 : 0));
  for (const auto& line :
       wrap(widen(message.subtitle().value_or("")), width - 4, static_cast<std::size_t>(room)))
    put(row++, 3, line, width - 4);
  if (actionRows) {
    row = bottom - 2 - actionRows;
    std::size_t n = 0;
    for (const auto& action : *message.actions) {
      const std::wstring label =
          L"[" + std::to_wstring(++n) + L"] " + widen(action.content.value_or("Open"));
      put(row, 3, label, width - 4, theme.button);
      if (action.href)
        put(row, 4 + columns(label), widen(*action.href), width - 5 - columns(label), theme.dim);
      ++row;
    }
  }
  put(bottom - 1, 3, L" Esc closes" + std::wstring(actionRows ? L", 1-9 follow an action " : L" "),
      width - 4, theme.dim);
}

void InboxScreen::drawn() {
  if (opened_ || !paginationRowShown_) return;
  auto& list = view_.list(tab_);
  if (list.canPaginate && !list.pageRequested && !list.pageError) fetchNextPage(tab_);
}

void InboxScreen::fetchNextPage(InboxMessageFeed feed) {
  view_.list(feed).pageRequested = true;
  app_.perform<std::vector<InboxMessagePtr>>(
      herald::Herald::shared().fetchNextInboxPage(feed),
      [this, feed](std::vector<InboxMessagePtr> page) {
        auto& list = view_.list(feed);
        list.pageRequested = false;
        // The page itself came through onPageAdded. None while the list can go on means the
        // inbox would not ask (a reload under way, an earlier page that failed): say so
        // rather than ask again at every drawing.
        if (page.empty() && list.canPaginate) list.pageError = "no page came back";
        app_.redraw();
      },
      [this, feed](const std::string& why) {
        auto& list = view_.list(feed);
        list.pageRequested = false;
        list.pageError = why;
        app_.redraw();
      });
}

bool InboxScreen::key(const Key& key) {
  if (opened_) {
    if (key.is(L'\x1b') || key.is(L'\r') || key.is(L'\n') || key.is(L'\x7f') ||
        (key.function && (key.code == KEY_BACKSPACE || key.code == KEY_ENTER ||
                          key.code == KEY_LEFT))) {
      opened_.reset();
      return true;
    }
    if (!key.function && key.code >= L'1' && key.code <= L'9') {
      followAction(key.code - L'1');
      return true;
    }
    return false;
  }
  auto& list = view_.list(tab_);
  if (key.function) {
    switch (key.code) {
      case KEY_UP: view_.move(tab_, -1); return true;
      case KEY_DOWN: view_.move(tab_, 1); return true;
      case KEY_PPAGE: view_.move(tab_, -std::max(1, listRows_ / 3)); return true;
      case KEY_NPAGE: view_.move(tab_, std::max(1, listRows_ / 3)); return true;
      case KEY_HOME: view_.moveTo(tab_, 0); return true;
      case KEY_END: view_.moveTo(tab_, list.messages.size()); return true;
      case KEY_BTAB:
      case KEY_LEFT:
      case KEY_RIGHT:
        tab_ = tab_ == InboxMessageFeed::feed ? InboxMessageFeed::archived : InboxMessageFeed::feed;
        return true;
      case KEY_ENTER: open(); return true;
      default: return false;
    }
  }
  switch (key.code) {
    case L'k': view_.move(tab_, -1); return true;
    case L'j': view_.move(tab_, 1); return true;
    case L'g': view_.moveTo(tab_, 0); return true;
    case L'G': view_.moveTo(tab_, list.messages.size()); return true;
    case L'\t':
      tab_ = tab_ == InboxMessageFeed::feed ? InboxMessageFeed::archived : InboxMessageFeed::feed;
      return true;
    case L'\r':
    case L'\n': open(); return true;
    case L'r': toggleRead(); return true;
    case L'a': archive(); return true;
    case L'A':
      app_.setStatus(L"Marking every message read" + glyph(L"\u2026", L"..."));
      app_.perform(herald::Herald::shared().readAllInboxMessages(),
                   [this] { app_.setStatus(L"Every message is read", StatusKind::good); },
                   [this](const std::string& why) {
                     app_.setStatus(L"Could not mark every message read: " + widen(why),
                                    StatusKind::trouble);
                   });
      return true;
    case L'R':
      app_.perform(herald::Herald::shared().refreshInbox());
      return true;
    case L'p': app_.showPreferences(); return true;
    default: return false;
  }
}

const InboxMessage* InboxScreen::changeable(const wchar_t* whenArchived) {
  const auto* message = view_.list(tab_).selectedMessage();
  if (message && message->isArchived()) {
    app_.setStatus(whenArchived);
    return nullptr;
  }
  return message;
}

void InboxScreen::toggleRead() {
  const auto* message = changeable(L"An archived message keeps its state");
  if (!message) return;
  auto& herald = herald::Herald::shared();
  const bool read = message->isRead();
  const auto title = widen(message->title.value_or(message->messageId));
  app_.perform(read ? herald.unreadMessage(message->messageId)
                    : herald.readMessage(message->messageId),
               {}, [this, read, title](const std::string& why) {
                 app_.setStatus(L"Could not mark " + title + (read ? L" unread: " : L" read: ") +
                                    widen(why),
                                StatusKind::trouble);
               });
}

void InboxScreen::archive() {
  const auto* message = changeable(L"Already archived");
  if (!message) return;
  const auto title = widen(message->title.value_or(message->messageId));
  app_.perform(
      herald::Herald::shared().archiveMessage(message->messageId),
      [this, title] { app_.setStatus(L"Archived " + title, StatusKind::good); },
      [this, title](const std::string& why) {
        app_.setStatus(L"Could not archive " + title + L": " + widen(why), StatusKind::trouble);
      });
}

void InboxScreen::open() {
  const auto& list = view_.list(tab_);
  if (list.selected >= list.messages.size()) return;
  opened_ = list.messages[list.selected];
  auto& herald = herald::Herald::shared();
  const auto id = opened_->messageId;
  const auto failed = [this](const std::string& why) {
    app_.setStatus(L"Could not tell the service: " + widen(why), StatusKind::trouble);
  };
  // Opening a message is reading it, as in any mail reader.
  if (!opened_->isRead() && !opened_->isArchived()) app_.perform(herald.readMessage(id), {}, failed);
  app_.perform(herald.openMessage(id), {}, failed);
  app_.perform(herald.clickMessage(id), {}, failed);
  if (opened_->actions && !opened_->actions->empty() && opened_->actions->front().href)
    app_.openLink(*opened_->actions->front().href);
}

void InboxScreen::followAction(std::size_t index) {
  if (!opened_ || !opened_->actions || index >= opened_->actions->size()) return;
  const auto& action = (*opened_->actions)[index];
  if (!action.href) {
    app_.setStatus(L"That action has no link");
    return;
  }
  app_.perform(herald::Herald::shared().clickMessage(opened_->messageId));
  app_.openLink(*action.href);
}

std::wstring InboxScreen::help() const {
  return L"Up Down    move (also j k, PgUp PgDn, Home End)\n"
         L"Enter      open: read it, count the click, follow\n"
         L"           its first link (1-9 the others)\n"
         L"r          read or unread\n"
         L"a          archive\n"
         L"A          mark every message read\n"
         L"R          reload the inbox";
}

}  // namespace herald_ui
