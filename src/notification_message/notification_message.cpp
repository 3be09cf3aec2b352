#include "notification_message/notification_message.hpp"

namespace notification_message {

using Message = NotificationMessage;
using std::string;

Message::Batch Message::Batch::from(const core::KeyedDecoder& c) {
  return {c.decode<std::int64_t>("count")};
}

Message::URLDetails Message::URLDetails::from(const core::KeyedDecoder& c) {
  return {c.decodeIfPresent<string>("multiple"), c.decodeIfPresent<string>("singular")};
}

Message::Profile Message::Profile::from(const core::KeyedDecoder& c) {
  return {c.decode<string>("user_id")};
}

Message::Content::ContentExtra Message::Content::ContentExtra::from(const core::KeyedDecoder& c) {
  return {c.decodeIfPresent<string>("body_formatted_custom")};
}

Message::Content::ContentBody Message::Content::ContentBody::from(const core::KeyedDecoder& c) {
  return {c.decodeIfPresent<string>("multiple"), c.decodeIfPresent<string>("singular")};
}

Message::Content Message::Content::from(const core::KeyedDecoder& c) {
  Content content;
  content.extra = c.decodeIfPresent<ContentExtra>("extra");
  content.title = c.decodeIfPresent<string>("title");
  content.body = c.decodeIfPresent<ContentBody>("body");
  return content;
}

Message Message::from(const core::KeyedDecoder& c) {
  Message m;
  m.batch = c.decodeIfPresent<Batch>("batch");
  m.url = c.decodeIfPresent<URLDetails>("url");
  m.userName = c.decodeIfPresent<string>("user_name");
  m.teamName = c.decodeIfPresent<string>("team_name");
  m.userInitials = c.decodeIfPresent<string>("user_initials");
  m.profile = c.decodeIfPresent<Profile>("profile");
  m.thumbnailURL = c.decodeIfPresent<string>("thumbnail_url");
  m.profilePictureURL = c.decodeIfPresent<string>("profile_picture_url");
  m.teamProfilePictureURL = c.decodeIfPresent<string>("team_profile_picture_url");
  // The server names this key after templates, as the application did before designs;
  // the field's own name is not read.
  m.referencesMultipleDesigns = c.decodeIfPresent<bool>("references_multiple_templates");
  m.profilePictureBackgroundColor = c.decodeIfPresent<string>("profile_picture_background_color");
  m.isTeamNotification = c.decodeIfPresent<bool>("is_team_notification");
  m.content = c.decodeIfPresent<Content>("content");
  return m;
}

Message Message::decode(const boost::json::value& userInfo) {
  return core::decodeValue<Message>(userInfo);
}

Message decode(std::string_view json) {
  return core::decodeJSON<Message>(json);
}

}  // namespace notification_message
