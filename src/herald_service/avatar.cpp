#include "herald_service/avatar.hpp"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstdint>
#include <vector>

namespace herald_service {
namespace {

struct CodePoint {
  std::size_t begin, end;
  UChar32 value;
};

std::vector<CodePoint> decode(std::string_view text) {
  std::vector<CodePoint> out;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto length = static_cast<std::int32_t>(text.size());
  std::int32_t i = 0;
  while (i < length) {
    const auto begin = i;
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    out.push_back({static_cast<std::size_t>(begin), static_cast<std::size_t>(i), c});
  }
  return out;
}

// Letters, marks and digits of any script count as alphanumeric, as the phone's character
// sets have it; a malformed byte counts as neither.
bool isAlphanumeric(UChar32 c) {
  return c >= 0 && (U_GET_GC_MASK(c) & (U_GC_L_MASK | U_GC_M_MASK | U_GC_N_MASK)) != 0;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads a hexadecimal number from the start, with an optional "0x" prefix, up to the first
// character that is not a hex digit.
std::uint64_t scanHex(std::string_view text) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
      hexDigit(text[2]) >= 0)
    text.remove_prefix(2);
  std::uint64_t value = 0;
  for (char c : text) {
    const int d = hexDigit(c);
    if (d < 0) break;
    if (value > (UINT64_MAX >> 4)) return UINT64_MAX;
    value = value << 4 | static_cast<std::uint64_t>(d);
  }
  return value;
}

}  // namespace

platform::Color colorFromHex(std::string_view text, double alpha) {
  const auto points = decode(text);
  std::size_t first = 0, last = points.size();
  while (first < last && !isAlphanumeric(points[first].value)) ++first;
  while (last > first && !isAlphanumeric(points[last - 1].value)) --last;
  std::string_view trimmed;
  std::size_t characters = 0;
  if (first < last) {
    trimmed = text.substr(points[first].begin, points[last - 1].end - points[first].begin);
    // A combining mark joins the character before it, so it does not add to the length.
    for (auto i = first; i < last; ++i)
      if (i == first || !(U_GET_GC_MASK(points[i].value) & U_GC_M_MASK)) ++characters;
  }
  const auto value = scanHex(trimmed);
  std::uint64_t r = 1, g = 1, b = 0;
  if (characters == 6) {
    r = value >> 16;
    g = value >> 8 & 0xFF;
    b = value & 0xFF;
  } else if (characters == 3) {
    r = (value >> 8) * 17;
    g = (value >> 4 & 0xF) * 17;
    b = (value & 0xF) * 17;
  }
  return {static_cast<double>(r) / 255, static_cast<double>(g) / 255, static_cast<double>(b) / 255,
          alpha};
}

platform::Image drawInitialsImage(std::string_view initials, platform::Color background) {
  platform::Canvas canvas({kAvatarSide, kAvatarSide});
  canvas.fill({0, 0, kAvatarSide, kAvatarSide}, background);
  const auto font = platform::Font::system(kInitialsFontSize);
  const auto size = canvas.measureText(initials, font);
  canvas.drawText(
      initials,
      {(kAvatarSide - size.width) / 2, (kAvatarSide - size.height) / 2, size.width, size.height},
      font, platform::Color::white());
  return canvas.image();
}

platform::Image drawIconImage(const platform::Image& icon, platform::Color background) {
  platform::Canvas canvas({kAvatarSide, kAvatarSide});
  canvas.fill({0, 0, kAvatarSide, kAvatarSide}, background);
  const auto tinted =
      icon.withTintColor(platform::Color::white(), platform::RenderingMode::alwaysOriginal);
  const double origin = (kAvatarSide - kIconSide) / 2;
  canvas.drawImage(tinted, {origin, origin, kIconSide, kIconSide});
  return canvas.image();
}

}  // namespace herald_service
