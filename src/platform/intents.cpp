#include "platform/intents.hpp"

#include <boost/url/parse.hpp>
#include <mutex>

namespace platform {
namespace {

std::mutex& donationMutex() {
  static std::mutex mutex;
  return mutex;
}

std::vector<Interaction>& donations() {
  static std::vector<Interaction> list;
  return list;
}

bool isPNG(const std::string& bytes) {
  static constexpr char signature[] = "\x89PNG\r\n\x1a\n";
  return bytes.size() > 8 && bytes.compare(0, 8, signature, 8) == 0;
}

// The system loads a sender's picture itself, later and out of this process, so a URL it
// cannot resolve on its own (a relative one, or a scheme it does not load) is refused now
// rather than showing an empty avatar.
bool isLoadableImageURL(const std::string& text) {
  auto parsed = boost::urls::parse_absolute_uri(text);
  if (!parsed) return false;
  const auto scheme = parsed->scheme();
  return scheme == "http" || scheme == "https" || scheme == "file";
}

std::string_view directionName(InteractionDirection direction) {
  switch (direction) {
    case InteractionDirection::outgoing:
      return "outgoing";
    case InteractionDirection::incoming:
      return "incoming";
    case InteractionDirection::unspecified:
      break;
  }
  return "unspecified";
}

}  // namespace

IntentImage IntentImage::withURL(std::string url) {
  IntentImage image;
  image.url_ = std::move(url);
  return image;
}

IntentImage IntentImage::withImageData(std::string png) {
  IntentImage image;
  image.data_ = std::move(png);
  return image;
}

Interaction::Interaction(std::shared_ptr<const SendMessageIntent> intent,
                         std::optional<SendMessageIntentResponse> response)
    : intent_(std::move(intent)), response_(std::move(response)) {}

void Interaction::donate(std::function<void(std::optional<Error>)> completion) const {
  std::optional<Error> error;
  if (!intent_) {
    error = Error(intent_error::domain, intent_error::missingSender,
                  "An interaction without an intent cannot be donated.");
  } else {
    std::lock_guard lock(donationMutex());
    donations().push_back(*this);
  }
  if (completion) completion(std::move(error));
}

std::vector<Interaction> donatedInteractions() {
  std::lock_guard lock(donationMutex());
  return donations();
}

void clearDonatedInteractions() {
  std::lock_guard lock(donationMutex());
  donations().clear();
}

boost::json::object describe(const Interaction& interaction) {
  boost::json::object out;
  out["direction"] = directionName(interaction.direction);
  out["intent"] = "SendMessageIntent";
  boost::json::value sender = nullptr;
  if (interaction.intent() && interaction.intent()->sender) {
    const auto& person = *interaction.intent()->sender;
    boost::json::object s;
    s["displayName"] = person.displayName ? boost::json::value(*person.displayName) : nullptr;
    boost::json::value image = nullptr;
    if (person.image && person.image->url())
      image = boost::json::object{{"url", *person.image->url()}};
    else if (person.image && person.image->imageData())
      image = boost::json::object{{"pngBytes", person.image->imageData()->size()}};
    s["image"] = std::move(image);
    sender = std::move(s);
  }
  out["sender"] = std::move(sender);
  return out;
}

std::shared_ptr<const NotificationContent> updatingContent(const NotificationContent& content,
                                                           const SendMessageIntent& intent) {
  using namespace intent_error;
  if (!intent.sender)
    throw Error(domain, missingSender,
                "The intent has no sender, so the notification cannot show who sent it.");
  const auto& person = *intent.sender;
  CommunicationSender sender;
  sender.displayName = person.displayName;
  if (person.image && person.image->url()) {
    if (!isLoadableImageURL(*person.image->url()))
      throw Error(domain, invalidImage,
                  "The sender's image URL is not an absolute http, https or file URL: \"" +
                      *person.image->url() + "\".");
    sender.imageURL = person.image->url();
  } else if (person.image && person.image->imageData()) {
    if (!isPNG(*person.image->imageData()))
      throw Error(domain, invalidImage, "The sender's image data is not a PNG image.");
    sender.imagePNG = person.image->imageData();
  }
  auto updated = std::make_shared<NotificationContent>(content);
  updated->communication = std::move(sender);
  return updated;
}

}  // namespace platform
