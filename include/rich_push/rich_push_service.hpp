#pragma once
/// The rich-push service: takes the notifications whose payload names a media file under
/// "rp" → "att", downloads the file into the caches directory, attaches it and delivers.
///
///   void didReceive(const platform::NotificationRequest& request,
///                   platform::ContentHandler handler) override {
///     if (rich_push::richPushHandle(request, handler)) return;  // handler runs later
///     ... // not a rich push: the caller keeps the notification
///   }
///
/// Payload: {"rp": {"att": {"url": "https://cdn.test/clip.mp4", "type": "mp4"}}}.

#include <boost/json/object.hpp>
#include <cstddef>
#include <optional>
#include <string>

#include "platform/extension.hpp"
#include "platform/notification.hpp"
#include "rich_push/assets_client.hpp"
#include "rich_push/utils.hpp"

namespace rich_push {

/// The folder under the caches directory where attachments are saved.
inline constexpr const char* kCacheFolderName = "com.example.rich-push.notification-service";
/// The longest "type" taken from a payload; it becomes a file extension.
inline constexpr std::size_t kMaxAttachmentTypeLength = 16;

/// The attachment block of a payload.
struct Attachment {
  enum class Keys { attachmentURL, attachmentType };

  std::string url;   ///< parsed leniently, so it may differ from the payload's text
  std::string type;  ///< the file extension to save under, as the payload gave it

  /// None unless "rp.att.url" is a text that parses as a URL and "rp.att.type" is a text.
  static std::optional<Attachment> from(const boost::json::object& userInfo);
};

/// "rp.att.url" and "rp.att.type".
StringPath rawValue(Attachment::Keys key);

/// Takes the notification when its payload carries an attachment block: returns true and
/// calls `contentHandler` exactly once, later, on the main queue, with the content and the
/// downloaded attachment, or without it when anything failed (the reason is printed as one
/// line on standard output). Returns false, doing nothing, when the payload has no block or
/// the content cannot be copied.
///
/// A "type" that cannot be a plain file extension (empty, longer than 16 characters, or
/// anything but letters and digits) or that names no media the platform attaches is refused
/// without a download; the notification is still taken and delivered without attachment.
bool richPushHandle(const platform::NotificationRequest& request,
                    platform::ContentHandler contentHandler);
/// The same through `client` instead of the shared one (whose completions must run on the
/// main queue).
bool richPushHandle(const platform::NotificationRequest& request,
                    platform::ContentHandler contentHandler, const AssetsClient& client);

/// The process's client: an uncached session and the main queue, made on first use.
const AssetsClient& sharedAssetsClient();

/// A principal class for an extension that does nothing but rich push: other notifications
/// are delivered unchanged. It does nothing at the deadline.
class NotificationService : public platform::NotificationServiceExtension {
 public:
  void didReceive(const platform::NotificationRequest& request,
                  platform::ContentHandler contentHandler) override;
};

}  // namespace rich_push
