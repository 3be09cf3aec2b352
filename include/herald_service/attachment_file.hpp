#pragma once
/// Attachment files made from downloaded bytes, and the file-type check that decides which
/// thumbnails are attached.
///
///   auto attachment = herald_service::makeAttachment(bytes, "jpg");
///   content.attachments = {attachment};

#include <boost/json/object.hpp>
#include <string_view>

#include "platform/notification.hpp"

namespace herald_service {

/// Whether a file with this path extension is a JPEG image ("jpg" or "jpeg", in any case,
/// as the phone derives types from extensions). No extension is not JPEG.
bool conformsToJPEG(std::string_view pathExtension);

/// Writes `data` to `<temporary>/<process unique string>/<UUID>.<extension>` and makes a
/// notification attachment of it whose identifier is the UUID. The file appears whole or not
/// at all (written beside it, then renamed), and the directory is kept for the system to read
/// from. Throws `platform::Error` when the directory or the file cannot be written or the
/// system refuses the attachment (type, size, contents); a refused file is removed.
platform::NotificationAttachment makeAttachment(std::string_view data, std::string_view extension,
                                                boost::json::object options = {});

}  // namespace herald_service
