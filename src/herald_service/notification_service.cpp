#include "herald_service/notification_service.hpp"

#include <string>
#include <string_view>

#include "core/constants.hpp"
#include "core/kelvara_error.hpp"
#include "herald/tracking.hpp"
#include "herald_service/attachment_file.hpp"
#include "herald_service/avatar.hpp"
#include "logwell/logwell.hpp"
#include "notification_message/notification_message.hpp"
#include "platform/assets.hpp"
#include "platform/error.hpp"
#include "platform/executor.hpp"
#include "platform/notification.hpp"
#include "platform/paths.hpp"
#include "platform/url_loading.hpp"
#include "rich_push/rich_push_service.hpp"

namespace herald_service {
namespace {

using notification_message::NotificationMessage;

// Log lines keep the source location they have always had, so that a line in a report can be
// matched across versions of the extension.
constexpr const char* kLogFile = "HeraldService/NotificationService";
constexpr const char* kDidReceive = "didReceive(_:withContentHandler:)";
constexpr const char* kAddAttachments = "addAttachments(content:message:)";
constexpr const char* kAddProfilePicture = "addProfilePicture(request:message:)";

// Failures are logged at debug on purpose: they are expected in the field (old payloads,
// unreachable pictures) and must not raise alarms in the application's logs.
// The context carries the detail a person needs to mend the payload (a decoding error's key
// path); destinations that print "$X" show it, the message itself stays as it is.
void logDebug(std::string message, const char* function, int line, logwell::Context context = {}) {
  logwell::Logwell::custom(logwell::Level::debug, message, kLogFile, function, line,
                           std::move(context));
}

std::optional<platform::IntentImage> senderImage(const NotificationMessage& message) {
  const auto& address = message.isTeamNotification.value_or(false) ? message.teamProfilePictureURL
                                                                   : message.profilePictureURL;
  // The system loads a picture by URL itself, so nothing is downloaded here.
  if (address && platform::isValidURL(*address)) return platform::IntentImage::withURL(*address);

  if (message.profilePictureBackgroundColor && message.userInitials) {
    const auto background = colorFromHex(*message.profilePictureBackgroundColor, 1.0);
    if (auto png = drawInitialsImage(*message.userInitials, background).pngData())
      return platform::IntentImage::withImageData(std::move(*png));
  }

  const auto icon = platform::namedImage(K::Images::personIcon).value_or(platform::Image());
  const auto background =
      platform::namedColor(K::Colors::secondaryMoonGrape, K::Colors::secondaryMoonGrapeFallback);
  if (auto png = drawIconImage(icon, background).pngData())
    return platform::IntentImage::withImageData(std::move(*png));
  return std::nullopt;
}

std::shared_ptr<platform::SendMessageIntent> makeMessageIntent(const NotificationMessage& message) {
  platform::Person sender;
  sender.personHandle = platform::PersonHandle{std::nullopt, platform::PersonHandleType::unknown};
  sender.displayName = message.userName;
  sender.image = senderImage(message);

  auto intent = std::make_shared<platform::SendMessageIntent>();
  intent->outgoingMessageType = platform::OutgoingMessageType::outgoingMessageText;
  intent->sender = std::move(sender);
  return intent;
}

}  // namespace

void NotificationService::didReceive(const platform::NotificationRequest& request,
                                     platform::ContentHandler contentHandler) {
  const auto requestContent =
      request.content ? request.content : std::make_shared<const platform::NotificationContent>();
  if (rich_push::richPushHandle(platform::NotificationRequest{request.identifier, requestContent},
                                contentHandler))
    return;

  auto handler = std::make_shared<const platform::ContentHandler>(std::move(contentHandler));
  auto copy = requestContent->mutableCopy();
  {
    std::lock_guard lock(mutex_);
    contentHandler_ = handler;
    bestAttemptContent_ = copy;
  }
  if (!copy) {
    logDebug("[Herald] Failed to create a mutable copy of the notification content.", kDidReceive,
             71);
    (*handler)(*requestContent);
    return;
  }

  // Not awaited: the notification is not held back for the report.
  platform::spawnDetached([userInfo = copy->userInfo] {
    return herald::trackMessage(userInfo, herald::HeraldTrackingEvent::delivered);
  });

  std::optional<NotificationMessage> message;
  try {
    message = NotificationMessage::decode(boost::json::value(copy->userInfo));
  } catch (const std::exception& e) {
    logDebug(
        "[Herald] The notification payload does not match the expected NotificationMessage "
        "format.",
        kDidReceive, 84, std::string(e.what()));
    const auto best = currentContent();
    deliver(*handler,
            best ? static_cast<const platform::NotificationContent&>(*best) : *requestContent);
    return;
  }

  const auto intent = addProfilePicture(request, *message);

  auto content = currentContent();
  if (!content) content = copy;
  addAttachments(*content, *message);

  if (intent) {
    platform::Interaction interaction(intent, std::nullopt);
    interaction.direction = platform::InteractionDirection::incoming;
    interaction.donate();
  }

  const auto best = currentContent();
  deliver(*handler,
          best ? static_cast<const platform::NotificationContent&>(*best) : *requestContent);
}

void NotificationService::serviceExtensionTimeWillExpire() {
  std::shared_ptr<const platform::ContentHandler> handler;
  std::shared_ptr<platform::MutableNotificationContent> content;
  {
    std::lock_guard lock(mutex_);
    handler = contentHandler_;
    content = bestAttemptContent_;
  }
  if (handler && content) deliver(*handler, *content);
}

std::shared_ptr<const platform::SendMessageIntent> NotificationService::addProfilePicture(
    const platform::NotificationRequest& request, const NotificationMessage& message) {
  auto intent = makeMessageIntent(message);
  if (!intent) return nullptr;

  // The update starts from the request's own content, not from the copy being enriched.
  std::shared_ptr<const platform::NotificationContent> updated;
  try {
    updated = platform::updatingContent(
        request.content ? *request.content : platform::NotificationContent(), *intent);
  } catch (const platform::Error& e) {
    logDebug("[Herald] Not able to modify the request with the intent: " + e.localizedDescription(),
             kAddProfilePicture, 177);
    return nullptr;
  } catch (const std::exception& e) {
    logDebug(std::string("[Herald] Not able to modify the request with the intent: ") + e.what(),
             kAddProfilePicture, 177);
    return nullptr;
  }

  auto copy = updated->mutableCopy();
  std::lock_guard lock(mutex_);
  bestAttemptContent_ = std::move(copy);
  return intent;
}

void NotificationService::addAttachments(platform::MutableNotificationContent& content,
                                         const NotificationMessage& message) {
  if (!message.thumbnailURL || !platform::isValidURL(*message.thumbnailURL)) return;
  const auto& url = *message.thumbnailURL;
  try {
    const auto extension = platform::pathExtension(url);
    if (!conformsToJPEG(extension))
      throw core::KelvaraError(core::KelvaraError::Domain::herald,
                               core::KelvaraError::Code::unsupportedFileExtension);
    // Blocks this thread: the platform gives the extension its own thread for exactly this.
    // A body past what the platform attaches is stopped as soon as it passes, and an error
    // page never becomes a file.
    auto request = platform::URLRequest::make(url);
    request.maxResponseBytes = platform::attachmentSizeLimit(extension);
    const auto loaded = platform::URLSession::shared().dataSync(std::move(request));
    if (const auto status = loaded.response.statusCode; status && (*status < 200 || *status > 299))
      throw platform::Error(platform::url_error::domain, platform::url_error::badServerResponse,
                            "The thumbnail's server answered " + std::to_string(*status) + ".");
    auto attachment = makeAttachment(loaded.data, extension);
    std::lock_guard lock(mutex_);
    content.attachments = {std::move(attachment)};
  } catch (const core::KelvaraError& e) {
    logDebug("[Herald] Not able to add attachments: " + std::string(core::debugCode(e.code())),
             kAddAttachments, 160);
  } catch (...) {
    logDebug("[Herald] An unexpected error occurred while adding attachments.", kAddAttachments,
             163);
  }
}

std::shared_ptr<platform::MutableNotificationContent> NotificationService::currentContent() const {
  std::lock_guard lock(mutex_);
  return bestAttemptContent_;
}

void NotificationService::deliver(const platform::ContentHandler& handler,
                                  const platform::NotificationContent& content) const {
  std::unique_lock lock(mutex_);
  const platform::NotificationContent snapshot = content;
  lock.unlock();
  handler(snapshot);
}

}  // namespace herald_service
