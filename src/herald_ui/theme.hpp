#pragma once
// Colours: the brand's primary colour as the accent, brought down to what the terminal can
// show (direct colour, the 256-colour palette, or the eight basic colours), or no colour at
// all when NO_COLOR is set or the terminal has none.

#include <cstdint>
#include <optional>
#include <string_view>

namespace herald_ui {

struct Rgb {
  int r = 0, g = 0, b = 0;
  bool operator==(const Rgb&) const = default;
};

/// "#RGB" or "#RRGGBB" (any case, the "#" optional), as the service writes colours; none for
/// anything else.
std::optional<Rgb> parseColour(std::string_view text);

/// The nearest entry of the xterm 256-colour palette's cube and grey ramp (16…255), which
/// look the same on every terminal (0…15 are themed by the user).
int nearest256(Rgb colour);
/// The nearest of the eight basic colours (0 black … 7 white), by hue rather than distance
/// so that a brand's violet stays magenta and not grey; never black, which is the usual
/// background.
int nearest8(Rgb colour);
/// Whether black or white text reads better on `colour`.
bool isLight(Rgb colour);

enum class ColourDepth { none, basic, palette256, direct };

/// What the terminal can show: `noColor` (NO_COLOR set, any value but empty) wins; then
/// the number of colours terminfo gives.
ColourDepth colourDepth(bool noColor, bool hasColours, int colours);

/// The accent when the brand gives none.
inline constexpr Rgb kDefaultAccent{0x3B, 0x82, 0xF6};

/// Attributes (ncurses `attr_t` with the colour pair in it) for each role on screen.
struct Theme {
  std::uint64_t accent = 0;        ///< headings, the active tab's text, unread marks
  std::uint64_t accentBar = 0;     ///< the active tab and the footer: accent background
  std::uint64_t selected = 0;      ///< the row under the cursor
  std::uint64_t dim = 0;           ///< times, subtitles, hints
  std::uint64_t error = 0;         ///< the status line's trouble
  std::uint64_t button = 0;        ///< a message's action buttons
  std::uint64_t bold = 0;          ///< an unread title

  /// Makes the colour pairs (after ncurses has started) for `accent` at `depth`.
  static Theme make(ColourDepth depth, Rgb accent);
};

}  // namespace herald_ui
