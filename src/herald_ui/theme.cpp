#include "herald_ui/theme.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>

#include "herald_ui/curses.hpp"

namespace herald_ui {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

int distance(Rgb a, Rgb b) {
  return (a.r - b.r) * (a.r - b.r) + (a.g - b.g) * (a.g - b.g) + (a.b - b.b) * (a.b - b.b);
}

constexpr std::array<int, 6> kCubeLevels{0, 95, 135, 175, 215, 255};

int nearestLevel(int value) {
  int best = 0;
  for (int i = 1; i < 6; ++i)
    if (std::abs(kCubeLevels[i] - value) < std::abs(kCubeLevels[best] - value)) best = i;
  return best;
}

enum Pair : short { kAccentPair = 1, kBarPair, kErrorPair };

}  // namespace

std::optional<Rgb> parseColour(std::string_view text) {
  if (text.starts_with('#')) text.remove_prefix(1);
  if (text.size() != 3 && text.size() != 6) return std::nullopt;
  std::array<int, 6> digits{};
  for (std::size_t i = 0; i < text.size(); ++i) {
    digits[i] = hexDigit(text[i]);
    if (digits[i] < 0) return std::nullopt;
  }
  if (text.size() == 3)
    return Rgb{digits[0] * 17, digits[1] * 17, digits[2] * 17};
  return Rgb{digits[0] * 16 + digits[1], digits[2] * 16 + digits[3], digits[4] * 16 + digits[5]};
}

int nearest256(Rgb colour) {
  const int r = nearestLevel(colour.r), g = nearestLevel(colour.g), b = nearestLevel(colour.b);
  const Rgb cube{kCubeLevels[r], kCubeLevels[g], kCubeLevels[b]};
  // The grey ramp: 232…255 are 8, 18, … 238.
  const int average = (colour.r + colour.g + colour.b) / 3;
  const int step = std::clamp((average - 8 + 5) / 10, 0, 23);
  const int level = 8 + 10 * step;
  const Rgb grey{level, level, level};
  if (distance(colour, grey) < distance(colour, cube)) return 232 + step;
  return 16 + 36 * r + 6 * g + b;
}

int nearest8(Rgb colour) {
  const double r = colour.r / 255.0, g = colour.g / 255.0, b = colour.b / 255.0;
  const double high = std::max({r, g, b}), low = std::min({r, g, b});
  const double chroma = high - low;
  if (high == 0 || chroma / high < 0.25) return COLOR_WHITE;
  double hue;
  if (high == r)
    hue = 60 * std::fmod((g - b) / chroma + 6, 6.0);
  else if (high == g)
    hue = 60 * ((b - r) / chroma + 2);
  else
    hue = 60 * ((r - g) / chroma + 4);
  if (hue < 30 || hue >= 330) return COLOR_RED;
  if (hue < 90) return COLOR_YELLOW;
  if (hue < 150) return COLOR_GREEN;
  if (hue < 210) return COLOR_CYAN;
  if (hue < 270) return COLOR_BLUE;
  return COLOR_MAGENTA;
}

bool isLight(Rgb colour) {
  // Perceived brightness (ITU-R BT.601 weights).
  return colour.r * 299 + colour.g * 587 + colour.b * 114 > 150'000;
}

ColourDepth colourDepth(bool noColor, bool hasColours, int colours) {
  if (noColor || !hasColours || colours < 8) return ColourDepth::none;
  if (colours >= 0x1000000) return ColourDepth::direct;
  if (colours >= 256) return ColourDepth::palette256;
  return ColourDepth::basic;
}

Theme Theme::make(ColourDepth depth, Rgb accent) {
  Theme theme;
  theme.bold = A_BOLD;
  theme.dim = A_DIM;
  if (depth == ColourDepth::none) {
    theme.accent = A_BOLD;
    theme.accentBar = A_REVERSE;
    theme.selected = A_REVERSE;
    theme.error = A_BOLD;
    theme.button = A_BOLD;
    return theme;
  }
  // The terminal's own background stays (-1), so the screens look at home in any scheme.
  use_default_colors();
  int colour = 0, black = COLOR_BLACK, white = COLOR_WHITE;
  switch (depth) {
    case ColourDepth::direct:
      colour = accent.r << 16 | accent.g << 8 | accent.b;
      white = 0xFFFFFF;
      break;
    case ColourDepth::palette256:
      colour = nearest256(accent);
      black = 16;
      white = 231;
      break;
    default:
      colour = nearest8(accent);
      break;
  }
  // On the eight basic colours only white on yellow, cyan or white reads badly.
  const bool light = depth == ColourDepth::basic
                         ? colour == COLOR_YELLOW || colour == COLOR_CYAN || colour == COLOR_WHITE
                         : isLight(accent);
  init_extended_pair(kAccentPair, colour, -1);
  init_extended_pair(kBarPair, light ? black : white, colour);
  init_extended_pair(kErrorPair, COLOR_RED, -1);
  theme.accent = COLOR_PAIR(kAccentPair) | A_BOLD;
  theme.accentBar = COLOR_PAIR(kBarPair) | A_BOLD;
  theme.selected = COLOR_PAIR(kBarPair);
  theme.error = COLOR_PAIR(kErrorPair) | A_BOLD;
  theme.button = COLOR_PAIR(kAccentPair);
  return theme;
}

}  // namespace herald_ui
