#pragma once
/// Small ASCII text helpers that header names, file extensions and content types need.
///
///   platform::lowercased("JPG") == "jpg";
///   platform::equalsIgnoringCase("content-length", "Content-Length");
///   platform::isValidUTF8("caf\xc3\xa9");  // true; "\xc3" alone is not

#include <algorithm>
#include <cctype>
#include <string>
#include <string_view>

namespace platform {

inline std::string lowercased(std::string_view text) {
  std::string out(text);
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) {
    return std::tolower(static_cast<unsigned char>(x)) ==
           std::tolower(static_cast<unsigned char>(y));
  });
}

/// True when `text` is well-formed UTF-8: shortest forms only, no surrogates, nothing past
/// U+10FFFF.
inline bool isValidUTF8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t trailing;
    char32_t point, least;
    if ((lead & 0xE0) == 0xC0) {
      trailing = 1, point = lead & 0x1F, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      trailing = 2, point = lead & 0x0F, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      trailing = 3, point = lead & 0x07, least = 0x10000;
    } else {
      return false;
    }
    if (text.size() - i <= trailing) return false;
    for (std::size_t k = 1; k <= trailing; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      point = (point << 6) | (next & 0x3F);
    }
    if (point < least || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) return false;
    i += trailing + 1;
  }
  return true;
}

}  // namespace platform
