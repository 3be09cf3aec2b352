#pragma once
// A picture of a delivered notification as the phone's lock screen would show it: a rounded
// card with the app's name, the sender's avatar (or the app icon), the texts and the
// thumbnail of the first image attachment.

#include <filesystem>
#include <string_view>

#include "platform/notification.hpp"

namespace host {

/// Draws `content` and writes it as a PNG to `file`. A sender picture given by URL is loaded
/// (with the User-Agent "notification-service-preview"), as the phone does when it shows the
/// notification; one that cannot be loaded is drawn as a grey circle. Throws
/// `std::runtime_error` naming the file when it cannot be written.
///
///   host::drawPreview(content, "KELVARA", "notification.png");
void drawPreview(const platform::NotificationContent& content, std::string_view appName,
                 const std::filesystem::path& file);

}  // namespace host
