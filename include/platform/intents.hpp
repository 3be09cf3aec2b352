#pragma once
/// Messaging intents: who sent a message, with which picture, and the interaction that the
/// system keeps so that it can suggest the sender later. A notification content updated from
/// a send-message intent becomes a communication notification that shows the sender.
///
///   platform::Person sender;
///   sender.displayName = "Ada";
///   sender.image = platform::IntentImage::withURL("https://example.com/ada.jpg");
///   auto intent = std::make_shared<platform::SendMessageIntent>();
///   intent->sender = sender;
///   auto updated = platform::updatingContent(*request.content, *intent);  // throws Error
///   platform::Interaction interaction(intent);
///   interaction.direction = platform::InteractionDirection::incoming;
///   interaction.donate();

#include <boost/json/object.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/error.hpp"
#include "platform/notification.hpp"

namespace platform {

/// Codes of the intents error domain.
namespace intent_error {
inline constexpr const char* domain = "IntentsErrorDomain";
inline constexpr long missingSender = 1901;
inline constexpr long invalidImage = 1902;
}  // namespace intent_error

/// A picture of a person: either a URL that the system loads when it shows it (nothing is
/// downloaded by the caller) or the bytes of a PNG image.
class IntentImage {
 public:
  static IntentImage withURL(std::string url);
  static IntentImage withImageData(std::string png);

  const std::optional<std::string>& url() const { return url_; }
  const std::optional<std::string>& imageData() const { return data_; }

 private:
  std::optional<std::string> url_;
  std::optional<std::string> data_;
};

enum class PersonHandleType { unknown, emailAddress, phoneNumber };

/// How a person can be reached; the value may be absent.
struct PersonHandle {
  std::optional<std::string> value;
  PersonHandleType type = PersonHandleType::unknown;
};

struct PersonNameComponents {
  std::optional<std::string> givenName;
  std::optional<std::string> familyName;
  std::optional<std::string> nickname;
};

struct Person {
  PersonHandle personHandle;
  std::optional<PersonNameComponents> nameComponents;
  std::optional<std::string> displayName;
  std::optional<IntentImage> image;
  std::optional<std::string> contactIdentifier;
  std::optional<std::string> customIdentifier;
};

enum class OutgoingMessageType { unknown, outgoingMessageText, outgoingMessageAudio };

/// A message sent by `sender`; every other field may stay absent.
struct SendMessageIntent {
  std::optional<std::vector<Person>> recipients;
  OutgoingMessageType outgoingMessageType = OutgoingMessageType::outgoingMessageText;
  std::optional<std::string> content;
  std::optional<std::string> speakableGroupName;
  std::optional<std::string> conversationIdentifier;
  std::optional<std::string> serviceName;
  std::optional<Person> sender;
  std::optional<std::vector<std::string>> attachments;  ///< file URLs
};

/// The outcome an app reports for an intent it handled; absent for an incoming message.
struct SendMessageIntentResponse {
  enum class Code { unspecified, ready, inProgress, success, failure };
  Code code = Code::unspecified;
};

enum class InteractionDirection { unspecified, outgoing, incoming };

/// One use of an intent, which the system remembers once donated.
class Interaction {
 public:
  explicit Interaction(std::shared_ptr<const SendMessageIntent> intent,
                       std::optional<SendMessageIntentResponse> response = std::nullopt);

  const std::shared_ptr<const SendMessageIntent>& intent() const { return intent_; }
  const std::optional<SendMessageIntentResponse>& intentResponse() const { return response_; }
  InteractionDirection direction = InteractionDirection::unspecified;

  /// Hands the interaction to the system: it is kept in the process-wide list of
  /// `donatedInteractions()`. A completion, if given, is called once on the calling thread
  /// with no error; an interaction without an intent is refused with an error.
  void donate(std::function<void(std::optional<Error>)> completion = {}) const;

 private:
  std::shared_ptr<const SendMessageIntent> intent_;
  std::optional<SendMessageIntentResponse> response_;
};

/// Every interaction donated by this process so far, oldest first.
std::vector<Interaction> donatedInteractions();
/// Forgets every donation (for hosts that serve several notifications and for tests).
void clearDonatedInteractions();

/// A person-readable record of an interaction: direction, intent type and sender, with the
/// sender's image as {"url": …} or {"pngBytes": size}.
boost::json::object describe(const Interaction& interaction);

/// A new content that is `content` turned into a communication notification from `intent`:
/// every field is kept and `communication` holds the intent's sender. Throws `Error` in
/// `intent_error::domain` when the intent has no sender, when the sender's image URL is not
/// an absolute URL the system could load, or when its image bytes are not a PNG image.
///
///   auto updated = platform::updatingContent(*request.content, intent);
///   auto copy = updated->mutableCopy();
std::shared_ptr<const NotificationContent> updatingContent(const NotificationContent& content,
                                                           const SendMessageIntent& intent);

}  // namespace platform
