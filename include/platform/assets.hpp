#pragma once
/// The extension's asset catalogue: named colours and images kept in an `assets/` folder
/// (colors/NAME.json, images/NAME.png).
///
///   auto color = platform::namedColor("secondaryMoonGrape");   // std::optional<Color>
///   auto icon = platform::namedImage("icon-person-person");    // std::optional<Image>
///
/// The folder is `$HERALD_ASSETS_DIR` when set; otherwise an installed program's
/// `../share/herald/assets`; otherwise the first `assets/` folder found beside or above the
/// running program (`../../assets` from build/bin); otherwise the source tree's folder that
/// the build compiled in.

#include <filesystem>
#include <optional>
#include <string_view>

#include "platform/canvas.hpp"

namespace platform {

/// The catalogue folder in use (it may not exist).
std::filesystem::path assetsDirectory();

/// The colour `colors/NAME.json`, a file like
///   {"colorSpace": "srgb", "components": {"red": 0.45, "green": 0.38, "blue": 0.58, "alpha": 1}}
/// None when there is no such file. A file that is there but malformed (bad JSON, a missing
/// component, a value outside 0…1, a colour space other than "srgb") throws `platform::Error`
/// in the "Assets" domain naming the file and what is wrong.
std::optional<Color> namedColor(std::string_view name);

/// The same colour where drawing must go on whatever the catalogue holds: `fallback` when the
/// file is missing or malformed.
Color namedColor(std::string_view name, Color fallback);

/// The image `images/NAME.png`; none when there is no such file or it is not a PNG image.
std::optional<Image> namedImage(std::string_view name);

}  // namespace platform
