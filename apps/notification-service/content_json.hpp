#pragma once
// The JSON form in which the host shows a delivered content.

#include <boost/json/object.hpp>

#include "platform/notification.hpp"

namespace host {

/// Every field the phone would show, absent ones as null:
/// {"title","subtitle","body","badge","sound","threadIdentifier","categoryIdentifier",
///  "userInfo","attachments":[{"identifier","url","type","options"}],"communication"}.
///
///   std::cout << platform::toJSON(host::contentJSON(content)) << '\n';
boost::json::object contentJSON(const platform::NotificationContent& content);

}  // namespace host
