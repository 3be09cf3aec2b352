#include "core/response.hpp"

#include <gtest/gtest.h>

#include "core/dates.hpp"
#include "platform/json.hpp"

namespace {

using core::Date;
using namespace std::chrono_literals;

// 2026-11-22T10:00:00Z
const Date kNovember22 = Date(std::chrono::seconds(1795341600));

struct Design {
  std::string id;
  std::int64_t likes = 0;
  static Design from(const core::KeyedDecoder& c) {
    return {c.decode<std::string>("id"), c.decode<std::int64_t>("likes")};
  }
};

TEST(ResponseTest, APageKeepsItsGoodElementsAndTheFailuresApart) {
  auto page = core::decodeJSON<core::FailableListServiceResponse<Design>>(R"({
    "count": 41, "previous": "/designs?page=1", "now": "2026-11-22T10:00:00.250Z",
    "results": [{"id": "a", "likes": 1}, {"id": "b", "likes": "many"}, {"id": "c", "likes": 3}]
  })");
  EXPECT_EQ(page.count, 41);
  EXPECT_FALSE(page.nextURLPath);
  EXPECT_EQ(page.previousURLPath, "/designs?page=1");
  EXPECT_EQ(page.now, kNovember22 + 250ms);
  ASSERT_EQ(page.results.size(), 3u);
  EXPECT_EQ(page.results[0].wrapped->id, "a");
  EXPECT_FALSE(page.results[1].wrapped);
  ASSERT_TRUE(page.results[1].error);
  EXPECT_STREQ(page.results[1].error->what(),
               R"("results[1].likes": expected a 64-bit integer, found a string)");
  EXPECT_EQ(page.results[2].wrapped->likes, 3);
  EXPECT_FALSE(page.results[2].error);

  // The strict envelope fails as a whole on the same element; a bad envelope fails either way.
  try {
    core::decodeJSON<core::ListServiceResponse<Design>>(
        R"({"count": 1, "now": "2026-11-22T10:00:00Z", "results": [null]})");
    FAIL() << "decoded a null element";
  } catch (const core::DecodingError& e) {
    EXPECT_STREQ(e.what(), R"("results[0]": expected an object, found null)");
  }
  try {
    core::decodeJSON<core::FailableListServiceResponse<Design>>(
        R"({"count": 1, "now": "yesterday", "results": []})");
    FAIL() << "decoded a bad date";
  } catch (const core::DecodingError& e) {
    EXPECT_EQ(e.codingPath(), "now");
    EXPECT_EQ(e.kind(), core::DecodingError::Kind::dataCorrupted);
  }
}

TEST(ResponseTest, ErrorBodiesInEitherShape) {
  using Context = core::HTTPURLResponseError::Context;
  auto current = Context::decode(platform::parseJSON(R"({
    "statusCode": 422,
    "error": {"code": "VALIDATION", "message": "Name is too long", "timestamp": "2026-11-22T10:00:00Z",
              "path": "/designs/7", "details": [{"field": "name", "code": "max", "message": "<= 80"}]}
  })"));
  ASSERT_TRUE(current.defaultContext());
  EXPECT_EQ(current.defaultContext()->error.timestamp, kNovember22);
  EXPECT_EQ(current.defaultContext()->error.details->at(0).field, "name");
  EXPECT_EQ(current.errorCode(), "VALIDATION");
  EXPECT_EQ(current.errorDescription(), "Name is too long");

  auto legacy = Context::decode(platform::parseJSON(R"({"detail": "x", "message": "Not found"})"));
  ASSERT_TRUE(legacy.legacyContext());
  EXPECT_FALSE(legacy.errorCode());
  EXPECT_EQ(legacy.errorDescription(), "Not found");

  try {
    Context::decode(platform::parseJSON(R"({"message": "half a legacy body"})"));
    FAIL() << "decoded a body of neither shape";
  } catch (const core::DecodingError& e) {
    EXPECT_EQ(e.kind(), core::DecodingError::Kind::dataCorrupted);
    EXPECT_STREQ(e.what(), "Neither `DefaultContext` nor `LegacyContext` can be parsed.");
  }

  platform::URLResponse response;
  response.statusCode = 404;
  auto fromBody =
      core::HTTPURLResponseError::fromResponse(response, R"({"detail":"d","message":"Gone"})");
  EXPECT_EQ(fromBody.statusCode(), 404);
  EXPECT_STREQ(fromBody.what(), "HTTP status 404: Gone");
  auto fromHTML = core::HTTPURLResponseError::fromResponse(response, "<html>502</html>");
  EXPECT_TRUE(fromHTML.context()->isUnknown());
  EXPECT_FALSE(fromHTML.context()->errorDescription());
  EXPECT_STREQ(fromHTML.what(), "HTTP status 404");
}

