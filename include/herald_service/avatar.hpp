#pragma once
/// The sender's generated pictures: the initials on a colour from the payload, or the
/// person icon on the application's own colour when the payload names none. The platform
/// shapes the avatar (a circle), so these are plain squares.
///
///   auto background = herald_service::colorFromHex("#3A7BD5", 1.0);
///   auto png = herald_service::drawInitialsImage("AB", background).pngData();

#include <string_view>

#include "platform/canvas.hpp"

namespace herald_service {

/// Side of a generated avatar, in points.
inline constexpr double kAvatarSide = 80;
/// Size of the system font that the initials are drawn in.
inline constexpr double kInitialsFontSize = 40;
/// Side of the square that the fallback icon is drawn into.
inline constexpr double kIconSide = 32;

/// The colour of a hexadecimal colour text such as "#3A7BD5" or "#FFF".
///
/// Characters that are neither letters nor digits are trimmed from both ends; a hexadecimal
/// number is read from the start of what remains (reading stops at the first other
/// character; none at all reads as 0). Six characters give 8 bits per component, three give
/// 4 bits each (times 17). Any other length gives red 1/255, green 1/255, blue 0: an almost
/// black colour that is kept on purpose so that a bad payload is visible and never
/// mistaken for a real colour.
platform::Color colorFromHex(std::string_view text, double alpha);

/// `initials` in white in the system font of size 40, centred by their measured size on an
/// 80 x 80 square filled with `background`.
platform::Image drawInitialsImage(std::string_view initials, platform::Color background);

/// `icon` tinted white (`alwaysOriginal`), drawn into the centred 32 x 32 square of an
/// 80 x 80 square filled with `background`. An empty icon leaves the plain background.
platform::Image drawIconImage(const platform::Image& icon, platform::Color background);

}  // namespace herald_service
