#pragma once
/// The application's own part of a remote notification's payload: who caused it, which
/// pictures go with it, and the texts the application shows. It is only ever decoded.
///
///   auto message = notification_message::decode(R"({"user_name": "Ada", "aps": {}})");
///   if (message.thumbnailURL) download(*message.thumbnailURL);
///
/// Decoding is strict (see core/decoding.hpp): a present value of the wrong type fails the
/// whole decode with a `core::DecodingError` naming the key path; null and absence both give
/// an absent field; keys the model does not name (such as "aps") are ignored.

#include <boost/json/value.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "core/decoding.hpp"

namespace notification_message {

struct NotificationMessage {
  /// A notification that stands for several events at once.
  struct Batch {
    std::int64_t count = 0;  ///< "count", required

    static Batch from(const core::KeyedDecoder& container);
  };

  /// Links for the application: one for several items, one for a single item.
  struct URLDetails {
    std::optional<std::string> multiple;  ///< "multiple"
    std::optional<std::string> singular;  ///< "singular"

    static URLDetails from(const core::KeyedDecoder& container);
  };

  /// The sender's user record.
  struct Profile {
    std::string userID;  ///< "user_id", required

    static Profile from(const core::KeyedDecoder& container);
  };

  /// Texts of the notification, for the application.
  struct Content {
    struct ContentExtra {
      std::optional<std::string> bodyFormattedCustom;  ///< "body_formatted_custom"

      static ContentExtra from(const core::KeyedDecoder& container);
    };
    /// Body text for the plural and the singular case.
    struct ContentBody {
      std::optional<std::string> multiple;  ///< "multiple"
      std::optional<std::string> singular;  ///< "singular"

      static ContentBody from(const core::KeyedDecoder& container);
    };

    std::optional<ContentExtra> extra;  ///< "extra"
    std::optional<std::string> title;   ///< "title"
    std::optional<ContentBody> body;    ///< "body"

    static Content from(const core::KeyedDecoder& container);
  };

  std::optional<Batch> batch;                                ///< "batch"
  std::optional<URLDetails> url;                             ///< "url"
  std::optional<std::string> userName;                       ///< "user_name"
  std::optional<std::string> teamName;                       ///< "team_name"
  std::optional<std::string> userInitials;                   ///< "user_initials"
  std::optional<Profile> profile;                            ///< "profile"
  std::optional<std::string> thumbnailURL;                   ///< "thumbnail_url"
  std::optional<std::string> profilePictureURL;              ///< "profile_picture_url"
  std::optional<std::string> teamProfilePictureURL;          ///< "team_profile_picture_url"
  std::optional<bool> referencesMultipleDesigns;             ///< "references_multiple_templates"
  std::optional<std::string> profilePictureBackgroundColor;  ///< "profile_picture_background_color"
  std::optional<bool> isTeamNotification;                    ///< "is_team_notification"
  std::optional<Content> content;                            ///< "content"

  static NotificationMessage from(const core::KeyedDecoder& container);

  /// Decodes a notification's whole user-info dictionary; throws `core::DecodingError`.
  ///
  ///   auto message = NotificationMessage::decode(request.content.userInfo);
  static NotificationMessage decode(const boost::json::value& userInfo);
};

/// Parses `json` and decodes it; text that is not JSON and payloads that do not match both
/// throw `core::DecodingError` (the former with the parser's line and column).
///
///   try {
///     auto message = notification_message::decode(payloadText);
///   } catch (const core::DecodingError& e) {
///     log(e.what());  // "\"profile.user_id\": required key is missing"
///   }
NotificationMessage decode(std::string_view json);

}  // namespace notification_message
