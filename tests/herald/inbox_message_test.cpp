#include "herald/herald.hpp"
#include "herald/inbox_message.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <limits>
#include <string>

#include "platform/executor.hpp"
#include "platform/json.hpp"

using herald::HeraldInboxData;
using herald::InboxData;
using herald::InboxEventType;
using herald::InboxMessage;
using herald::InboxMessageFeed;
using herald::InboxMessagePtr;
using herald::InboxMessageSet;
using namespace std::chrono_literals;

namespace {

// 2026-01-10T12:00:00Z
const core::Date kCreated{std::chrono::seconds(1768046400)};

InboxMessagePtr message(std::string_view json) {
  return InboxMessage::fromJSON(json);
}

InboxMessagePtr createdAt(std::string created) {
  return std::make_shared<InboxMessage>("m", std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                                        std::nullopt, std::nullopt, std::move(created));
}

std::string decodingFailure(std::string_view json) {
  try {
    core::decodeJSON<herald::InboxResponse>(json);
  } catch (const core::DecodingError& e) {
    return e.codingPath();
  }
  ADD_FAILURE() << "decoded: " << json;
  return {};
}

}  // namespace

TEST(InboxMessageModel, StateAndSubtitleLookOnlyAtWhatIsPresent) {
  const auto empty = message(R"({"messageId":"a","read":"","opened":null})");
  EXPECT_TRUE(empty->isRead());
  EXPECT_FALSE(empty->isOpened());
  EXPECT_FALSE(empty->isArchived());
  EXPECT_EQ(empty->subtitle(), std::nullopt);

  EXPECT_EQ(message(R"({"messageId":"a","body":"B","preview":"P"})")->subtitle(), "B");
  EXPECT_EQ(message(R"({"messageId":"a","preview":"P"})")->subtitle(), "P");
}

TEST(InboxMessageModel, TimeCountsWholeSecondsWithAYearOfFortyEightWeeks) {
  const auto m = createdAt("2026-01-10T12:00:00.000Z");
  EXPECT_EQ(m->time(kCreated - 30s), "-30s");
  EXPECT_EQ(m->time(kCreated + 999ms), "0s");
  EXPECT_EQ(m->time(kCreated + 59s), "59s");
  EXPECT_EQ(m->time(kCreated + 60s), "1m");
  EXPECT_EQ(m->time(kCreated + 3599s), "59m");
  EXPECT_EQ(m->time(kCreated + 86399s), "23h");
  EXPECT_EQ(m->time(kCreated + 604799s), "6d");
  EXPECT_EQ(m->time(kCreated + 604800s), "1w");
  EXPECT_EQ(m->time(kCreated + 29030399s), "47w");
  EXPECT_EQ(m->time(kCreated + 29030400s), "1y");
  EXPECT_EQ(m->time(kCreated + 3 * 29030400s + 5s), "3y");

  // The offset in the text counts, whatever the process's zone.
  EXPECT_EQ(createdAt("2026-01-10T14:00:00.000+02:00")->time(kCreated + 120s), "2m");

  // More than the clock's 292 years of nanoseconds ago.
  EXPECT_EQ(createdAt("1721-12-31T23:59:59.999+01:00")->time(kCreated), "330y");
}

TEST(InboxMessageModel, OnlyTheFixedShapeHasADisplayTimeWhileCreatedAtIsLenient) {
  const core::Date now = kCreated + 5 * 86400s;
  const auto noMillis = createdAt("2026-01-10T12:00:00Z");
  EXPECT_EQ(noMillis->time(now), "now");
  EXPECT_EQ(noMillis->createdAt(now), kCreated);
  EXPECT_EQ(noMillis->timestamp(now), 1768046400000);

  for (const auto& m : {createdAt(""), createdAt("yesterday"), message(R"({"messageId":"a"})")}) {
    EXPECT_EQ(m->time(now), "now");
    EXPECT_EQ(m->createdAt(now), now);
    EXPECT_EQ(m->timestamp(now), 1768046400000 + 5 * 86400000);
  }

  EXPECT_EQ(createdAt("2026-01-10T12:00:00.123Z")->timestamp(now), 1768046400123);
  // Truncated toward zero, also before 1970.
  EXPECT_EQ(createdAt("1969-12-31T23:59:59.500Z")->timestamp(now), -500);
}

TEST(InboxMessageModel, DecodesEveryFieldAndEncodesThemBackUnderTheSameKeys) {
  const std::string json =
      R"({"messageId":"m-1","title":"T","body":"B","preview":"P",)"
      R"("actions":[{"content":"Open","href":"https://x/y","data":{"k":[1,{"n":null}]}},{}],)"
      R"("data":{"deep":{"list":[1.5,"s",true,null]}},)"
      R"("trackingIds":{"clickTrackingId":"c-1"},"created":"2026-01-10T12:00:00.000Z",)"
      R"("archived":"a","read":"r","opened":"o"})";
  const auto m = message(json);
  EXPECT_EQ(m->actions->size(), 2u);
  EXPECT_EQ(m->actions->at(0).href, "https://x/y");
  EXPECT_EQ(m->trackingIds->clickTrackingId, "c-1");
  EXPECT_EQ(m->toJSON(), platform::parseJSON(json).as_object());
  EXPECT_EQ(message(R"({"messageId":"m","actions":[{}]})")->toJSON(),
            platform::parseJSON(R"({"messageId":"m","actions":[{}]})").as_object());

  // A copy is a different object whose state changes alone.
  const auto copy = m->copy();
  EXPECT_NE(copy.get(), m.get());
  copy->read.reset();
  EXPECT_TRUE(m->isRead());
  EXPECT_EQ(copy->data, m->data);
}

