// What the screens compute before anything is drawn: text in terminal columns, colours
// brought down to what a terminal has, the inbox list under listener callbacks, and the
// preferences' sections and sheet. The screens themselves run in tmux (integration tests).
#include <gtest/gtest.h>

#include <clocale>

#include "herald_ui/inbox_view.hpp"
#include "herald_ui/preferences_screen.hpp"
#include "herald_ui/text.hpp"
#include "herald_ui/theme.hpp"

namespace {

using namespace herald_ui;
using herald::HeraldUserPreferencesChannel;
using herald::HeraldUserPreferencesStatus;
using herald::InboxMessageFeed;

class Text : public ::testing::Test {
 protected:
  // Widths of wide characters come from the locale, as in the program.
  void SetUp() override { ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
};

TEST_F(Text, MalformedUtf8AndControlCharactersNeverBreakARow) {
  EXPECT_EQ(widen("caf\xc3\xa9"), L"caf\u00e9");
  // A lone continuation byte, an overlong slash, a surrogate, a cut-off sequence.
  EXPECT_EQ(widen("a\x80" "b"), L"a\uFFFDb");
  EXPECT_EQ(widen("\xc0\xaf"), L"\uFFFD\uFFFD");
  EXPECT_EQ(widen("\xed\xa0\x80"), L"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(widen("ok\xe2\x82"), L"ok\uFFFD\uFFFD");
  EXPECT_EQ(widen("line one\nline\ttwo"), L"line one line two");
  EXPECT_EQ(widen("日本 \xf0\x9f\x93\xb7"), L"日本 \U0001F4F7");
}

TEST_F(Text, FittingCountsColumnsAndNeverSplitsAWideCharacter) {
  EXPECT_EQ(columns(L"日本語"), 6);
  EXPECT_EQ(columns(L"e\u0301"), 1);  // a combining accent takes no column
  EXPECT_EQ(fit(L"Short", 10), L"Short");
  EXPECT_EQ(fit(L"Exactly10!", 10), L"Exactly10!");
  EXPECT_EQ(fit(L"Longer than ten", 10), L"Longer th\u2026");
  // Two columns a character: "日本" and the ellipsis fill 5; a third would not fit.
  EXPECT_EQ(fit(L"日本語テキスト", 5), L"日本\u2026");
  EXPECT_EQ(fit(L"日本語テキスト", 6), L"日本\u2026");
  EXPECT_EQ(columns(pad(L"日本語テキスト", 6)), 6);
  EXPECT_EQ(fit(L"anything", 0), L"");
}

TEST_F(Text, WrappingBreaksAtSpacesAndSaysWhatWasLeftOut) {
  EXPECT_EQ(wrap(L"the quick brown fox", 10, 5),
            (std::vector<std::wstring>{L"the quick", L"brown fox"}));
  EXPECT_EQ(wrap(L"abcdefghijklmnop", 6, 5),
            (std::vector<std::wstring>{L"abcdef", L"ghijkl", L"mnop"}));
  EXPECT_EQ(wrap(L"one two three four", 9, 1), (std::vector<std::wstring>{L"one two\u2026"}));
  EXPECT_TRUE(wrap(L"   ", 9, 3).empty());
}

TEST(Colours, TheServicesColoursAreReadAndBroughtDownToTheTerminal) {
  EXPECT_EQ(parseColour("#9122F7"), (Rgb{0x91, 0x22, 0xF7}));
  EXPECT_EQ(parseColour("9122f7"), (Rgb{0x91, 0x22, 0xF7}));
  EXPECT_EQ(parseColour("#abc"), (Rgb{0xAA, 0xBB, 0xCC}));
  for (const char* bad : {"", "#", "#12345", "#GGGGGG", "red", "rgb(1,2,3)"})
    EXPECT_FALSE(parseColour(bad)) << bad;

  EXPECT_EQ(nearest256({255, 0, 0}), 196);
  EXPECT_EQ(nearest256({0, 0, 0}), 16);
  EXPECT_EQ(nearest256({255, 255, 255}), 231);
  EXPECT_EQ(nearest256({128, 128, 128}), 244);  // the grey ramp, not the cube's 102
  EXPECT_EQ(nearest256({0x91, 0x22, 0xF7}), 93);

  // The eight colours by hue: a brand's violet stays magenta; grey and black (the usual
  // background) become white.
  EXPECT_EQ(nearest8({0x91, 0x22, 0xF7}), 5);
  EXPECT_EQ(nearest8(kDefaultAccent), 4);
  EXPECT_EQ(nearest8({0x22, 0xC5, 0x5E}), 2);
  EXPECT_EQ(nearest8({0xF5, 0x9E, 0x0B}), 3);
  EXPECT_EQ(nearest8({0x80, 0x80, 0x80}), 7);
  EXPECT_EQ(nearest8({0, 0, 0}), 7);

  EXPECT_TRUE(isLight({0xFF, 0xEB, 0x3B}));
  EXPECT_FALSE(isLight({0x91, 0x22, 0xF7}));

  EXPECT_EQ(colourDepth(true, true, 256), ColourDepth::none);
  EXPECT_EQ(colourDepth(false, false, 0), ColourDepth::none);
  EXPECT_EQ(colourDepth(false, true, 8), ColourDepth::basic);
  EXPECT_EQ(colourDepth(false, true, 256), ColourDepth::palette256);
  EXPECT_EQ(colourDepth(false, true, 0x1000000), ColourDepth::direct);
}

herald::InboxMessagePtr message(const std::string& id) {
  return std::make_shared<herald::InboxMessage>(id, "title " + id);
}

herald::InboxMessageSet set(const std::vector<std::string>& ids, bool canPaginate = false) {
  herald::InboxMessageSet result;
  for (const auto& id : ids) result.messages.push_back(message(id));
  result.totalCount = static_cast<std::int64_t>(ids.size());
  result.canPaginate = canPaginate;
  return result;
}

std::vector<std::string> ids(const MessageList& list) {
  std::vector<std::string> result;
  for (const auto& m : list.messages) result.push_back(m->messageId);
  return result;
}

TEST(InboxList, TheCursorStaysOnItsMessageWhileTheListChangesAroundIt) {
  InboxView view;
  const auto feed = InboxMessageFeed::feed;
  view.replace(feed, set({"a", "b", "c", "d"}, true));
  // At the head, the cursor stays there and takes what arrives: a person watching the
  // inbox sees every new message.
  view.add(feed, 0, message("first"));
  EXPECT_EQ(view.list(feed).selectedMessage()->messageId, "first");
  view.remove(feed, 0);
  view.move(feed, 2);
  EXPECT_EQ(view.list(feed).selectedMessage()->messageId, "c");

  view.add(feed, 0, message("new"));  // from the socket, at the top
  EXPECT_EQ(view.list(feed).selectedMessage()->messageId, "c");
  EXPECT_EQ(view.list(feed).top, 0u) << "a message at the top shows at once";
  view.remove(feed, 1);  // "a" archived
  EXPECT_EQ(view.list(feed).selectedMessage()->messageId, "c");
  view.remove(feed, 2);  // "c" itself: the cursor goes to what took its place
  EXPECT_EQ(view.list(feed).selectedMessage()->messageId, "d");
  view.remove(feed, 2);
  EXPECT_EQ(view.list(feed).selectedMessage()->messageId, "b");
  EXPECT_EQ(ids(view.list(feed)), (std::vector<std::string>{"new", "b"}));

  // Indices the list does not have change nothing.
  view.change(feed, 7, message("x"));
  view.remove(feed, -1);
  EXPECT_EQ(ids(view.list(feed)), (std::vector<std::string>{"new", "b"}));

  // A page goes to the end and says whether more follow; a failed page is forgotten by the
  // next state, as is the cursor past its end.
  view.list(feed).pageError = "no page came back";
  view.addPage(feed, set({"e"}, false));
  EXPECT_FALSE(view.list(feed).pageError);
  EXPECT_EQ(ids(view.list(feed)), (std::vector<std::string>{"new", "b", "e"}));
  EXPECT_FALSE(view.list(feed).canPaginate);
  view.moveTo(feed, 99);
  view.list(feed).pageError = "refused";
  view.replace(feed, set({"z"}));
  EXPECT_EQ(view.list(feed).selectedMessage()->messageId, "z");
  EXPECT_FALSE(view.list(feed).pageError);
  EXPECT_TRUE(view.list(InboxMessageFeed::archived).messages.empty());
}

std::shared_ptr<const herald::HeraldUserPreferencesTopic> topic(
    const std::string& id, const std::string& section,
    HeraldUserPreferencesStatus status = HeraldUserPreferencesStatus::optedIn,
    std::vector<HeraldUserPreferencesChannel> channels = {}) {
  return std::make_shared<herald::HeraldUserPreferencesTopic>(
      status, !channels.empty(), channels, status, id, "Topic " + id, section, section);
}

TEST(Preferences, TopicsAreGroupedBySectionInTheServicesOrder) {
  const auto rows = preferenceRows({topic("1", "Activity"), topic("2", "Account"),
                                    topic("3", "Activity"), topic("4", "News")});
  std::vector<std::string> shown;
  for (const auto& row : rows) shown.push_back(row.topic ? row.topic->topicId : "# " + row.section);
  EXPECT_EQ(shown, (std::vector<std::string>{"# Activity", "1", "3", "# Account", "2", "# News",
                                             "4"}));
}

TEST(Preferences, TheSheetAsksForWhatThePersonChoseWithChannelsInTheFixedOrder) {
  using Channel = HeraldUserPreferencesChannel;
  auto sheet = TopicSheet::of(
      topic("t", "s", HeraldUserPreferencesStatus::optedIn, {Channel::webhook, Channel::push}));
  EXPECT_TRUE(sheet.on);
  EXPECT_TRUE(sheet.ownChannels);
  sheet.channels[2] = true;  // email, the third of push, sms, email, direct message, webhook
  auto details = sheet.details();
  EXPECT_EQ(details.status, HeraldUserPreferencesStatus::optedIn);
  EXPECT_TRUE(details.hasCustomRouting);
  EXPECT_EQ(details.customRouting,
            (std::vector<Channel>{Channel::push, Channel::email, Channel::webhook}));

  // Switched off, the channels are kept for the day it is switched on again.
  sheet.on = false;
  sheet.ownChannels = false;
  details = sheet.details();
  EXPECT_EQ(details.status, HeraldUserPreferencesStatus::optedOut);
  EXPECT_FALSE(details.hasCustomRouting);
  EXPECT_EQ(details.customRouting.size(), 3u);

  // A required topic stays "REQUIRED" while on; off, the service is asked and decides.
  auto required = TopicSheet::of(topic("r", "s", HeraldUserPreferencesStatus::required));
  EXPECT_EQ(required.details().status, HeraldUserPreferencesStatus::required);
  required.on = false;
  EXPECT_EQ(required.details().status, HeraldUserPreferencesStatus::optedOut);
}

}  // namespace