TEST(DatesTest, ServerDatesParseInBothShapesAndFormatWithMilliseconds) {
  core::ISO8601DateServerFormatter iso;
  EXPECT_EQ(iso.date("2026-11-22T10:00:00.000Z"), kNovember22);
  EXPECT_EQ(iso.date("2026-11-22T10:00:00Z"), kNovember22);
  EXPECT_EQ(iso.date("2026-11-22T10:00:00.5Z"), kNovember22 + 500ms);
  EXPECT_EQ(iso.date("2026-11-22T12:30:00+02:30"), kNovember22);
  for (const char* bad :
       {"", "2026-11-22", "2026-11-22T10:00:00", "2026-11-22 10:00:00Z", "2026-02-30T10:00:00Z",
        "2026-11-22T10:00:00Zjunk", "0001-01-01T00:00:00Z"}) {
    EXPECT_FALSE(iso.date(bad)) << bad;
  }
  EXPECT_EQ(iso.string(kNovember22), "2026-11-22T10:00:00.000Z");
  EXPECT_EQ(iso.string(kNovember22 + 1234567us), "2026-11-22T10:00:01.234Z");
  EXPECT_EQ(iso.string(Date{} - 1ms), "1969-12-31T23:59:59.999Z");

  auto server = core::DateFormatter::server();
  EXPECT_EQ(server.string(kNovember22 + 7ms), "2026-11-22T10:00:00.007Z");
  EXPECT_EQ(server.date("2026-11-22T11:00:00.007+01:00"), kNovember22 + 7ms);
}

TEST(DatesTest, AServiceTextWithAnEndlessNumberIsNoDate) {
  // ICU's parser divides by zero on a fraction of 35 digits or more; such a text comes from
  // the service as it is (a message's "created").
  const std::string endless(40, '7');
  auto server = core::DateFormatter::server();
  core::ISO8601DateServerFormatter iso;
  for (const auto& text :
       {"2025-12-31T23:59:59." + endless + "Z", "2025-12-31T23:59:59.999+" + endless + ":00",
        endless + "-12-31T23:59:59Z"}) {
    EXPECT_FALSE(server.date(text)) << text;
    EXPECT_FALSE(iso.date(text)) << text;
  }
  EXPECT_EQ(server.date("2026-11-22T10:00:00.007000Z"), kNovember22 + 7ms);
}

TEST(DatesTest, Presets) {
  EXPECT_EQ(core::DateFormatter("yyyyMMdd_HHmmss", "UTC").string(kNovember22 + 59s),
            "20261122_100059");
  EXPECT_EQ(core::DateFormatter(core::DateFormat::export_).pattern(), "yyyyMMdd_HHmmss");
  EXPECT_EQ(core::DateFormatter::longDate("America/New_York", "en_US").string(kNovember22),
            "Sunday, November 22, 5:00 AM");
  EXPECT_EQ(core::DateFormatter::short_("UTC", "en_US").string(kNovember22), "11/22/26");
  EXPECT_THROW(core::DateFormatter("HH:mm", "Mars/Olympus_Mons"), std::invalid_argument);
}

}  // namespace
