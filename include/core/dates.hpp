#pragma once
/// Dates as the server writes them and as people read them.
///
///   core::ISO8601DateServerFormatter iso;
///   auto when = iso.date("2026-11-22T10:00:00Z");   // also with ".123" and "+02:00"
///   iso.string(*when);                                // "2026-11-22T10:00:00.000Z"
///
///   auto stamp = core::DateFormatter(core::DateFormat::export_).string(now);  // 20261122_100000
///
/// `DateFormatter` is a small wrapper over ICU's pattern formatter (pattern, time zone, locale,
/// calendar) that other modules reuse for their own patterns.

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "core/decoding.hpp"

namespace core {

/// A point in time; formatters work to the millisecond.
using Date = std::chrono::system_clock::time_point;

/// Named patterns. `export` is a C++ keyword, hence `export_`.
enum class DateFormat {
  export_,  ///< "yyyyMMdd_HHmmss", for exported file names
};

/// The pattern text of a named format.
std::string_view rawValue(DateFormat format);

/// Formats and parses dates with one ICU date pattern. Safe to share between threads (calls
/// are serialised); making one is costly, so keep it.
///
///   core::DateFormatter hms("HH:mm:ss.SSS", "UTC");
///   hms.string(date);                 // "10:00:00.000"
///   hms.date("10:00:00.000");         // a date on 1970-01-01
class DateFormatter {
 public:
  /// `timeZone`: an ICU/Olson id ("UTC", "GMT+0", "Europe/Berlin"), empty for the process's
  /// zone. `locale`: an ICU locale id ("en_US_POSIX"), empty for the process's locale.
  /// `calendar`: an ICU calendar type ("gregorian", "iso8601"), empty for the locale's.
  /// Throws std::invalid_argument for an unknown time zone or a pattern ICU refuses.
  explicit DateFormatter(std::string_view pattern, std::string_view timeZone = {},
                         std::string_view locale = {}, std::string_view calendar = {});
  /// A formatter for a named pattern in the process's time zone and locale.
  explicit DateFormatter(DateFormat format);

  /// The short date style of the locale, no time ("11/22/26" in en_US). `short` is a C++
  /// keyword, hence `short_`.
  static DateFormatter short_(std::string_view timeZone = {}, std::string_view locale = {});
  /// "EEEE, MMMM dd, h:mm a": "Sunday, November 22, 10:00 AM".
  static DateFormatter longDate(std::string_view timeZone = {}, std::string_view locale = {});
  /// "yyyy-MM-dd'T'HH:mm:ss.SSSZZZZZ" in GMT+0, en_US_POSIX, ISO 8601 calendar.
  static DateFormatter server();

  std::string string(Date date) const;
  /// The date the whole of `text` spells, or none. Parsing is strict (not lenient).
  std::optional<Date> date(std::string_view text) const;
  /// The pattern in use (for the style presets, the one the locale chose).
  std::string pattern() const;

  DateFormatter(DateFormatter&&) noexcept;
  DateFormatter& operator=(DateFormatter&&) noexcept;
  ~DateFormatter();

 private:
  struct Impl;
  explicit DateFormatter(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

/// Internet date-times of the server, always in UTC with milliseconds on output, with or
/// without fractional seconds and with "Z" or a "+hh:mm" offset on input. All instances
/// share two formatters.
///
///   core::ISO8601DateServerFormatter{}.string(date);  // "2026-11-22T10:00:00.000Z"
class ISO8601DateServerFormatter {
 public:
  std::string string(Date date) const;
  std::optional<Date> date(std::string_view text) const;
};

/// Dates in JSON are server date-time strings.
template <>
struct Decodable<Date> {
  static constexpr std::string_view expected = "a date string";
  static Date decode(const boost::json::value& value, std::string_view path);
};

}  // namespace core
