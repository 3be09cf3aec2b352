#include "notification_message/notification_message.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using notification_message::decode;
using notification_message::NotificationMessage;

TEST(NotificationMessageTest, DecodesEveryFieldOfAFullPayload) {
  auto m = decode(R"({
    "aps": {"alert": {"title": "New comment"}, "mutable-content": 1},
    "trackingUrl": "https://t.example/1",
    "batch": {"count": 3},
    "url": {"multiple": "kelvara://designs", "singular": "kelvara://design/9"},
    "user_name": "Ada Lovelace", "team_name": "Engines", "user_initials": "AL",
    "profile": {"user_id": "u-17"},
    "thumbnail_url": "https://cdn.example/t.jpg",
    "profile_picture_url": "https://cdn.example/ada.jpg",
    "team_profile_picture_url": "https://cdn.example/team.jpg",
    "references_multiple_templates": true,
    "profile_picture_background_color": "#FF8800",
    "is_team_notification": false,
    "content": {"extra": {"body_formatted_custom": "<b>Ada</b> commented"},
                "title": "Comment",
                "body": {"multiple": "3 comments", "singular": "1 comment"}}
  })");
  ASSERT_TRUE(m.batch);
  EXPECT_EQ(m.batch->count, 3);
  EXPECT_EQ(m.url->multiple, "kelvara://designs");
  EXPECT_EQ(m.url->singular, "kelvara://design/9");
  EXPECT_EQ(m.userName, "Ada Lovelace");
  EXPECT_EQ(m.teamName, "Engines");
  EXPECT_EQ(m.userInitials, "AL");
  EXPECT_EQ(m.profile->userID, "u-17");
  EXPECT_EQ(m.thumbnailURL, "https://cdn.example/t.jpg");
  EXPECT_EQ(m.profilePictureURL, "https://cdn.example/ada.jpg");
  EXPECT_EQ(m.teamProfilePictureURL, "https://cdn.example/team.jpg");
  EXPECT_EQ(m.referencesMultipleDesigns, true);
  EXPECT_EQ(m.profilePictureBackgroundColor, "#FF8800");
  EXPECT_EQ(m.isTeamNotification, false);
  EXPECT_EQ(m.content->extra->bodyFormattedCustom, "<b>Ada</b> commented");
  EXPECT_EQ(m.content->title, "Comment");
  EXPECT_EQ(m.content->body->multiple, "3 comments");
  EXPECT_EQ(m.content->body->singular, "1 comment");
}

TEST(NotificationMessageTest, NullsAbsenceAndUnknownKeysGiveAbsentFields) {
  auto onlyAps = decode(R"({"aps": {"alert": "hi"}})");
  EXPECT_FALSE(onlyAps.batch || onlyAps.url || onlyAps.userName || onlyAps.teamName ||
               onlyAps.userInitials || onlyAps.profile || onlyAps.thumbnailURL ||
               onlyAps.profilePictureURL || onlyAps.teamProfilePictureURL ||
               onlyAps.referencesMultipleDesigns || onlyAps.profilePictureBackgroundColor ||
               onlyAps.isTeamNotification || onlyAps.content);

  auto m = decode(R"({
    "is_team_notification": null, "batch": null, "user_name": null,
    "content": {"title": null, "body": {"singular": "one", "emoji": 3}, "later": [1, 2]},
    "profile": {"user_id": "u1", "role": "owner"},
    "referencesMultipleDesigns": true, "references_multiple_designs": true,
    "thumbnailURL": "https://wrong.example/a.jpg", "thumbnailUrl": 7
  })");
  EXPECT_FALSE(m.isTeamNotification);
  EXPECT_FALSE(m.batch);
  EXPECT_FALSE(m.userName);
  EXPECT_FALSE(m.content->title);
  EXPECT_EQ(m.content->body->singular, "one");
  EXPECT_EQ(m.profile->userID, "u1");
  // The field is read only from its server key; keys shaped like the field's own name are
  // unknown keys.
  EXPECT_FALSE(m.referencesMultipleDesigns);
  EXPECT_FALSE(m.thumbnailURL);

  EXPECT_EQ(decode(R"({"references_multiple_templates": false})").referencesMultipleDesigns, false);
}

TEST(NotificationMessageTest, IntegerCountsAcceptTheWhole64BitRangeOnly) {
  EXPECT_EQ(decode(R"({"batch": {"count": 9223372036854775807}})").batch->count, INT64_MAX);
  EXPECT_EQ(decode(R"({"batch": {"count": -2}})").batch->count, -2);
  EXPECT_THROW(decode(R"({"batch": {"count": 9223372036854775808}})"), core::DecodingError);
  EXPECT_THROW(decode(R"({"batch": {"count": 3.0}})"), core::DecodingError);
  EXPECT_THROW(decode(R"({"batch": {"count": 1e3}})"), core::DecodingError);
}

TEST(NotificationMessageTest, AnyMismatchFailsTheWholeDecodeNamingThePath) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {R"({"batch": {}})", R"("batch.count": required key is missing)"},
      {R"({"batch": {"count": null}})", R"("batch.count": expected a 64-bit integer, found null)"},
      {R"({"batch": {"count": "3"}})",
       R"("batch.count": expected a 64-bit integer, found a string)"},
      {R"({"profile": {}})", R"("profile.user_id": required key is missing)"},
      {R"({"profile": {"user_id": 17}})",
       R"("profile.user_id": expected a string, found an integer)"},
      {R"({"is_team_notification": "true"})",
       R"("is_team_notification": expected a boolean, found a string)"},
      {R"({"user_name": ["Ada"]})", R"("user_name": expected a string, found an array)"},
      {R"({"url": "https://x.example"})", R"("url": expected an object, found a string)"},
      {R"({"content": {"body": {"singular": false}}})",
       R"("content.body.singular": expected a string, found a boolean)"},
      {R"({"content": {"extra": {"body_formatted_custom": {}}}})",
       R"("content.extra.body_formatted_custom": expected a string, found an object)"},
      {R"([{"user_name": "Ada"}])", "top level: expected an object, found an array"},
      {"null", "top level: expected an object, found null"},
  };
  for (const auto& [payload, message] : cases) {
    try {
      decode(payload);
      ADD_FAILURE() << "decoded " << payload;
    } catch (const core::DecodingError& e) {
      EXPECT_EQ(e.what(), message) << payload;
    }
  }
}

TEST(NotificationMessageTest, TextThatIsNotJSONSaysWhere) {
  try {
    decode("{\"user_name\": \"Ada\",\n \"batch\": {\"count\": 3,}}");
    FAIL() << "decoded invalid JSON";
  } catch (const core::DecodingError& e) {
    EXPECT_EQ(e.kind(), core::DecodingError::Kind::dataCorrupted);
    EXPECT_NE(std::string(e.what()).find("line 2"), std::string::npos) << e.what();
  }
}

TEST(NotificationMessageTest, DecodesAUserInfoValueDirectly) {
  boost::json::object userInfo{{"aps", boost::json::object{}}, {"user_initials", "AL"}};
  EXPECT_EQ(NotificationMessage::decode(userInfo).userInitials, "AL");
}

}  // namespace
