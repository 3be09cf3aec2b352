#pragma once
// The inbox screen: the tabs Inbox (with the unread count) and Archived, the message list
// with its pagination row, and a message opened in a box of its own.

#include "herald/inbox_module.hpp"
#include "herald_ui/app.hpp"
#include "herald_ui/inbox_view.hpp"

namespace herald_ui {

class InboxScreen : public Screen {
 public:
  explicit InboxScreen(App& app) : app_(app) {}

  /// The live inbox's callbacks for this screen; each one redraws.
  herald::HeraldInboxListener::Callbacks callbacks();
  /// Whether a state has arrived since the start.
  bool loaded() const { return view_.loaded; }

  void draw(int top, int bottom, int cols) override;
  bool key(const Key& key) override;
  void drawn() override;
  void drawTabs(int row, int cols) override;
  std::wstring help() const override;

 private:
  void drawList(MessageList& list, int top, int bottom, int cols);
  void drawMessage(const herald::InboxMessage& message, bool selected, int row, int bottom,
                   int cols);
  void drawOpened(int top, int bottom, int cols);
  void open();
  void followAction(std::size_t index);
  /// The message under the cursor, unless it is archived (which the status line then says).
  const herald::InboxMessage* changeable(const wchar_t* whenArchived);
  void toggleRead();
  void archive();
  void fetchNextPage(herald::InboxMessageFeed feed);

  App& app_;
  InboxView view_;
  herald::InboxMessageFeed tab_ = herald::InboxMessageFeed::feed;
  bool loading_ = false;
  /// Why the inbox could not be loaded, while it never has been.
  std::optional<std::string> loadFailure_;
  /// The message shown in its box (Enter); none when the list is shown.
  herald::InboxMessagePtr opened_;
  /// The list's last drawing showed its pagination row.
  bool paginationRowShown_ = false;
  /// Rows the list had at its last drawing (for Page Up and Down).
  int listRows_ = 10;
};

}  // namespace herald_ui
