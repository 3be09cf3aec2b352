#include "payload.hpp"

#include <cmath>
#include <optional>

#include "platform/json.hpp"

namespace host {
namespace {

std::optional<std::string> optionalText(const boost::json::object& object, std::string_view key,
                                        std::string_view where) {
  const auto* value = object.if_contains(key);
  if (!value) return std::nullopt;
  if (const auto* text = value->if_string()) return std::string(*text);
  throw PayloadError("\"" + std::string(where) + "\" must be a string, not " +
                     platform::describeJSONKind(*value));
}

std::optional<std::int64_t> optionalInteger(const boost::json::object& object, std::string_view key,
                                            std::string_view where) {
  const auto* value = object.if_contains(key);
  if (!value) return std::nullopt;
  if (const auto* i = value->if_int64()) return *i;
  if (const auto* u = value->if_uint64(); u && *u <= INT64_MAX)
    return static_cast<std::int64_t>(*u);
  // 3.0 is how some senders write a badge; 3.5 is not a badge.
  if (const auto* d = value->if_double();
      d && std::isfinite(*d) && *d == std::floor(*d) && std::fabs(*d) < 9e15)
    return static_cast<std::int64_t>(*d);
  throw PayloadError("\"" + std::string(where) + "\" must be an integer, not " +
                     platform::describeJSONKind(*value));
}

void readAlert(const boost::json::value& alert, platform::NotificationContent& content) {
  if (const auto* text = alert.if_string()) {
    content.body = std::string(*text);
    return;
  }
  const auto* object = alert.if_object();
  if (!object)
    throw PayloadError("\"aps.alert\" must be an object or a string, not " +
                       platform::describeJSONKind(alert));
  content.title = optionalText(*object, "title", "aps.alert.title");
  content.subtitle = optionalText(*object, "subtitle", "aps.alert.subtitle");
  content.body = optionalText(*object, "body", "aps.alert.body");
}

std::optional<std::string> readSound(const boost::json::object& aps) {
  const auto* sound = aps.if_contains("sound");
  if (!sound) return std::nullopt;
  if (const auto* text = sound->if_string()) return std::string(*text);
  // A critical alert names its sound inside an object.
  if (const auto* object = sound->if_object())
    return optionalText(*object, "name", "aps.sound.name");
  throw PayloadError("\"aps.sound\" must be a string or an object, not " +
                     platform::describeJSONKind(*sound));
}

}  // namespace

Payload payloadFromJSON(const boost::json::value& json, std::string identifier, bool copyable) {
  const auto* root = json.if_object();
  if (!root)
    throw PayloadError("the payload must be a JSON object, not " +
                       platform::describeJSONKind(json));

  auto content = std::make_shared<platform::NotificationContent>();
  content->userInfo = *root;
  content->copyable = copyable;
  Payload payload;

  if (const auto* apsValue = root->if_contains("aps")) {
    const auto* aps = apsValue->if_object();
    if (!aps)
      throw PayloadError("\"aps\" must be an object, not " + platform::describeJSONKind(*apsValue));
    if (const auto* alert = aps->if_contains("alert")) readAlert(*alert, *content);
    content->badge = optionalInteger(*aps, "badge", "aps.badge");
    content->sound = readSound(*aps);
    content->threadIdentifier = optionalText(*aps, "thread-id", "aps.thread-id");
    content->categoryIdentifier = optionalText(*aps, "category", "aps.category");
    payload.mutableContent = optionalInteger(*aps, "mutable-content", "aps.mutable-content") == 1;
  }

  payload.request = platform::NotificationRequest{std::move(identifier), std::move(content)};
  return payload;
}

}  // namespace host