TEST(InboxMessageModel, AMissingIdFailsThePageWhileBadDataOnlyLosesTheMap) {
  EXPECT_EQ(
      decodingFailure(R"({"data":{"messages":{"nodes":[{"messageId":"a"},{"title":"no id"}]}}})"),
      "data.messages.nodes[1].messageId");
  EXPECT_EQ(decodingFailure(R"({"data":{"messages":{"nodes":[{"messageId":null}]}}})"),
            "data.messages.nodes[0].messageId");
  // Any other field of the wrong type fails too, naming the key.
  EXPECT_EQ(decodingFailure(R"({"data":{"messages":{"nodes":[{"messageId":"a","created":5}]}}})"),
            "data.messages.nodes[0].created");
  EXPECT_EQ(decodingFailure(R"({"data":{"messages":{"nodes":[{"messageId":"a",)"
                            R"("trackingIds":{"clickTrackingId":1}}]}}})"),
            "data.messages.nodes[0].trackingIds");
  EXPECT_EQ(decodingFailure(R"({"data":{"count":"3"}})"), "data.count");
  EXPECT_EQ(decodingFailure(R"({"data":{"messages":{"nodes":[{"messageId":"a",)"
                            R"("actions":[{"data":"x"}]}]}}})"),
            "data.messages.nodes[0].actions[0].data");

  for (const auto* data : {R"("text")", "[1,2]", "7", "true"}) {
    const auto page = core::decodeJSON<herald::InboxResponse>(
        std::string(R"({"data":{"messages":{"nodes":[{"messageId":"a","title":"T","data":)") +
        data + "}]}}}");
    const auto& kept = page.data->messages->nodes->at(0);
    EXPECT_EQ(kept->title, "T") << data;
    EXPECT_FALSE(kept->data) << data;
  }
}

TEST(InboxMessageModel, LargeAndDeepAnswersDecodeOrFailCleanly) {
  std::string page = R"({"data":{"count":100000,"messages":{"nodes":[)";
  for (int i = 0; i < 100000; ++i) {
    if (i > 0) page += ',';
    page +=
        R"({"messageId":"m-)" + std::to_string(i) + R"(","data":{"i":)" + std::to_string(i) + "}}";
  }
  page += "]}}}";
  const auto set = InboxMessageSet::fromData(*core::decodeJSON<herald::InboxResponse>(page).data);
  ASSERT_EQ(set.messages.size(), 100000u);
  EXPECT_EQ(set.messages.back()->messageId, "m-99999");

  auto nested = [](int depth) {
    return R"({"messageId":"a","data":)" + std::string(depth, '[') + std::string(depth, ']') + "}";
  };
  EXPECT_EQ(message(nested(400))->data, std::nullopt);  // an array is no map
  EXPECT_THROW(message(nested(100000)), core::DecodingError);
  EXPECT_THROW(message("{\"messageId\":\"a\""), core::DecodingError);
  EXPECT_THROW(message("[]"), core::DecodingError);
}

TEST(InboxMessageModel, APageWithoutMessagesOrCountIsEmptyAndCannotPaginate) {
  for (const auto* json : {R"({})", R"({"messages":{}})", R"({"messages":{"pageInfo":{}}})",
                           R"({"messages":null,"count":null})"}) {
    const auto set = InboxMessageSet::fromData(core::decodeJSON<InboxData>(json));
    EXPECT_TRUE(set.messages.empty()) << json;
    EXPECT_EQ(set.totalCount, 0) << json;
    EXPECT_FALSE(set.canPaginate) << json;
    EXPECT_EQ(set.paginationCursor, std::nullopt) << json;
  }
  const auto full = InboxMessageSet::fromData(core::decodeJSON<InboxData>(
      R"({"count":7,"messages":{"pageInfo":{"startCursor":"c2","hasNextPage":true},)"
      R"("nodes":[{"messageId":"a"},{"messageId":"b"}]}})"));
  EXPECT_EQ(full.messages.size(), 2u);
  EXPECT_EQ(full.totalCount, 7);
  EXPECT_TRUE(full.canPaginate);
  EXPECT_EQ(full.paginationCursor, "c2");

  // A set survives its own encoding.
  const auto again = core::decodeJSON<InboxMessageSet>(platform::toJSON(full.toJSON()));
  EXPECT_EQ(again.toJSON(), full.toJSON());

  InboxData data;
  data.incrementCount();
  data.incrementCount();
  EXPECT_EQ(data.count, 2);
}

