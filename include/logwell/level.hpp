#pragma once
/// The seven ordered levels of a log entry.

#include <string_view>

namespace logwell {

/// Ordered by raw value: an entry passes a minimum level when its raw value is at least the
/// minimum's.
///
///   if (logwell::rawValue(level) >= logwell::rawValue(logwell::Level::warning)) { ... }
enum class Level : int {
  verbose = 0,
  debug = 1,
  info = 2,
  warning = 3,
  error = 4,
  critical = 5,
  fault = 6,
};

constexpr int rawValue(Level level) noexcept {
  return static_cast<int>(level);
}

/// The upper-case name of a level ("VERBOSE" … "FAULT").
std::string_view defaultLevelString(Level level) noexcept;

}  // namespace logwell
