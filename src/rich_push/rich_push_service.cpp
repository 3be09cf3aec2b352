#include "rich_push/rich_push_service.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <iostream>
#include <string_view>

#include "platform/main_queue.hpp"
#include "platform/paths.hpp"

namespace rich_push {
namespace {

constexpr std::array<std::string_view, 5> kVideoTypes{"mpg", "mpeg", "mpeg2", "mp4", "avi"};

// One line on standard output, whatever the message holds.
void report(std::string line) {
  std::replace_if(
      line.begin(), line.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
  std::cout << "RichPush: " << line << std::endl;
}

// Why `type` cannot be used as the saved file's extension; none when it can. The type comes
// from the payload, and a separator or ".." in it would put the file outside our folder.
std::optional<std::string> unsafeTypeReason(const std::string& type) {
  if (type.empty()) return "the attachment type is empty";
  if (type.size() > kMaxAttachmentTypeLength)
    return "the attachment type is longer than " + std::to_string(kMaxAttachmentTypeLength) +
           " characters";
  const bool plain = std::all_of(type.begin(), type.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) && static_cast<unsigned char>(c) < 0x80;
  });
  if (!plain) return "the attachment type \"" + type + "\" is not a plain file extension";
  return std::nullopt;
}

}  // namespace

StringPath rawValue(Attachment::Keys key) {
  return StringPath(key == Attachment::Keys::attachmentURL ? "rp.att.url" : "rp.att.type");
}

std::optional<Attachment> Attachment::from(const boost::json::object& userInfo) {
  const auto* url = dig(userInfo, rawValue(Keys::attachmentURL));
  if (!url || !url->is_string()) return std::nullopt;
  auto parsed = parseURL(url->get_string());
  if (!parsed) return std::nullopt;
  const auto* type = dig(userInfo, rawValue(Keys::attachmentType));
  if (!type || !type->is_string()) return std::nullopt;
  return Attachment{std::move(*parsed), std::string(type->get_string())};
}

const AssetsClient& sharedAssetsClient() {
  // Never destroyed: a download may still finish while the process exits.
  static const AssetsClient* client =
      new AssetsClient(AssetsClient::live(url_session::uncached(), mainQueue()));
  return *client;
}

bool richPushHandle(const platform::NotificationRequest& request,
                    platform::ContentHandler contentHandler) {
  if (!request.content || !Attachment::from(request.content->userInfo)) return false;
  return richPushHandle(request, std::move(contentHandler), sharedAssetsClient());
}

bool richPushHandle(const platform::NotificationRequest& request,
                    platform::ContentHandler contentHandler, const AssetsClient& client) {
  if (!request.content) return false;
  auto attachment = Attachment::from(request.content->userInfo);
  if (!attachment) return false;
  std::shared_ptr<platform::MutableNotificationContent> content = request.content->mutableCopy();
  if (!content) return false;

  // The payload was meant for us, so even a refused one is ours to deliver (later, as promised).
  auto deliverWithoutAttachment = [&](const std::string& reason) {
    report("not attaching " + attachment->url + ": " + reason);
    platform::MainQueue::shared().post([content, contentHandler] { contentHandler(*content); });
    return true;
  };
  if (auto reason = unsafeTypeReason(attachment->type)) return deliverWithoutAttachment(*reason);
  // The platform would refuse the file anyway; downloading it would only spend the user's data.
  const auto sizeLimit = platform::attachmentSizeLimit(attachment->type);
  if (!sizeLimit)
    return deliverWithoutAttachment("\"" + attachment->type +
                                    "\" is not a media type a notification can attach");
  const auto caches = platform::cachesDirectory();
  if (!caches) return deliverWithoutAttachment("there is no caches directory");

  const auto digest = sha256Hex(attachment->url);
  const auto destination = *caches / kCacheFolderName / (digest + "." + attachment->type);
  const bool isVideo =
      std::find(kVideoTypes.begin(), kVideoTypes.end(), attachment->type) != kVideoTypes.end();

  client.file(
      attachment->url, platform::fileURL(destination), AssetsClient::Priority::userInitiated,
      AssetsClient::FetchPolicy::standard,
      [content, contentHandler, digest, isVideo,
       url = attachment->url](const Result<std::string>& saved) {
        if (!saved.ok()) {
          report("cannot download " + url + ": " + saved.errorDescription());
          contentHandler(*content);
          return;
        }
        boost::json::object options;
        if (isVideo) options[platform::kAttachmentThumbnailTimeKey] = 0;
        try {
          content->attachments = {
              platform::NotificationAttachment::make(digest, saved.value(), std::move(options))};
        } catch (const std::exception& e) {
          report("cannot attach " + url + ": " + e.what());
        }
        contentHandler(*content);
      },
      *sizeLimit);
  return true;
}

void NotificationService::didReceive(const platform::NotificationRequest& request,
                                     platform::ContentHandler contentHandler) {
  if (richPushHandle(request, contentHandler)) return;
  if (request.content)
    contentHandler(*request.content);
  else
    contentHandler(platform::NotificationContent{});
}

}  // namespace rich_push
