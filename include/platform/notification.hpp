#pragma once
/// Notification request, content and attachment, as the phone's notification system hands
/// them to a service extension.
///
///   platform::MutableNotificationContent content;
///   content.title = "Hello";
///   content.userInfo["trackingUrl"] = "http://127.0.0.1:8080/t/1";
///   platform::NotificationRequest request{"id-1", content.copy()};

#include <boost/json/object.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// A media file attached to a notification. `make` validates it as the phone does: the file
/// must exist, its extension must name a supported type and its size must be within the
/// type's limit; anything else throws `platform::Error` (domain "NotificationAttachment").
struct NotificationAttachment {
  std::string identifier;
  std::string url;   ///< file URL of the attached file
  std::string type;  ///< uniform type of the file ("public.jpeg", "public.mpeg-4", …)
  boost::json::object options;

  static NotificationAttachment make(std::string identifier, const std::string& fileURL,
                                     boost::json::object options = {});
};

/// The largest file the phone attaches for a file extension (any case); none for a type it
/// does not attach.
std::optional<std::uintmax_t> attachmentSizeLimit(std::string_view extension);

/// The option key that picks the video frame shown as thumbnail (seconds).
inline constexpr const char* kAttachmentThumbnailTimeKey = "ThumbnailTime";

/// Codes of the "NotificationAttachment" error domain.
namespace attachment_error {
inline constexpr const char* domain = "NotificationAttachment";
inline constexpr long invalidURL = 100;
inline constexpr long unrecognizedFileType = 101;
inline constexpr long invalidFileSize = 102;
inline constexpr long fileNotFound = 103;
inline constexpr long invalidContents = 104;
}  // namespace attachment_error

class MutableNotificationContent;

/// The sender that a communication notification shows beside its texts: a name and a
/// picture, given by reference (a URL that the system loads itself) or as PNG bytes.
struct CommunicationSender {
  std::optional<std::string> displayName;
  std::optional<std::string> imageURL;
  std::optional<std::string> imagePNG;
};

/// What a notification shows. Absent texts and numbers are none.
class NotificationContent {
 public:
  std::optional<std::string> title;
  std::optional<std::string> subtitle;
  std::optional<std::string> body;
  std::optional<std::int64_t> badge;
  std::optional<std::string> sound;
  std::optional<std::string> threadIdentifier;
  std::optional<std::string> categoryIdentifier;
  boost::json::object userInfo;
  std::vector<NotificationAttachment> attachments;
  /// Set when the content has been turned into a communication notification (see
  /// `platform::updatingContent` in intents.hpp); none for an ordinary notification.
  std::optional<CommunicationSender> communication;

  virtual ~NotificationContent() = default;

  /// A mutable copy; none when the content refuses to be copied (see `copyable`).
  std::shared_ptr<MutableNotificationContent> mutableCopy() const;
  /// An immutable copy.
  std::shared_ptr<const NotificationContent> copy() const;

  /// The phone can hand over content that cannot be copied into a mutable one; the host
  /// and tests set this to false to reach that path.
  bool copyable = true;
};

class MutableNotificationContent : public NotificationContent {};

struct NotificationRequest {
  std::string identifier;
  std::shared_ptr<const NotificationContent> content;
};

/// The phone's content handler: called with the content that is to be shown.
using ContentHandler = std::function<void(const NotificationContent&)>;

}  // namespace platform