TEST(InboxState, AddingToTheFeedCountsUnreadWhateverTheMessageSaysAndPagesAppend) {
  HeraldInboxData state;
  state.unreadCount = 3;
  state.addMessage(message(R"({"messageId":"old","read":"2026-01-01"})"), 0,
                   InboxMessageFeed::feed);
  state.addMessage(message(R"({"messageId":"top"})"), 0, InboxMessageFeed::feed);
  state.addMessage(message(R"({"messageId":"end"})"), 2, InboxMessageFeed::feed);
  EXPECT_EQ(state.unreadCount, 6);
  state.addMessage(message(R"({"messageId":"gone"})"), 0, InboxMessageFeed::archived);
  EXPECT_EQ(state.unreadCount, 6);
  ASSERT_EQ(state.feed.messages.size(), 3u);
  EXPECT_EQ(state.feed.messages[0]->messageId, "top");
  EXPECT_EQ(state.feed.messages[2]->messageId, "end");

  const auto replacement = message(R"({"messageId":"new"})");
  state.updateMessage(replacement, 1, InboxMessageFeed::feed);
  EXPECT_EQ(state.feed.messages[1], replacement);

  state.feed.totalCount = 40;
  InboxMessageSet page{{message(R"({"messageId":"p"})")}, 99, false, "next"};
  state.feed.canPaginate = true;
  state.addPage(page, InboxMessageFeed::feed);
  EXPECT_EQ(state.feed.messages.back()->messageId, "p");
  EXPECT_EQ(state.feed.totalCount, 40);
  EXPECT_FALSE(state.feed.canPaginate);
  EXPECT_EQ(state.feed.paginationCursor, "next");
  EXPECT_TRUE(state.archived.messages.size() == 1 && !state.archived.paginationCursor);

  // A copy has lists of its own holding the same messages.
  const auto copy = state.copy();
  copy->feed.messages.pop_back();
  copy->unreadCount = 0;
  EXPECT_EQ(state.feed.messages.size(), 4u);
  EXPECT_EQ(state.unreadCount, 6);
  EXPECT_EQ(copy->feed.messages[0], state.feed.messages[0]);
}

TEST(InboxStateDeathTest, BrokenIndexesAndCountersStopTheProgramNamingWhatHappened) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto state = [] {
    HeraldInboxData data;
    data.addMessage(std::make_shared<InboxMessage>("a"), 0, InboxMessageFeed::feed);
    return data;
  };
  EXPECT_DEATH(state().updateMessage(nullptr, 1, InboxMessageFeed::feed),
               "update message: index 1 is out of range for the feed of 1 messages");
  EXPECT_DEATH(state().updateMessage(nullptr, 0, InboxMessageFeed::archived),
               "index 0 is out of range for the archive of 0");
  EXPECT_DEATH(state().addMessage(nullptr, 2, InboxMessageFeed::feed),
               "add message: index 2 is out of range");
  EXPECT_DEATH(state().addMessage(nullptr, -1, InboxMessageFeed::archived),
               "index -1 is out of range");
  EXPECT_DEATH(
      {
        auto data = state();
        data.unreadCount = std::numeric_limits<std::int64_t>::max();
        data.addMessage(nullptr, 0, InboxMessageFeed::feed);
      },
      "the unread count would overflow");
  EXPECT_DEATH(
      {
        InboxData data;
        data.count = std::numeric_limits<std::int64_t>::max();
        data.incrementCount();
      },
      "the inbox count would overflow");
}

TEST(InboxEvents, RawTextsMatchExactly) {
  for (auto type : {InboxEventType::markAllRead, InboxEventType::read, InboxEventType::unread,
                    InboxEventType::opened, InboxEventType::unopened, InboxEventType::archive,
                    InboxEventType::unarchive, InboxEventType::click, InboxEventType::unclick}) {
    EXPECT_EQ(herald::inboxEventTypeFromString(herald::toString(type)), type);
  }
  EXPECT_EQ(herald::toString(InboxEventType::markAllRead), "mark-all-read");
  for (const auto* text : {"Read", "markAllRead", "mark_all_read", "clicked", " read", ""}) {
    EXPECT_EQ(herald::inboxEventTypeFromString(text), std::nullopt) << text;
  }
}

TEST(InboxMessageModel, MarkingGoesThroughTheSharedInbox) {
  if (herald::Herald::shared().isUserSignedIn()) GTEST_SKIP() << "somebody is signed in here";
  const auto m = message(R"({"messageId":"a"})");
  try {
    platform::blockOn(m->markAsRead());
    ADD_FAILURE() << "marked without a user";
  } catch (const herald::HeraldError& e) {
    EXPECT_EQ(e, herald::HeraldError::noUserSignedIn());
  }

  std::promise<std::string> outcome;
  m->markAsArchived([&] { outcome.set_value("success"); },
                    [&](const herald::HeraldError& e) { outcome.set_value(e.message); });
  auto result = outcome.get_future();
  ASSERT_EQ(result.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(result.get(), "No user signed in");
}
