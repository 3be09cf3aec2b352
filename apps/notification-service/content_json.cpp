#include "content_json.hpp"

#include <boost/json/array.hpp>

namespace host {
namespace {

template <class T>
boost::json::value orNull(const std::optional<T>& value) {
  if (!value) return nullptr;
  return boost::json::value(*value);
}

}  // namespace

boost::json::object contentJSON(const platform::NotificationContent& content) {
  boost::json::array attachments;
  for (const auto& a : content.attachments)
    attachments.push_back(boost::json::object{
        {"identifier", a.identifier}, {"url", a.url}, {"type", a.type}, {"options", a.options}});

  boost::json::object json;
  json["title"] = orNull(content.title);
  json["subtitle"] = orNull(content.subtitle);
  json["body"] = orNull(content.body);
  json["badge"] = orNull(content.badge);
  json["sound"] = orNull(content.sound);
  json["threadIdentifier"] = orNull(content.threadIdentifier);
  json["categoryIdentifier"] = orNull(content.categoryIdentifier);
  json["userInfo"] = content.userInfo;
  json["attachments"] = std::move(attachments);
  // A plain content has no sender; a communication notification fills this in.
  json["communication"] = nullptr;
  return json;
}

}  // namespace host
