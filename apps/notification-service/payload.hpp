#pragma once
// Turns an APNs-style push payload into the request the phone hands to a service extension.

#include <boost/json/value.hpp>
#include <stdexcept>
#include <string>

#include "platform/notification.hpp"

namespace host {

/// A payload that the phone would never deliver; the message names the offending key.
class PayloadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Payload {
  platform::NotificationRequest request;
  /// Whether "aps" → "mutable-content" is 1, without which the phone skips the extension.
  bool mutableContent = false;
};

/// Reads "aps" (alert as an object or a plain body text, badge, sound, thread-id, category,
/// mutable-content) into the content; every top-level key, "aps" included, goes into the
/// user info. Throws PayloadError for a payload that is not an object or a malformed "aps".
///
///   auto payload = host::payloadFromJSON(platform::parseJSON(text), platform::newUUID());
Payload payloadFromJSON(const boost::json::value& json, std::string identifier,
                        bool copyable = true);

}  // namespace host
