#include "herald_ui/preferences_screen.hpp"

#include <algorithm>

#include "herald/herald.hpp"
#include "herald_ui/curses.hpp"
#include "herald_ui/text.hpp"

namespace herald_ui {

using herald::HeraldUserPreferencesChannel;
using herald::HeraldUserPreferencesStatus;
using herald::HeraldUserPreferencesTopic;
using TopicPtr = std::shared_ptr<const HeraldUserPreferencesTopic>;

namespace {

// A service that always says "more" must not keep the screen loading for ever.
constexpr int kMaxPages = 1000;

const wchar_t* channelName(HeraldUserPreferencesChannel channel) {
  switch (channel) {
    case HeraldUserPreferencesChannel::push: return L"Push";
    case HeraldUserPreferencesChannel::sms: return L"SMS";
    case HeraldUserPreferencesChannel::email: return L"Email";
    case HeraldUserPreferencesChannel::directMessage: return L"Direct message";
    case HeraldUserPreferencesChannel::webhook: return L"Webhook";
    default: return L"Unknown";
  }
}

bool isRequired(const HeraldUserPreferencesTopic& topic) {
  return topic.status == HeraldUserPreferencesStatus::required ||
         topic.defaultStatus == HeraldUserPreferencesStatus::required;
}

std::wstring statusText(const HeraldUserPreferencesTopic& topic) {
  switch (topic.status) {
    case HeraldUserPreferencesStatus::optedIn: return L"On";
    case HeraldUserPreferencesStatus::optedOut: return L"Off";
    case HeraldUserPreferencesStatus::required: return glyph(L"\U0001F512 ", L"") + L"REQUIRED";
    default: return L"Unknown";
  }
}

// The channels the user chose, in the fixed order.
std::wstring channelList(const HeraldUserPreferencesTopic& topic) {
  if (!topic.hasCustomRouting) return L"";
  std::wstring text;
  for (const auto channel : herald::kPreferencesChannelAllCases) {
    if (std::find(topic.customRouting.begin(), topic.customRouting.end(), channel) ==
        topic.customRouting.end())
      continue;
    if (!text.empty()) text += L", ";
    text += channelName(channel);
  }
  return text.empty() ? L"no channel" : text;
}

// Every page of the user's topics, following the cursor.
boost::asio::awaitable<std::vector<TopicPtr>> readTopics() {
  const auto client = co_await herald::Herald::shared().client();
  if (!client) throw herald::HeraldError::noUserSignedIn();
  const auto preferences = client->preferences();
  std::vector<TopicPtr> topics;
  std::optional<std::string> cursor;
  for (int page = 0; page < kMaxPages; ++page) {
    const auto answer = co_await preferences->getUserPreferences(cursor);
    topics.insert(topics.end(), answer->items.begin(), answer->items.end());
    if (!answer->paging || !answer->paging->more || !answer->paging->cursor) break;
    cursor = answer->paging->cursor;
  }
  co_return topics;
}

// Stores one topic's choice, then reads back what the service keeps.
boost::asio::awaitable<TopicPtr> storeTopic(std::string topicId, herald::TopicDetails details) {
  const auto client = co_await herald::Herald::shared().client();
  if (!client) throw herald::HeraldError::noUserSignedIn();
  const auto preferences = client->preferences();
  co_await preferences->putUserPreferenceTopic(topicId, details.status, details.hasCustomRouting,
                                               details.customRouting);
  const auto stored = co_await preferences->getUserPreferenceTopic(topicId);
  co_return stored.topic;
}

}  // namespace

TopicSheet TopicSheet::of(TopicPtr topic) {
  TopicSheet sheet;
  sheet.on = topic->status != HeraldUserPreferencesStatus::optedOut;
  sheet.ownChannels = topic->hasCustomRouting;
  for (std::size_t i = 0; i < sheet.channels.size(); ++i)
    sheet.channels[i] = std::find(topic->customRouting.begin(), topic->customRouting.end(),
                                  herald::kPreferencesChannelAllCases[i]) !=
                        topic->customRouting.end();
  sheet.topic = std::move(topic);
  return sheet;
}

herald::TopicDetails TopicSheet::details() const {
  herald::TopicDetails details;
  details.status = !on                   ? HeraldUserPreferencesStatus::optedOut
                   : isRequired(*topic) ? HeraldUserPreferencesStatus::required
                                        : HeraldUserPreferencesStatus::optedIn;
  details.hasCustomRouting = ownChannels;
  // The choice is kept even while switched off, so that switching back brings it back.
  for (std::size_t i = 0; i < channels.size(); ++i)
    if (channels[i]) details.customRouting.push_back(herald::kPreferencesChannelAllCases[i]);
  return details;
}

std::vector<PreferenceRow> preferenceRows(const std::vector<TopicPtr>& topics) {
  std::vector<std::string> sections;
  for (const auto& topic : topics)
    if (std::find(sections.begin(), sections.end(), topic->sectionName) == sections.end())
      sections.push_back(topic->sectionName);
  std::vector<PreferenceRow> rows;
  for (const auto& section : sections) {
    rows.push_back({section, nullptr});
    for (const auto& topic : topics)
      if (topic->sectionName == section) rows.push_back({section, topic});
  }
  return rows;
}

void PreferencesScreen::open() {
  loading_ = true;
  failure_.reset();
  const auto generation = ++generation_;
  app_.perform<std::vector<TopicPtr>>(
      readTopics(),
      [this, generation](std::vector<TopicPtr> topics) {
        if (generation != generation_) return;
        loading_ = false;
        topics_ = std::move(topics);
        rows_ = preferenceRows(topics_);
        selected_ = std::min(selected_, rows_.empty() ? 0 : rows_.size() - 1);
        moveCursor(0);
        app_.redraw();
      },
      [this, generation](const std::string& why) {
        if (generation != generation_) return;
        loading_ = false;
        failure_ = why;
        app_.redraw();
      });
}

void PreferencesScreen::drawTabs(int row, int cols) {
  put(row, 1, L" Notification preferences ", cols, app_.theme().accentBar);
  if (loading_) {
    const std::wstring text = L"Loading" + glyph(L"\u2026", L"...") + L" ";
    put(row, std::max(0, cols - columns(text)), text, cols, app_.theme().dim);
  }
}

void PreferencesScreen::draw(int top, int bottom, int cols) {
  const auto& theme = app_.theme();
  if (failure_) {
    put(top + 1, 2, L"Could not read the preferences: " + widen(*failure_), cols - 4,
        theme.error);
    put(top + 2, 2, L"R tries again, Esc goes back", cols - 4, theme.dim);
    return;
  }
  if (rows_.empty()) {
    if (!loading_) put(top + 1, 2, L"No topics", cols - 4, theme.dim);
    return;
  }
  const int rows = bottom - top;
  if (selected_ < top_) top_ = selected_;
  if (selected_ >= top_ + static_cast<std::size_t>(rows)) top_ = selected_ - rows + 1;
  // A section's heading stays in sight above its first topic.
  if (top_ > 0 && top_ == selected_ && !rows_[top_ - 1].topic) --top_;
  const int statusColumn = std::max(20, cols - 40);
  for (int line = 0; line < rows && top_ + line < rows_.size(); ++line) {
    const auto index = top_ + static_cast<std::size_t>(line);
    const auto& entry = rows_[index];
    const int row = top + line;
    if (!entry.topic) {
      put(row, 1, widen(entry.section), cols - 2, theme.accent);
      continue;
    }
    const bool selected = index == selected_;
    const auto base = selected ? theme.selected : std::uint64_t{0};
    putPadded(row, 0, L"   " + widen(entry.topic->topicName), statusColumn - 1, base);
    const auto status = statusText(*entry.topic);
    putPadded(row, statusColumn, status, 12,
              selected ? base : entry.topic->status == HeraldUserPreferencesStatus::optedOut
                                    ? theme.dim
                                    : theme.accent);
    putPadded(row, statusColumn + 12, channelList(*entry.topic), cols - statusColumn - 12,
              selected ? base : theme.dim);
  }
  if (sheet_) drawSheet(top, bottom, cols);
}

void PreferencesScreen::drawSheet(int top, int bottom, int cols) {
  const auto& theme = app_.theme();
  const auto& sheet = *sheet_;
  const auto& topic = *sheet.topic;
  const int width = std::min(cols - 4, 64);
  const int height = std::min(bottom - top, sheet.lines() + 8);
  const int boxTop = top + std::max(0, (bottom - top - height) / 2), left = (cols - width) / 2;
  drawBox(boxTop, left, height, width, widen(topic.topicName), theme.accent, theme.accent);
  int row = boxTop + 1;
  put(row++, left + 2, widen(topic.sectionName), width - 4, theme.dim);
  ++row;
  const std::wstring pointer = glyph(L"\u203a ", L"> ");
  const auto line = [&](int index, const std::wstring& text, bool enabled = true) {
    const bool focused = sheet.focus == index;
    put(row, left + 2, focused ? pointer : L"  ", 2, theme.accent);
    put(row, left + 4, text, width - 6,
        focused ? theme.selected : enabled ? std::uint64_t{0} : theme.dim);
    ++row;
  };
  const std::wstring on = glyph(L"\u25c9 ", L"(*) "), off = glyph(L"\u25cb ", L"( ) ");
  std::wstring receive = L"Receive         " + (sheet.on ? on + L"On " : off + L"Off");
  if (isRequired(topic)) receive += L"  " + glyph(L"\U0001F512 ", L"") + L"required";
  line(0, receive);
  line(1, L"Own channels    " + (sheet.ownChannels ? on + L"On " : off + L"Off"));
  for (std::size_t i = 0; i < sheet.channels.size(); ++i)
    line(2 + static_cast<int>(i),
         std::wstring(L"  ") + (sheet.channels[i] ? L"[x] " : L"[ ] ") +
             channelName(herald::kPreferencesChannelAllCases[i]),
         sheet.ownChannels);
  line(sheet.saveLine(), sheet.saving ? L"Saving" + glyph(L"\u2026", L"...") : L"[ Save ]");
  if (sheet.refusal) {
    const auto room = std::max(0, boxTop + height - 1 - row);
    for (const auto& text : wrap(L"Refused: " + widen(*sheet.refusal), width - 4,
                                 static_cast<std::size_t>(room)))
      put(row++, left + 2, text, width - 4, theme.error);
  }
  put(boxTop + height - 1, left + 2, L" Space switches, Enter saves, Esc cancels ", width - 4,
      theme.dim);
}

void PreferencesScreen::moveCursor(int delta) {
  if (rows_.empty()) return;
  // Headings are passed over: the cursor is on topics only.
  long index = static_cast<long>(selected_);
  const long step = delta < 0 ? -1 : 1;
  long moves = std::abs(delta);
  const auto isTopic = [&](long i) { return rows_[static_cast<std::size_t>(i)].topic != nullptr; };
  if (!isTopic(index)) moves = std::max(moves, 1L);
  const long last = static_cast<long>(rows_.size()) - 1;
  long candidate = index;
  while (moves > 0) {
    long next = candidate + step;
    while (next >= 0 && next <= last && !isTopic(next)) next += step;
    if (next < 0 || next > last) break;
    candidate = next;
    --moves;
  }
  if (!isTopic(candidate)) {
    // Nothing that way (a heading at the very top): the nearest topic the other way.
    for (long i = 0; i <= last; ++i)
      if (isTopic(i)) {
        candidate = i;
        break;
      }
  }
  selected_ = static_cast<std::size_t>(candidate);
}

bool PreferencesScreen::key(const Key& key) {
  if (sheet_) return sheetKey(key);
  if (key.function) {
    switch (key.code) {
      case KEY_UP: moveCursor(-1); return true;
      case KEY_DOWN: moveCursor(1); return true;
      case KEY_PPAGE: moveCursor(-10); return true;
      case KEY_NPAGE: moveCursor(10); return true;
      case KEY_HOME: selected_ = 0; moveCursor(0); return true;
      case KEY_END: selected_ = rows_.empty() ? 0 : rows_.size() - 1; moveCursor(0); return true;
      case KEY_ENTER: break;
      case KEY_LEFT:
      case KEY_BACKSPACE: app_.showInbox(); return true;
      default: return false;
    }
  }
  if (key.is(L'k')) moveCursor(-1);
  else if (key.is(L'j')) moveCursor(1);
  else if (key.is(L'\x1b') || key.is(L'p') || key.is(L'\t') || key.is(L'\x7f')) app_.showInbox();
  else if (key.is(L'R')) open();
  else if (key.is(L'\r') || key.is(L'\n') || key.is(L' ') || (key.function && key.code == KEY_ENTER)) {
    if (selected_ < rows_.size() && rows_[selected_].topic)
      sheet_ = TopicSheet::of(rows_[selected_].topic);
  } else {
    return false;
  }
  return true;
}

bool PreferencesScreen::sheetKey(const Key& key) {
  auto& sheet = *sheet_;
  if (key.is(L'\x1b')) {
    sheet_.reset();
    return true;
  }
  if (sheet.saving) return true;
  const bool up = (key.function && key.code == KEY_UP) || key.is(L'k');
  const bool down = (key.function && key.code == KEY_DOWN) || key.is(L'j') || key.is(L'\t');
  if (up || down) {
    const int count = sheet.lines();
    do {
      sheet.focus = (sheet.focus + (up ? count - 1 : 1)) % count;
      // The channels are passed over while the topic takes the usual ones.
    } while (!sheet.ownChannels && sheet.focus >= 2 && sheet.focus < sheet.saveLine());
    return true;
  }
  const bool enter = key.is(L'\r') || key.is(L'\n') || (key.function && key.code == KEY_ENTER);
  if (key.is(L's') || (enter && sheet.focus == sheet.saveLine())) {
    save();
    return true;
  }
  if (key.is(L' ') || enter) {
    sheet.refusal.reset();
    if (sheet.focus == 0) sheet.on = !sheet.on;
    else if (sheet.focus == 1) sheet.ownChannels = !sheet.ownChannels;
    else if (sheet.focus < sheet.saveLine() && sheet.ownChannels)
      sheet.channels[static_cast<std::size_t>(sheet.focus - 2)] =
          !sheet.channels[static_cast<std::size_t>(sheet.focus - 2)];
    return true;
  }
  return false;
}

void PreferencesScreen::save() {
  auto& sheet = *sheet_;
  sheet.saving = true;
  sheet.refusal.reset();
  const auto topicId = sheet.topic->topicId;
  const auto name = widen(sheet.topic->topicName);
  app_.perform<TopicPtr>(
      storeTopic(topicId, sheet.details()),
      [this, topicId, name](TopicPtr stored) {
        for (auto& topic : topics_)
          if (topic->topicId == topicId) topic = stored;
        rows_ = preferenceRows(topics_);
        if (sheet_ && sheet_->topic->topicId == topicId) sheet_.reset();
        app_.setStatus(L"Saved " + name, StatusKind::good);
      },
      [this, topicId, name](const std::string& why) {
        // The sheet stays open with the refusal in it, so the choice can be changed.
        if (sheet_ && sheet_->topic->topicId == topicId) {
          sheet_->saving = false;
          sheet_->refusal = why;
        }
        app_.setStatus(L"The service refused " + name + L": " + widen(why), StatusKind::trouble);
      });
}

std::wstring PreferencesScreen::help() const {
  return L"Up Down    move between topics\n"
         L"Enter      the topic's sheet: Space switches,\n"
         L"           Enter on Save (or s) saves\n"
         L"R          read the topics again\n"
         L"Esc        back to the inbox";
}

}  // namespace herald_ui
