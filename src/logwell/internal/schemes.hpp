#pragma once
// The colour schemes of the console and file destinations.

#include <string_view>

#include "logwell/level.hpp"

namespace logwell::detail {

inline constexpr std::string_view terminalReset = "\x1b[0m";
inline constexpr std::string_view terminalEscape = "\x1b[38;5;";

/// 256-colour foreground codes, written after `terminalEscape`.
constexpr std::string_view terminalColor(Level level) {
  switch (level) {
    case Level::verbose:
      return "251m";
    case Level::debug:
      return "35m";
    case Level::info:
      return "38m";
    case Level::warning:
      return "178m";
    default:
      return "197m";
  }
}

/// A heart and a blank; the red one carries the emoji variation selector.
constexpr std::string_view emojiColor(Level level) {
  switch (level) {
    case Level::verbose:
      return "\xF0\x9F\x92\x9C ";
    case Level::debug:
      return "\xF0\x9F\x92\x9A ";
    case Level::info:
      return "\xF0\x9F\x92\x99 ";
    case Level::warning:
      return "\xF0\x9F\x92\x9B ";
    default:
      return "\xE2\x9D\xA4\xEF\xB8\x8F ";
  }
}

}  // namespace logwell::detail
